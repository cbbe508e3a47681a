#!/usr/bin/env bash
# Installs what is missing, builds every target and runs every test, then prints
# a summary with the time each part took.
#
#   scripts/test.sh [--long] [--only PART[,PART...]]
#
# Parts: linux (native build and all tests), asan (the same under
# AddressSanitizer and UndefinedBehaviorSanitizer), win32 (the 32-bit Windows
# server: compiled and linked), win64 (64-bit Windows build, all tests under
# wine64). --long also runs the slow soak and size tests.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

only=""
while (($#)); do
  case "$1" in
    --long) export KESTRIUM_LONG_TESTS=1 ;;
    --only) only=",$2,"; shift ;;
    *) echo "usage: $0 [--long] [--only linux,asan,win32,win64]" >&2; exit 2 ;;
  esac
  shift
done

# Kernel objects of this run live in a namespace of their own, so that tests
# never meet a user's server or another run's objects.
export KESTRIUM_NAMESPACE="kestrium-test-$$"
cleanup() { rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true; }
trap cleanup EXIT

jobs=$(nproc)
# Each part's output is also kept here, to read a failure after the fact.
logs="$root/build-logs"
mkdir -p "$logs"
summary=()
failed=0

# run NAME COMMAND...: runs one part, timing it and noting its outcome.
run() {
  local name=$1
  shift
  echo
  echo "=== $name"
  local start=$SECONDS
  local log="$logs/$(echo "$name" | tr -c 'a-zA-Z0-9_-' '_').log"
  if "$@" 2>&1 | tee "$log"; then
    summary+=("$(printf '%-34s passed  %5ds' "$name" $((SECONDS - start)))")
  else
    summary+=("$(printf '%-34s FAILED  %5ds' "$name" $((SECONDS - start)))")
    failed=1
  fi
}

wanted() { [[ -z "$only" || "$only" == *",$1,"* ]]; }

run "setup" scripts/setup.sh

if wanted linux; then
  run "linux: build" scripts/build.sh linux
  run "linux: tests" ctest --test-dir build -j "$jobs" --output-on-failure
fi

if wanted asan; then
  run "asan+ubsan: build" env KESTRIUM_BUILD_DIR=build-asan scripts/build.sh linux -DKESTRIUM_SANITIZE=ON
  run "asan+ubsan: tests" env ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan -j "$jobs" --output-on-failure
fi

if wanted win32; then
  run "windows-i686: build" scripts/build.sh windows-i686
fi

if wanted win64; then
  run "windows-x86_64: build" scripts/build.sh windows-x86_64
  run "windows-x86_64: tests (wine64)" scripts/wine-ctest.sh build-win64 -j "$jobs" --output-on-failure
fi

echo
echo "=== summary"
printf '%s\n' "${summary[@]}"
echo "total $SECONDS s"
exit "$failed"
