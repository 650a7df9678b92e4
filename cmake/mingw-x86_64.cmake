# Cross toolchain: x86_64 Windows via mingw-w64 (Debian: g++-mingw-w64-*, mingw-w64-tools).
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TABFORGE_MINGW_TRIPLE x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
# Under Wine 8 a C++ exception that is caught on x86-64 can leave xmm6-xmm15 changed, though the
# Windows calling convention keeps them across calls: a value that the compiler kept there over a
# call that threw inside was garbage after the catch (the adversarial caller's seed 1, call 2632,
# crashed in the failure path that way). Our code does not use these registers at all, so nothing
# it holds depends on them; it costs nothing measurable.
set(TABFORGE_NO_HIGH_XMM "-ffixed-xmm6 -ffixed-xmm7 -ffixed-xmm8 -ffixed-xmm9 -ffixed-xmm10 \
-ffixed-xmm11 -ffixed-xmm12 -ffixed-xmm13 -ffixed-xmm14 -ffixed-xmm15")
set(CMAKE_C_FLAGS_INIT "${TABFORGE_NO_HIGH_XMM}")
set(CMAKE_CXX_FLAGS_INIT "${TABFORGE_NO_HIGH_XMM}")
