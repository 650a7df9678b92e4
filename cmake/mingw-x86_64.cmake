# Cross toolchain: x86_64 Windows via mingw-w64 (Debian: g++-mingw-w64-*, mingw-w64-tools).
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TABFORGE_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
