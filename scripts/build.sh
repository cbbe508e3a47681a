#!/usr/bin/env bash
# Configures and builds one target: linux (default) into build/, windows-i686 into
# build-win32/ (the product's 32-bit server), windows-x86_64 into build-win64/ (the
# build whose tests run under wine64). Binaries land in <dir>/bin/. The Windows
# targets first cross-build their libraries (scripts/build-windows-deps.sh).
# Extra arguments go to CMake's configure step (e.g. -DKESTRIUM_SANITIZE=ON).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:-linux}
shift || true

case "$target" in
  linux) dir=build; toolchain=() ;;
  windows-i686) dir=build-win32; toolchain=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-i686.cmake") ;;
  windows-x86_64) dir=build-win64; toolchain=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/mingw-x86_64.cmake") ;;
  *) echo "usage: $0 [linux|windows-i686|windows-x86_64] [cmake options]" >&2; exit 2 ;;
esac
dir=${KESTRIUM_BUILD_DIR:-$dir}
[[ "$dir" = /* ]] || dir="$root/$dir"

# The Windows builds link libraries cross-built from Debian's source packages:
# made (or taken from the cache) into <dir>/deps first.
deps=()
case "$target" in
  windows-i686 | windows-x86_64)
    prefix=$("$root/scripts/build-windows-deps.sh" "${target#windows-}" "$dir/deps")
    deps=(-DKESTRIUM_WINDOWS_DEPS="$prefix")
    ;;
esac

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${toolchain[@]}" "${deps[@]}" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
