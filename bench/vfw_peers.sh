#!/usr/bin/env bash
# Measures "vfw" on libavcodec's codecs against ffmpeg driving the same codecs in
# one run, on the same game-like frames, and prints the ratios:
#
#   the whole job, frames to coded frames: ours (kestrium-bench vfw: rows
#   re-spaced to bitmap rows, libswscale to the codec's pixel format, the codec,
#   the encoded slot) against ffmpeg converting with libswscale and coding with
#   the same codec at the same settings (every frame a key frame, one thread;
#   FFV1 version 1, MJPEG at quantiser 3).
#
#   bench/vfw_peers.sh [--build DIR] [--size WxH] [--frames N] [--loops N] [--repeat N] [--input FILE]
#
# ffmpeg is timed by its own -benchmark (start-up left out), ours by
# kestrium-bench (reading the frames left out); each figure is the best of
# --repeat runs, ours and the peer's taken in turn. ffmpeg's time also holds
# reading the frames and passing them through its pipeline: that pipeline alone
# is measured too and taken off ("net"), which makes the peer faster; both
# figures are printed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
size=1280x720
frames=60
loops=2
repeat=3
input=""
while (($#)); do
  case "$1" in
    --build) build=$2; shift ;;
    --size) size=$2; shift ;;
    --frames) frames=$2; shift ;;
    --loops) loops=$2; shift ;;
    --repeat) repeat=$2; shift ;;
    --input) input=$2; shift ;;
    *)
      echo "usage: $0 [--build DIR] [--size WxH] [--frames N] [--loops N] [--repeat N] [--input FILE]" >&2
      exit 2
      ;;
  esac
  shift
done

# shellcheck source=bench/peer_frames.sh
source "$root/bench/peer_frames.sh"
prepare_frames
total=$((frames * loops))

echo "vfw peers: $frames $what, $size, each taken $loops times ($total frames a run), best of $repeat"

ours() {
  local line
  line=$("$bench" vfw --fourcc "$1" --input "$work/game.rgb" --size "$size" --frames "$total" 2>"$work/ours.err") || {
    cat "$work/ours.err" >&2
    exit 1
  }
  echo "$(sed -E 's/.*fps=([0-9.]+).*/\1/' <<<"$line") $(sed -E 's/.*bytes_per_frame=([0-9]+).*/\1/' <<<"$line")"
}

# peer CODEC ARGS...: ffmpeg on the same frames, one thread throughout.
peer() {
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -stream_loop $((loops - 1)) -f rawvideo -pix_fmt rgb24 \
    -s "$size" -i "$work/game.rgb" -filter_threads 1 -sws_flags neighbor+accurate_rnd+full_chroma_int "$@" \
    -g 1 -threads 1 -f null - 2>&1
}

baseline() {
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -stream_loop $((loops - 1)) -f rawvideo -pix_fmt rgb24 \
    -s "$size" -i "$work/game.rgb" -filter_threads 1 -c:v wrapped_avframe -f null - 2>&1
}

rtime() { grep -oE 'rtime=[0-9.]+s' <<<"$1" | tail -1 | tr -dc '0-9.'; }

base=""
for ((r = 0; r < repeat; r++)); do base=$(smaller "$base" "$(rtime "$(baseline)")"); done

echo
printf '%-36s %9s %9s %14s %8s %8s\n' "contender" "fps" "net fps" "bytes/frame" "x raw" "x net"
run() {
  local fourcc=$1 label=$2
  shift 2
  local our_fps=0 our_bytes=0 secs="" peer_bytes=0 f b out kb
  for ((r = 0; r < repeat; r++)); do
    read -r f b < <(ours "$fourcc")
    our_fps=$(larger "$our_fps" "$f")
    our_bytes=$b
    out=$(peer "$@")
    secs=$(smaller "$secs" "$(rtime "$out")")
    kb=$(grep -oE 'video:[0-9]+kB' <<<"$out" | tail -1 | tr -dc '0-9')
    peer_bytes=$((kb * 1024 / total))
  done
  local raw n
  raw=$(fps "$secs")
  n=$(net "$secs" "$base")
  printf '%-36s %9s %9s %14s\n' "kestrium vfw $fourcc" "$our_fps" "" "$our_bytes"
  printf '%-36s %9s %9s %14s %8s %8s\n' "ffmpeg $label" "$raw" "$n" "$peer_bytes" "$(ratio "$our_fps" "$raw")" \
    "$(ratio "$our_fps" "$n")"
}
run FFV1 "swscale + ffv1" -pix_fmt bgr0 -c:v ffv1 -level 1
run MJPG "swscale + mjpeg" -pix_fmt yuvj444p -c:v mjpeg -q:v 3
echo "x raw, x net: our frame rate over the peer's (aim >= 0.95: the re-spacing copy is all we add)"
