#!/usr/bin/env bash
# Installs, from Debian's packages, everything the build, the tests, the demo and
# the benchmarks need. Idempotent: when all is present it only checks, quickly.
set -euo pipefail

packages=(
  # native build and the libraries the product uses
  build-essential cmake ninja-build pkg-config libjpeg62-turbo-dev libpulse-dev libx264-dev
  libavcodec-dev libavformat-dev libswscale-dev libmp3lame-dev librtmp-dev
  # NVIDIA's encoder API, headers only: the driver is loaded at run time where there is one
  libffmpeg-nvenc-dev
  # Intel's and AMD's encoders on Linux, headers only: oneVPL and libva are loaded at run time
  libvpl-dev libva-dev
  # tests and benchmarks, and the independent readers that check our files
  googletest libgtest-dev libgmock-dev libbenchmark-dev ffmpeg sox libsox-fmt-mp3
  # the count of test code against product code that test.sh prints
  python3
  # the fuzz targets: clang with libFuzzer and the sanitizers' runtimes
  clang libclang-rt-14-dev
  # a real sound server for the audio tests: a PulseAudio daemon with null sinks
  pulseaudio pulseaudio-utils
  # a real RTMP server for the broadcast tests: nginx with its RTMP module
  nginx-light libnginx-mod-rtmp
  # the Windows builds and running their tests; the libraries they link are
  # cross-built from Debian's source packages (apt-get source, nasm for their
  # assembly)
  g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix wine64 dpkg-dev nasm
)

sudo=()
if [[ $(id -u) -ne 0 ]]; then sudo=(sudo); fi
export DEBIAN_FRONTEND=noninteractive

# The source packages of the Windows builds' libraries need apt's source lists,
# which a new machine often has switched off: a list of our own adds them for
# this release of Debian.
source_list=/etc/apt/sources.list.d/kestrium-sources.sources
known=$(apt-cache showsrc --only-source x264 2>/dev/null || true)
if [[ $known != *Version:* ]]; then
  if [[ ! -f $source_list ]]; then
    codename=$(. /etc/os-release && echo "${VERSION_CODENAME:-bookworm}")
    echo "setup: adding apt's source lists for $codename ($source_list)"
    "${sudo[@]}" tee "$source_list" >/dev/null <<EOF
Types: deb-src
URIs: http://deb.debian.org/debian
Suites: $codename $codename-updates
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg

Types: deb-src
URIs: http://deb.debian.org/debian-security
Suites: $codename-security
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
EOF
  fi
  "${sudo[@]}" apt-get update -qq
fi

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done

if ((${#missing[@]} == 0)); then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

echo "setup: installing ${missing[*]}"
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
