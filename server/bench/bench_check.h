// What the Wine benchmarks share: a failed call is said on standard error and fails the run.
#pragma once

#include <windows.h>

#include <cstdio>

// True when `hr` succeeded; otherwise says which call of `program` failed, and how.
inline bool CheckCall(const char* program, HRESULT hr, const char* what) {
  if (FAILED(hr))
    std::fprintf(stderr, "%s: %s failed with 0x%08lX\n", program, what,
                 static_cast<unsigned long>(hr));
  return SUCCEEDED(hr);
}
