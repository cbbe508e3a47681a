#!/usr/bin/env bash
# Frames lost by a real-time "fast" capture (2 threads) under the loads a game
# machine sees, as the reference client counts them: the frames it gave late
# itself (frames_late) apart from the frames that were on time and found the
# server still busy with the one before (frames_busy, the server's share).
#
#   bench/frames_lost.sh [--seconds S] [--runs N] [--build DIR] [--server PATH]
#
# --server runs another build's server (to compare two) with this build's client.
#
# Scenarios: 1920x1080 at 60 fps idle, while another process writes 6 GB to the
# disk the recording goes to, and while two busy loops hold both cores; and
# 2560x1440 at 60 fps idle. Each is run N times (default 3) for S seconds
# (default 30); the table gives the median run (by frames lost) of each.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=30 runs=3 build="$root/build" server_binary=""
while (($#)); do
  case "$1" in
    --seconds) seconds=$2; shift ;;
    --runs) runs=$2; shift ;;
    --build) build=$2; shift ;;
    --server) server_binary=$2; shift ;;
    *) echo "usage: $0 [--seconds S] [--runs N] [--build DIR] [--server PATH]" >&2; exit 2 ;;
  esac
  shift
done
bin="$build/bin"
server_binary=${server_binary:-$bin/kestriumcapture}
[[ -x $server_binary && -x $bin/kestrium-client ]] || { echo "$0: build first (scripts/build.sh)" >&2; exit 2; }

# The recordings go where the parallel writer writes: the same disk.
work=$(mktemp -d "${TMPDIR:-/var/tmp}/kestrium-frames-lost.XXXXXX")
export HOME="$work/home" XDG_DOCUMENTS_DIR="$work/home" KESTRIUM_NAMESPACE="frames-lost-$$"
mkdir -p "$HOME"
load=()
server=""
finish() {
  for p in "${load[@]}" $server; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".*
  rm -rf "$work"
}
trap finish EXIT

"$server_binary" >/dev/null 2>&1 &
server=$!
for _ in $(seq 200); do "$bin/kestrium-client" features >/dev/null 2>&1 && break; sleep 0.05; done

start_load() {
  case "$1" in
    write)
      # 6 GB in 1 MB writes, flushed as it goes, again and again for the whole run.
      (while :; do dd if=/dev/zero of="$work/parallel" bs=1M count=6144 conv=fdatasync status=none; done) &
      load+=($!) ;;
    busy)
      for _ in 1 2; do (while :; do :; done) & load+=($!); done ;;
  esac
}
stop_load() {
  for p in "${load[@]}"; do kill "$p" 2>/dev/null || true; done
  # dd ends with its loop's shell; a write it had in flight is waited for.
  wait "${load[@]}" 2>/dev/null || true
  load=()
  rm -f "$work/parallel"
}

# one SIZE LOAD: one run; prints "lost late busy fed".
one() {
  start_load "$2"
  local out
  out=$("$bin/kestrium-client" record --name lost --dir "$work/rec" --encoder fast --threads 2 --size "$1" --fps 60 \
    --seconds "$seconds" | grep frames_fed)
  stop_load
  rm -rf "$work/rec"
  local skipped late busy fed
  skipped=$(sed -n 's/.*frames_skipped=\([0-9]*\).*/\1/p' <<<"$out")
  late=$(sed -n 's/.*frames_late=\([0-9]*\).*/\1/p' <<<"$out")
  busy=$(sed -n 's/.*frames_busy=\([0-9]*\).*/\1/p' <<<"$out")
  fed=$(sed -n 's/.*frames_fed=\([0-9]*\).*/\1/p' <<<"$out")
  echo "$skipped $late $busy $fed"
}

total=$((seconds * 60))
printf '%-28s %8s %8s %8s %8s   (median of %d runs of %d frames; each run: lost/late/busy)\n' \
  scenario lost late busy "busy %" "$runs" "$total"
for scenario in "1920x1080 idle" "1920x1080 write" "1920x1080 busy" "2560x1440 idle"; do
  read -r size load_kind <<<"$scenario"
  results=()
  for _ in $(seq "$runs"); do results+=("$(one "$size" "$load_kind")"); done
  median=$(printf '%s\n' "${results[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p")
  read -r lost late busy _ <<<"$median"
  all=$(printf '%s\n' "${results[@]}" | awk '{ printf "%s%s/%s/%s", (NR > 1 ? " " : ""), $1, $2, $3 }')
  printf '%-28s %8s %8s %8s %7.2f%%   %s\n' "$size 60 fps, ${load_kind/idle/idle}" "$lost" "$late" "$busy" \
    "$(awk -v b="$busy" -v t="$total" 'BEGIN { print 100 * b / t }')" "$all"
done
