#include "allocation_counter.h"

#include <cstdlib>
#include <new>

namespace {
std::uint64_t allocations = 0;
}

namespace tabforge::bench {
std::uint64_t Allocations() {
  return allocations;
}
}  // namespace tabforge::bench

void* operator new(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size == 0 ? 1 : size))
    return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
