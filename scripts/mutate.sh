#!/usr/bin/env bash
# A mutation run: puts deliberate faults into the product code one at a time,
# rebuilds, runs the native test suite and reports which faults the suite
# catches. Not part of the default test run.
#
#   scripts/mutate.sh [--tree DIR] [--build DIR] [--list] [--suspects] [FAULT_NAME...]
#
# --tree: the source tree to mutate (default: the repository this script is in).
# --build: its build folder (default: TREE/build-mutate, configured like
# scripts/build.sh configures linux when it does not exist yet). --list prints
# the faults, and whether each one's text is found exactly once in the tree.
# With names, only those faults run. --suspects first runs, for each fault, the
# tests that caught it when the table was last made (its "suspects" below): a
# failure there is a catch at once; when they all pass, or none of them exists
# any more, the full stages run as without it. A quick check after a change to
# the suite; the full run is the one to quote.
#
# Each fault changes one exact text of one file, which must occur there exactly
# once (a fault whose text is missing or repeated is refused, not guessed at).
# The file is restored byte for byte after the fault, also on ^C. A fault is
# caught when a test fails: first the unit tests (every label but e2e), then,
# when they all pass, the end-to-end tests.
set -uo pipefail

# ---------------------------------------------------------------------------
# The faults. fault NAME MODULE FILE DESCRIPTION FIND REPLACE
# FILE is relative to the tree; FIND must occur exactly once in it.
# ---------------------------------------------------------------------------
names=() modules=() files=() descriptions=() finds=() replaces=()
fault() {
  names+=("$1") modules+=("$2") files+=("$3") descriptions+=("$4") finds+=("$5") replaces+=("$6")
}

fault lossless-stride videoEncoder videoEncoder/VidEncoderLoseless.h \
  "the bitmap row stride rounds up one word too far when a row is already 4-byte aligned" \
  'return (static_cast<uint32_t>(width_) * 3 + 3) & ~3u;' \
  'return (static_cast<uint32_t>(width_) * 3 + 4) & ~3u;'

fault avi-chunk-id fileOutput fileOutput/FileWriterAVI.cpp \
  "compressed video goes in '00db' chunks and uncompressed in '00dc' (the two ids swapped)" \
  'video.chunkId = format.biCompression != 0 ? fourcc("00dc") : fourcc("00db");' \
  'video.chunkId = format.biCompression != 0 ? fourcc("00db") : fourcc("00dc");'

fault avi-idx1-empties fileOutput fileOutput/AVIOutputFile.cpp \
  "the legacy index (idx1) leaves out the empty chunks of dropped frames" \
  'if (!indexes_[stream].add(entry) || (legacyIndex_ && !legacyIndex_->add(entry)))' \
  'if (!indexes_[stream].add(entry) || (legacyIndex_ && size != 0 && !legacyIndex_->add(entry)))'

fault recorder-key-flag recorder recorder/Recorder.cpp \
  "frames of encoders without key-frame flags (every frame whole) are written as non-key frames" \
  'const uint32_t key = encoder->HasKeyFrameFlags() != 0 ? common->encodedKey : 1;' \
  'const uint32_t key = encoder->HasKeyFrameFlags() != 0 ? common->encodedKey : 0;'

fault mp4-stss-number fileOutput fileOutput/MP4Container.cpp \
  "the MP4 sync-sample table numbers samples from 0, so each key flag lands on the frame before" \
  'if (key) sync_.push_back(static_cast<uint32_t>(video_.size() + 1));' \
  'if (key) sync_.push_back(static_cast<uint32_t>(video_.size()));'

fault pulse-channel-swap audio audio/AudioSourcePulse.cpp \
  "PulseAudio's front left and front right are mapped to each other's speaker bits (stereo swapped)" \
  $'{PA_CHANNEL_POSITION_FRONT_LEFT, 0x1},\n    {PA_CHANNEL_POSITION_FRONT_RIGHT, 0x2},' \
  $'{PA_CHANNEL_POSITION_FRONT_LEFT, 0x2},\n    {PA_CHANNEL_POSITION_FRONT_RIGHT, 0x1},'

fault encoder-unlocked-slot videoEncoder videoEncoder/VidEncoder.cpp \
  "the encoder fills the shared encoded slot without checking that the consumer freed it" \
  'if (!myTurn || common == nullptr || loadShared(common->encodedFree) == 0) continue;' \
  'if (!myTurn || common == nullptr) continue;'

fault audio-time-unit audio audio/AudioProcessor.cpp \
  "audio blocks are stamped with their position in samples instead of milliseconds" \
  '*timeMs = static_cast<uint32_t>(counter * 1000 / rate);' \
  '*timeMs = static_cast<uint32_t>(counter);'

fault flv-composition-time broadcast broadcast/FlvTags.cpp \
  "the FLV video tag's composition time is written in 2 bytes instead of 3 (tag framing off by one)" \
  'w.wb24(0);  // composition time' \
  'w.wb16(0);  // composition time'

fault tmb2-first-row codecs codecs/Tmb2Encoder.cpp \
  "TMB2's first-row residuals are taken with the wrong sign (pixel - 128 instead of 128 - pixel)" \
  'const uint8_t r = static_cast<uint8_t>(128 - plane[x]);' \
  'const uint8_t r = static_cast<uint8_t>(plane[x] - 128);'

fault dispatcher-stop-delete server server/Dispatcher.cpp \
  "the stop command ignores its delete-files flag: a discarded capture's files stay" \
  'Recorder::Retire(std::move(recorder), params.deleteFiles != 0);' \
  'Recorder::Retire(std::move(recorder), false);'

fault event-private-wake platform platform/posix/Event.cpp \
  "setting a named event wakes with a process-private futex: waiters in other processes sleep on" \
  'futex(impl_->word, FUTEX_WAKE | (impl_->shared ? 0 : FUTEX_PRIVATE_FLAG), INT_MAX, nullptr, 0);' \
  'futex(impl_->word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, INT_MAX, nullptr, 0);'

fault repair-audio-stream tools tools/Repair.cpp \
  "the repair writes salvaged audio chunks with the track index (one low) as their stream number" \
  'avi.audioStream(chunk.stream - 1)->write(0, data, 0, static_cast<uint32_t>(chunk.stream));' \
  'avi.audioStream(chunk.stream - 1)->write(0, data, 0, static_cast<uint32_t>(chunk.stream - 1));'

# The tests (a ctest regex) that caught each fault in the last full run.
declare -A suspects=(
  [lossless-stride]='LoselessTest'
  [avi-chunk-id]='FileWriterAVITest'
  [avi-idx1-empties]='AVIOutputFileTest'
  [recorder-key-flag]='PrerecordingKeeps'
  [mp4-stss-number]='MP4SampleTable'
  [pulse-channel-swap]='AudioSourcePulse'
  [encoder-unlocked-slot]='VidEncoderTest'
  [audio-time-unit]='DropPending'
  [flv-composition-time]='FlvTags'
  [tmb2-first-row]='Tmb2Tool'
  [dispatcher-stop-delete]='StopWithDelete'
  [event-private-wake]='DispatcherTest'
  [repair-audio-stream]='RepairTest'
)

# ---------------------------------------------------------------------------

usage() { echo "usage: $0 [--tree DIR] [--build DIR] [--list] [--suspects] [FAULT_NAME...]" >&2; exit 2; }

tree=$(cd "$(dirname "$0")/.." && pwd)
build=""
list=0
quick=0
wanted=()
while (($#)); do
  case "$1" in
    --tree) [[ $# -ge 2 ]] || usage; tree=$(cd "$2" && pwd) || exit 2; shift ;;
    --build) [[ $# -ge 2 ]] || usage; build=$2; shift ;;
    --list) list=1 ;;
    --suspects) quick=1 ;;
    -*) usage ;;
    *) wanted+=("$1") ;;
  esac
  shift
done
build=${build:-$tree/build-mutate}
[[ "$build" = /* ]] || build="$PWD/$build"

# occurrences FILE TEXT: how many times TEXT stands in FILE (bytes, exactly).
occurrences() {
  python3 -c 'import sys; print(open(sys.argv[1], "rb").read().count(sys.argv[2].encode()))' "$1" "$2" 2>/dev/null || echo 0
}

# replace_once FILE FIND REPLACE: writes FILE with its one FIND replaced.
replace_once() {
  python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, find, repl = sys.argv[1], sys.argv[2].encode(), sys.argv[3].encode()
data = open(path, "rb").read()
if data.count(find) != 1:
    sys.exit(3)
with open(path, "r+b") as f:
    f.write(data.replace(find, repl))
    f.truncate()
EOF
}

selected=()
for i in "${!names[@]}"; do
  if ((${#wanted[@]} == 0)); then
    selected+=("$i")
    continue
  fi
  for w in "${wanted[@]}"; do [[ $w == "${names[$i]}" ]] && selected+=("$i"); done
done
for w in "${wanted[@]}"; do
  found=0
  for i in "${!names[@]}"; do [[ $w == "${names[$i]}" ]] && found=1; done
  ((found)) || { echo "no fault named $w (see --list)" >&2; exit 2; }
done

if ((list)); then
  for i in "${selected[@]}"; do
    n=$(occurrences "$tree/${files[$i]}" "${finds[$i]}")
    state="ok"
    ((n == 1)) || state="REFUSED: its text occurs $n times"
    printf '%-24s %-13s %s\n  %s\n  [%s]\n' "${names[$i]}" "${modules[$i]}" "${files[$i]}" "${descriptions[$i]}" "$state"
  done
  exit 0
fi

# Everything of this run: logs, the backup of the file under mutation, the tests' TMPDIR.
work="$build/mutate-logs"
rm -rf "$work"
mkdir -p "$work"
export KESTRIUM_NAMESPACE="kestrium-mutate-$$"
uid=$(id -u)
lock=/tmp/kestrium-build.lock

# The file under mutation, restored by the trap whatever ends the run.
mutated=""
backup="$work/original"
restore() {
  [[ -n $mutated ]] || return 0
  # Written over in place, not copied with its old time: the new time tells
  # ninja that the object built from the mutant is out of date.
  cat "$backup" >"$mutated" && touch "$mutated"
  if cmp -s "$backup" "$mutated"; then
    mutated=""
  else
    echo "*** could not restore $mutated: its original is $backup" >&2
    return 1
  fi
}
clean_objects() { rm -f /dev/shm/kestrium."$uid"."$KESTRIUM_NAMESPACE".* /dev/shm/kestrium."$uid"."$KESTRIUM_NAMESPACE"-* 2>/dev/null || true; }
on_exit() {
  restore
  clean_objects
  rm -rf "$work"/tmp-*
}
trap on_exit EXIT
trap 'echo "interrupted" >&2; exit 130' INT TERM

build_all() { flock "$lock" nice -n 5 cmake --build "$build" -j2 >"$1" 2>&1; }

# first_failure LOG: the first test the log reports as failed, with how it ended
# (a skipped test is no failure: ctest marks GoogleTest's skips "***Skipped").
first_failure() {
  grep -E '^ *[0-9]+/[0-9]+ +Test +#[0-9]+: ' "$1" | grep -v -E ' Passed +[0-9.]+ sec|\*\*\*Skipped +[0-9.]+ sec| Not Run \(Disabled\)' | head -1 |
    sed -E 's/^.*Test +#[0-9]+: ([^ ]+) .*\. *\**([A-Za-z][^.]*[^ ]) +[0-9.]+ sec.*$/\1 (\2)/; s/\*+/ /g; s/ *:?\)$/)/'
}

# ctest_once NAME LOG ARGS...: one ctest run, with TMPDIR a fresh folder and
# this run's objects in /dev/shm removed after it.
ctest_once() {
  local name=$1 log=$2
  shift 2
  local tmp="$work/tmp-$name"
  rm -rf "$tmp"
  mkdir -p "$tmp"
  # In a session of its own: a test that signals its process group (kill 0)
  # then ends ctest, which is reported, and not this script. ^C here ends it.
  TMPDIR="$tmp" setsid -w ctest --test-dir "$build" -j2 --timeout 300 --output-on-failure "$@" >"$log" 2>&1 &
  local pid=$!
  trap 'kill -TERM -- -'"$pid"' 2>/dev/null; exit 130' INT TERM
  wait "$pid"
  local rc=$?
  trap - INT TERM
  rm -rf "$tmp"
  clean_objects
  return "$rc"
}

# as_regex TEXT: TEXT with the characters that mean something to a regex escaped.
as_regex() { printf '%s' "$1" | sed 's/[][\\.*^$+?(){}|]/\\&/g'; }

# run_stage NAME LOG ARGS...: runs the fault's tests of one stage, stopping at the
# first failure, and prints what caught the fault. The machine is loaded and a
# few end-to-end tests depend on timing: a failed test is run once more, alone,
# and only a second failure counts. A test that passes then is left out of the
# stage, which runs again without it; such tests are named as flaky.
run_stage() {
  local name=$1 log=$2
  shift 2
  local flaky=() exclude=() attempt first test verdict
  for attempt in 1 2 3 4; do
    exclude=()
    if ((${#flaky[@]})); then
      local pattern="" t
      for t in "${flaky[@]}"; do pattern+="${pattern:+|}^$(as_regex "$t")( |\$)"; done
      exclude=(-E "$pattern")
    fi
    if ctest_once "$name" "$log.$attempt" --stop-on-failure "$@" "${exclude[@]}"; then
      ((${#flaky[@]})) && echo "passed; flaky (failed once, then passed alone): ${flaky[*]}"
      return 0
    fi
    first=$(first_failure "$log.$attempt")
    if [[ -z $first ]]; then
      echo "ctest failed, no test named (see $log.$attempt)"
      return 1
    fi
    test=${first% (*}
    verdict=${first##* (}
    if ! ctest_once "$name" "$log.$attempt.rerun" --no-tests=error -R "^$(as_regex "$test")( |\$)"; then
      echo "$test (${verdict%)}, and again alone)${flaky[*]:+; flaky before it: ${flaky[*]}}"
      return 1
    fi
    flaky+=("$test")
  done
  echo "unsure: tests kept failing once and passing alone: ${flaky[*]}"
  return 1
}

echo "tree  $tree"
echo "build $build"
echo "logs  $work"
if [[ ! -f $build/build.ninja ]]; then
  echo "configuring $build"
  cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >"$work/configure.log" 2>&1 ||
    { echo "configuring failed: see $work/configure.log" >&2; exit 1; }
fi
start_all=$SECONDS
echo "building unmutated"
build_all "$work/build-unmutated.log" || { echo "the unmutated tree does not build: see $work/build-unmutated.log" >&2; exit 1; }
echo "  built in $((SECONDS - start_all)) s"

results=()
caught=0
judged=0
for i in "${selected[@]}"; do
  name=${names[$i]} file="$tree/${files[$i]}"
  echo
  echo "=== $name (${modules[$i]}): ${descriptions[$i]}"
  start=$SECONDS
  n=$(occurrences "$file" "${finds[$i]}")
  if ((n != 1)); then
    echo "  refused: its text occurs $n times in ${files[$i]} (must be exactly once)"
    results+=("$name|${modules[$i]}|refused|text occurs $n times|0")
    continue
  fi
  cp -p "$file" "$backup"
  mutated=$file
  if ! replace_once "$file" "${finds[$i]}" "${replaces[$i]}"; then
    restore
    results+=("$name|${modules[$i]}|refused|could not apply|0")
    continue
  fi
  if ! build_all "$work/$name-build.log"; then
    restore
    echo "  does not build (see $work/$name-build.log)"
    results+=("$name|${modules[$i]}|does not build|-|$((SECONDS - start))")
    continue
  fi
  echo "  built in $((SECONDS - start)) s; unit tests"
  verdict="no" by="-"
  # A stage ended by ^C or TERM is no verdict: the run stops there.
  stage() {
    by=$(run_stage "$@")
    local rc=$?
    ((rc == 130)) && { echo "interrupted" >&2; exit 130; }
    return "$rc"
  }
  suspect=${suspects[$name]:-}
  if ((quick)) && [[ -n $suspect ]] &&
    [[ $(ctest --test-dir "$build" -N -R "$suspect" 2>/dev/null | grep -c '^ *Test *#') -gt 0 ]]; then
    if ! stage "$name" "$work/$name-suspects.log" -R "$suspect"; then
      verdict="yes (suspects)"
    else
      echo "  its suspects ($suspect) passed after $((SECONDS - start)) s"
    fi
  fi
  if [[ $verdict == no ]]; then
    if stage "$name" "$work/$name-unit.log" -LE e2e; then
      echo "  unit tests passed after $((SECONDS - start)) s${by:+ ($by)}; end-to-end tests"
      unit_note=${by:+unit tests $by; }
      if stage "$name" "$work/$name-e2e.log" -L e2e; then
        by="$unit_note${by:--}"
      else
        verdict="yes (e2e)"
      fi
    else
      verdict="yes (unit)"
    fi
  fi
  restore || exit 1
  ((judged++))
  [[ $verdict == yes* ]] && ((caught++))
  echo "  caught: $verdict; by: $by; $((SECONDS - start)) s"
  results+=("$name|${modules[$i]}|$verdict|$by|$((SECONDS - start))")
done

# The build is left as the unmutated tree makes it, for whoever uses it next.
echo
echo "rebuilding unmutated"
build_all "$work/build-restored.log" || echo "*** the restored tree does not build: see $work/build-restored.log"

echo
echo "=== mutation results ($tree)"
{
  echo "fault|module|caught?|by which test|seconds"
  printf '%s\n' "${results[@]}"
} | column -t -s '|'
echo "caught $caught of $judged"
echo "total $((SECONDS - start_all)) s"
