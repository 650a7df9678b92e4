# Cross toolchain: i686 Windows via mingw-w64 (Debian: g++-mingw-w64-*, mingw-w64-tools).
set(CMAKE_SYSTEM_PROCESSOR i686)
set(TABFORGE_MINGW_TRIPLE i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)

# __stdcall exports (DllGetClassObject@12 ...) are matched to the plain names listed in the .def
# file; without this ld warns on i686.
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,--enable-stdcall-fixup")
