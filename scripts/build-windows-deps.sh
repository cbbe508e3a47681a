#!/usr/bin/env bash
# Cross-builds, from Debian's source packages, the libraries that Debian ships
# only for Linux: libjpeg-turbo (MJPEG), LAME (MP3), FFmpeg's libavcodec and
# libavutil with the AAC encoder alone, libx264 ("h264.x264") and librtmp
# (broadcasting, without TLS: we publish to rtmp:// only). Static libraries, so
# that the Windows server stays one .exe that needs no DLL of ours.
#
#   scripts/build-windows-deps.sh i686|x86_64 [PREFIX]
#
# PREFIX defaults to build-win32/deps (i686) or build-win64/deps (x86_64). The
# standard output gets the prefix alone: include/, lib/ and lib/pkgconfig/ in it.
#
# The result is keyed on the source packages' versions, the cross compiler's
# and this script's own text. A prefix that holds the key is used as it is; a
# built prefix is also kept in ~/.cache/kestrium (XDG_CACHE_HOME) under its key,
# so that a fresh clone on the same machine unpacks it in seconds.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
# What the builds say goes to the standard error; the standard output gets the
# prefix alone, for the caller to read.
exec 3>&1 1>&2

arch=${1:-}
case "$arch" in
  i686) triple=i686-w64-mingw32 ffarch=x86 cpu=x86 default_dir=build-win32 ;;
  x86_64) triple=x86_64-w64-mingw32 ffarch=x86_64 cpu=AMD64 default_dir=build-win64 ;;
  *) echo "usage: $0 i686|x86_64 [PREFIX]" >&2; exit 2 ;;
esac
prefix=${2:-$root/$default_dir/deps}
[[ "$prefix" = /* ]] || prefix="$PWD/$prefix"

cc=$triple-gcc-posix
for tool in "$cc" "$triple-ar" "$triple-ranlib" nasm apt-get dpkg-source; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "$0: $tool not found (scripts/setup.sh installs it)" >&2
    exit 2
  fi
done

sources=(libjpeg-turbo lame ffmpeg x264 rtmpdump)
jobs=$(nproc)

# The newest version of each source package that apt knows of. Without source
# lists apt knows none: setup.sh adds them.
declare -A version
for pkg in "${sources[@]}"; do
  version[$pkg]=$(apt-cache showsrc --only-source "$pkg" 2>/dev/null |
    awk '/^Version:/ {print $2}' | sort -V | tail -n1)
  if [[ -z ${version[$pkg]} ]]; then
    echo "$0: apt knows no source package $pkg (no deb-src lines? scripts/setup.sh adds them)" >&2
    exit 1
  fi
done

key=$({
  echo "$arch"
  for pkg in "${sources[@]}"; do echo "$pkg ${version[$pkg]}"; done
  "$cc" --version | head -n1
  nasm -v
  cat "$0"
} | sha256sum | cut -c1-16)
stamp="$prefix/.kestrium-deps-key"
cache=${XDG_CACHE_HOME:-$HOME/.cache}/kestrium/windows-deps
archive="$cache/$arch-$key.tar.gz"

if [[ -f $stamp && $(cat "$stamp") == "$key" ]]; then
  echo "windows deps ($arch): up to date"
  echo "$prefix" >&3
  exit 0
fi
if [[ -f $archive ]]; then
  rm -rf "$prefix"
  mkdir -p "$prefix"
  tar -xzf "$archive" -C "$prefix"
  echo "windows deps ($arch): unpacked from $archive"
  echo "$prefix" >&3
  exit 0
fi

start=$SECONDS
work=$(mktemp -d "${TMPDIR:-/tmp}/kestrium-windeps-XXXXXX")
trap 'rm -rf "$work"' EXIT
rm -rf "$prefix"
mkdir -p "$prefix" "$cache/src"

# The source packages, with Debian's patches applied. Downloads are kept, so
# that the other architecture and later builds fetch nothing.
unpack() {
  local pkg=$1 dsc
  dsc=$(ls "$cache/src/${pkg}_"*.dsc 2>/dev/null | grep -F "_${version[$pkg]#*:}.dsc" || true)
  if [[ -z $dsc ]]; then
    (cd "$cache/src" && apt-get source --download-only -qq "$pkg=${version[$pkg]}" >/dev/null 2>&1) || {
      echo "$0: apt-get source $pkg=${version[$pkg]} failed" >&2
      return 1
    }
    dsc=$(ls "$cache/src/${pkg}_"*.dsc | grep -F "_${version[$pkg]#*:}.dsc")
  fi
  dpkg-source -x --no-check "$dsc" "$work/$pkg" >/dev/null
}

# built NAME FUNCTION: runs one library's build with its output in a log of its
# own, shown only when the build fails; then a line with the time so far.
built() {
  local name=$1 log="$work/$2.log"
  # In the background, not in the if: a function called as a condition would
  # run on past a failed command.
  "$2" >"$log" 2>&1 &
  if ! wait $!; then
    tail -n 60 "$log"
    echo "windows deps ($arch): $name failed (the end of its output is above)"
    exit 1
  fi
  echo "windows deps ($arch): $name ($((SECONDS - start)) s so far)"
}

common_cflags="-O2"

build_jpeg() {
  unpack libjpeg-turbo
  cmake -S "$work/libjpeg-turbo" -B "$work/libjpeg-turbo/out" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_SYSTEM_PROCESSOR="$cpu" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_RC_COMPILER="$triple-windres" -DCMAKE_ASM_NASM_COMPILER=nasm \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DENABLE_SHARED=OFF -DENABLE_STATIC=ON -DWITH_TURBOJPEG=OFF \
    -DWITH_JAVA=OFF >/dev/null
  cmake --build "$work/libjpeg-turbo/out" -j "$jobs" --target jpeg-static >/dev/null
  # Only the library and its headers: the tools are not needed.
  mkdir -p "$prefix/lib" "$prefix/include"
  cp "$work/libjpeg-turbo/out/libjpeg.a" "$prefix/lib/"
  cp "$work/libjpeg-turbo/out/jconfig.h" "$work/libjpeg-turbo/jpeglib.h" "$work/libjpeg-turbo/jmorecfg.h" \
    "$work/libjpeg-turbo/jerror.h" "$prefix/include/"
}

build_lame() {
  unpack lame
  (cd "$work/lame" && CC="$cc" CFLAGS="$common_cflags" ./configure --host="$triple" --prefix="$prefix" \
    --disable-shared --enable-static --disable-frontend --disable-decoder --disable-gtktest >/dev/null &&
    make -j "$jobs" -C libmp3lame >/dev/null && make -C libmp3lame install >/dev/null &&
    make -C include install >/dev/null)
}

build_ffmpeg() {
  unpack ffmpeg
  # libavcodec with the AAC encoder alone, and libavutil: nothing is detected
  # on the build machine, nothing else is built.
  (cd "$work/ffmpeg" && ./configure --prefix="$prefix" --enable-cross-compile --target-os=mingw32 \
    --arch="$ffarch" --cross-prefix="$triple-" --cc="$cc" --pkg-config=false \
    --enable-static --disable-shared --disable-autodetect --disable-programs --disable-doc \
    --disable-network --disable-everything --enable-encoder=aac \
    --disable-avformat --disable-avdevice --disable-avfilter --disable-swscale --disable-swresample \
    --disable-postproc --disable-debug >/dev/null &&
    make -j "$jobs" >/dev/null && make install >/dev/null)
}

build_x264() {
  unpack x264
  # 8-bit 4:2:0 is all the server feeds it.
  (cd "$work/x264" && CC="$cc" ./configure --host="$triple" --cross-prefix="$triple-" --prefix="$prefix" \
    --enable-static --disable-cli --disable-opencl --bit-depth=8 --chroma-format=420 \
    --disable-avs --disable-swscale --disable-lavf --disable-ffms --disable-gpac --disable-lsmash >/dev/null &&
    make -j "$jobs" >/dev/null && make install-lib-static >/dev/null)
}

build_rtmp() {
  unpack rtmpdump
  # No crypto back end: rtmp:// only. Without it the library needs no zlib
  # either (only its SWF verification, a crypto feature, inflates).
  make -C "$work/rtmpdump/librtmp" -j "$jobs" SYS=mingw CRYPTO= SHARED=no CROSS_COMPILE="$triple-" CC="$cc" \
    XCFLAGS="$common_cflags" prefix="$prefix" install_base >/dev/null
  sed -i 's/ -lz//' "$prefix/lib/pkgconfig/librtmp.pc"
}

built "libjpeg-turbo ${version[libjpeg-turbo]}" build_jpeg
built "LAME ${version[lame]}" build_lame
built "FFmpeg ${version[ffmpeg]} (libavcodec: the AAC encoder)" build_ffmpeg
built "x264 ${version[x264]}" build_x264
built "librtmp ${version[rtmpdump]} (no TLS)" build_rtmp
# Manuals, helper programs and libtool files: nothing the build reads.
rm -rf "$prefix/share" "$prefix/man" "$prefix/bin" "$prefix"/lib/*.la

# pkg-config files that name their place relative to themselves, so that the
# prefix still works where the cache unpacks it.
for pc in "$prefix"/lib/pkgconfig/*.pc; do
  sed -i "s|$prefix|\${pcfiledir}/../..|g" "$pc"
done

echo "$key" >"$stamp"
tar -czf "$archive.part" -C "$prefix" . && mv "$archive.part" "$archive"
# Older keys of this architecture are of no use any more.
find "$cache" -maxdepth 1 -name "$arch-*.tar.gz" ! -name "$arch-$key.tar.gz" -delete
echo "windows deps ($arch): built in $((SECONDS - start)) s"
echo "$prefix" >&3
