#!/usr/bin/env bash
# Installs what is missing, builds every target and runs every test, then prints
# a summary with the time each part took.
#
#   scripts/test.sh [--long] [--only PART[,PART...]]
#
# Parts: linux (native build and all tests), asan (the same under
# AddressSanitizer and UndefinedBehaviorSanitizer), tsan (the encoder suites
# whose threads hand frames to each other, under ThreadSanitizer), win32 (the 32-bit Windows
# server: compiled and linked), win64 (64-bit Windows build, all tests under
# wine64), fuzz (the libFuzzer targets, built with clang: 15 s each, 10 minutes
# with --long). --long also runs the slow soak and size tests.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

only=""
fuzz_seconds=15
while (($#)); do
  case "$1" in
    --long) export KESTRIUM_LONG_TESTS=1; fuzz_seconds=600 ;;
    --only) only=",$2,"; shift ;;
    *) echo "usage: $0 [--long] [--only linux,asan,tsan,fuzz,win32,win64]" >&2; exit 2 ;;
  esac
  shift
done

# Kernel objects of this run live in a namespace of their own, so that tests
# never meet a user's server or another run's objects. Each test makes its own
# namespace inside it (named "<this namespace>-<test>").
export KESTRIUM_NAMESPACE="kestrium-test-$$"
uid=$(id -u)
run_objects=(/dev/shm/kestrium."$uid"."$KESTRIUM_NAMESPACE".* /dev/shm/kestrium."$uid"."$KESTRIUM_NAMESPACE"-*)
# A last resort: the check after each part has said what was left by then.
cleanup() { rm -f "${run_objects[@]}" 2>/dev/null || true; }
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

# Tests that failed once and passed when run again: named in the summary, so
# that a test that fails now and then is seen and looked into, not forgotten.
flaky="$logs/flaky.txt"
: >"$flaky"

# ctest_rerun BUILD_DIR COMMAND...: runs a ctest command; when tests failed, runs
# just those once more. The part passes when they pass then; every test that
# failed the first time is noted in $flaky either way, and the summary names it.
ctest_rerun() {
  local dir=$1
  shift
  local list="$dir/Testing/Temporary/LastTestsFailed.log"
  # A list from an earlier run must not pass for this one's: ctest leaves it
  # as it was when it is stopped before it writes its own.
  rm -f "$list"
  "$@" && return 0
  [[ -s $list ]] || return 1
  local first
  first=$(sed 's/^[0-9]*://' "$list")
  echo
  echo "=== running again the tests that failed:"
  echo "$first" | sed 's/^/  /'
  if "$@" --rerun-failed; then
    echo "$first" | sed "s|^|  passed on a second run ($dir): |" >>"$flaky"
    return 0
  fi
  sed "s|^[0-9]*:|  failed twice ($dir): |" "$list" >>"$flaky"
  return 1
}

shm_listing() { ls -A /dev/shm | sort; }

# left_behind SHM_BEFORE [TMP]: fails, naming them, when the tests left entries of
# this run in /dev/shm (each is memory until reboot) or anything in their
# temporary folder TMP. Other new kestrium entries may be another run's, made
# while this one ran: they are only shown. What is found is removed, so that the
# next part is judged on its own.
left_behind() {
  local before=$1 tmp=${2:-} status=0 entry ours=() others=()
  while IFS= read -r entry; do
    [[ -n $entry ]] || continue
    case "$entry" in
      kestrium."$uid"."$KESTRIUM_NAMESPACE".* | kestrium."$uid"."$KESTRIUM_NAMESPACE"-*) ours+=("$entry") ;;
      kestrium.*) others+=("$entry") ;;
    esac
  done < <(comm -13 <(echo "$before") <(shm_listing))
  if ((${#ours[@]})); then
    echo "The tests left ${#ours[@]} entries in /dev/shm:"
    printf '  %s\n' "${ours[@]}"
    (cd /dev/shm && rm -f -- "${ours[@]}")
    status=1
  fi
  if ((${#others[@]})); then
    echo "New in /dev/shm but not in this run's namespace (another run's?):"
    printf '  %s\n' "${others[@]}"
  fi
  if [[ -n $tmp ]]; then
    if [[ -n $(ls -A "$tmp") ]]; then
      echo "The tests left in their temporary folder $tmp:"
      (cd "$tmp" && find . -mindepth 1 | sort | sed 's/^/  /')
      status=1
    fi
    rm -rf "$tmp"
  fi
  ((status == 0)) && echo "nothing left behind"
  return "$status"
}

# in_tmpdir TMP COMMAND...: runs a command (or one of these functions) with TMPDIR set.
in_tmpdir() { (export TMPDIR="$1" && shift && "$@"); }

# run_tests NAME TMP COMMAND...: runs a part's tests, with TMPDIR a fresh folder
# TMP unless TMP is empty, and then checks that they left nothing behind.
run_tests() {
  local name=$1 tmp=$2
  shift 2
  local before
  before=$(shm_listing)
  if [[ -n $tmp ]]; then
    rm -rf "$tmp"
    mkdir -p "$tmp"
    run "$name" in_tmpdir "$tmp" "$@"
  else
    run "$name" "$@"
  fi
  run "$name: nothing left behind" left_behind "$before" "$tmp"
}

run "setup" scripts/setup.sh

if wanted linux; then
  run "linux: build" scripts/build.sh linux
  run_tests "linux: tests" "$root/build/test-tmp" ctest_rerun build ctest --test-dir build -j "$jobs" --output-on-failure
fi

if wanted asan; then
  run "asan+ubsan: build" env KESTRIUM_BUILD_DIR=build-asan scripts/build.sh linux -DKESTRIUM_SANITIZE=ON
  run_tests "asan+ubsan: tests" "$root/build-asan/test-tmp" ctest_rerun build-asan \
    env ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir build-asan -j "$jobs" --output-on-failure
fi

if wanted tsan; then
  # The suites whose threads hand data to each other: the H.264 encoders run
  # three threads around one frame slot and a driver's queues, and the file
  # writer's thread takes the packets the recorder's thread queues.
  run "tsan: build" bash -c "cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTRIUM_TSAN=ON \
    >/dev/null && cmake --build build-tsan -j $jobs --target video_encoder_tests recorder_tests"
  run_tests "tsan: tests" "$root/build-tsan/test-tmp" env TSAN_OPTIONS=halt_on_error=1 \
    ctest --test-dir build-tsan -j "$jobs" --output-on-failure -R 'Nvenc|X264|H264|QuickSync|Amd|IFileWriter'
fi

if wanted fuzz; then
  run_tests "fuzz: build and run" "" scripts/fuzz.sh "$fuzz_seconds"
fi

if wanted win32; then
  # The product only: no 32-bit wine here to run test programs, so building them
  # would check little that the 64-bit build does not.
  run "windows-i686: build" scripts/build.sh windows-i686 -DKESTRIUM_TESTS=OFF
fi

if wanted win64; then
  run "windows-x86_64: build" scripts/build.sh windows-x86_64
  # The Windows programs keep their temporary files in the wine prefix: only
  # /dev/shm is checked.
  run_tests "windows-x86_64: tests (wine64)" "" ctest_rerun build-win64 scripts/wine-ctest.sh build-win64 -j "$jobs" --output-on-failure
fi

echo
echo "=== summary"
printf '%s\n' "${summary[@]}"
if [[ -s $flaky ]]; then
  echo "tests that failed on their first run:"
  cat "$flaky"
fi
# Test code against product code: the suite is meant to stay near a third of it.
python3 scripts/line-ratio.py
echo "total $SECONDS s"
exit "$failed"
