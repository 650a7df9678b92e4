// Functions of system DLLs that only a few calls need, looked up on their first use. A DLL in the
// import table loads with ours, in every process that creates the class: winspool.drv alone costs
// the word processor's start more than everything else the library does before the first paint.
#pragma once

namespace tabforge::com {

// The address of `name` in the system DLL `library`, loaded from the system folder (never from the
// current or the application's folder); null when either cannot be found. The DLL stays loaded for
// the life of the process, so an address once found stays good.
void* SystemProcedure(const wchar_t* library, const char* name);

template <class F>
F SystemFunction(const wchar_t* library, const char* name) {
  return reinterpret_cast<F>(SystemProcedure(library, name));
}

}  // namespace tabforge::com
