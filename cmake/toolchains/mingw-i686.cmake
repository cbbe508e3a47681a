# The 32-bit Windows build: the product's own process. There is no 32-bit wine to
# run it with here, so no emulator is set: this build is compiled and linked only.
set(KESTRIUM_MINGW_TRIPLE i686-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR x86)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
