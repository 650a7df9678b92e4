# What both mingw-w64 toolchains share; the per-target file sets CMAKE_SYSTEM_PROCESSOR and
# TABFORGE_MINGW_TRIPLE first. The -posix compilers use the posix thread model, and everything is
# linked -static so binaries depend on system DLLs only (no libstdc++-6.dll, libgcc_s_*.dll or
# libwinpthread-1.dll next to them).
set(CMAKE_SYSTEM_NAME Windows)

set(CMAKE_C_COMPILER   ${TABFORGE_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TABFORGE_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER  ${TABFORGE_MINGW_TRIPLE}-windres)
# widl is not a CMake language; projects read it from this cache variable.
set(TABFORGE_WIDL ${TABFORGE_MINGW_TRIPLE}-widl CACHE STRING "widl for this target")

# Headers/libraries only from the mingw sysroot, build tools only from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${TABFORGE_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT    "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# zlib (libz-mingw-w64-dev) for the doctor's template reader: the static library, so that
# tabforge.exe needs no zlib1.dll beside it.
set(ZLIB_USE_STATIC_LIBS ON)
