#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and the sanitizers (build-fuzz/) and
# runs each for SECONDS (default 20) from its seed corpus in tests/fuzz/corpus.
# What a run finds that is new goes to build-fuzz/corpus/, never into the
# repository; an input that crashes is kept in build-fuzz/crashes/ and fails
# the run.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-20}
shift || true
targets=("$@")
((${#targets[@]})) || targets=(fuzz_tmb2 fuzz_avi fuzz_mp4_journal fuzz_command_block)
dir="$root/build-fuzz"

cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DKESTRIUM_FUZZ=ON -DKESTRIUM_TESTS=OFF >/dev/null || exit 1
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]}" || exit 1

uid=$(id -u)
failed=0
for t in "${targets[@]}"; do
  echo "--- $t: ${seconds} s"
  # Kernel objects and files of this target alone, cleared whatever happens:
  # a crash leaves the command channel's objects behind.
  ns="${KESTRIUM_NAMESPACE:-kestrium}-fuzz-$$-$t"
  tmp="$dir/tmp/$t"
  rm -rf "$tmp"
  # A command block is read whole: inputs as long as it.
  extra=()
  [[ $t == fuzz_command_block ]] && extra=(-max_len=13144)
  mkdir -p "$tmp" "$dir/corpus/$t" "$dir/crashes"
  # The lines of each new input found are many and say little: the rest stays.
  KESTRIUM_NAMESPACE=$ns TMPDIR=$tmp "$dir/bin/$t" "${extra[@]}" -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 \
    -print_final_stats=1 -artifact_prefix="$dir/crashes/$t-" "$dir/corpus/$t" "$root/tests/fuzz/corpus/$t" 2>&1 |
    grep -Ev '^#[0-9]+[[:space:]]+(NEW|REDUCE|pulse|INITED)|^[[:space:]]+NEW_FUNC'
  status=${PIPESTATUS[0]}
  rm -f /dev/shm/kestrium."$uid"."$ns"*
  rm -rf "$tmp"
  if ((status != 0)); then
    echo "--- $t FAILED (exit $status); the input is in $dir/crashes/"
    failed=1
  fi
done
exit "$failed"
