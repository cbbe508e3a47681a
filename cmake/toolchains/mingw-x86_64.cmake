# The 64-bit Windows build, whose test programs run under wine64.
set(KESTRIUM_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)

# Debian installs wine64 outside PATH; ctest and test discovery run the .exe
# files through it, by a script that starts again what wine ended unstarted.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../../scripts/wine-run.sh)
