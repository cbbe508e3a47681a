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

# The libraries cross-built from Debian's source packages (scripts/build.sh
# passes their prefix; see scripts/build-windows-deps.sh): found there by
# find_* and by pkg-config, linked statically with what they need in turn.
# Without a prefix pkg-config must find nothing: the build machine's own .pc
# files describe Linux libraries.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTRIUM_WINDOWS_DEPS)
if(KESTRIUM_WINDOWS_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH ${KESTRIUM_WINDOWS_DEPS})
  set(ENV{PKG_CONFIG_LIBDIR} "${KESTRIUM_WINDOWS_DEPS}/lib/pkgconfig")
else()
  set(ENV{PKG_CONFIG_LIBDIR} "/nonexistent/kestrium-no-windows-deps")
endif()
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
set(PKG_CONFIG_ARGN --static)
