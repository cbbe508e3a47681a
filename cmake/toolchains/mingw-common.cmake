# Shared by the mingw-w64 toolchains: set KESTRIUM_MINGW_TRIPLE first. Debian's
# posix-thread compilers are used so that std::thread and std::mutex exist.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${KESTRIUM_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KESTRIUM_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${KESTRIUM_MINGW_TRIPLE}-windres)

# Look for libraries and headers only in the target's sysroot, for programs only
# on the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KESTRIUM_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
