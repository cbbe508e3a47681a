#!/usr/bin/env bash
# Measures the "fast" encoder against its peers in one run, on the same
# game-like frames, single-threaded, and prints the ratios:
#
#   1. the whole job, rgb24 frames to encoded bytes: ours (conversion + TMB2)
#      against ffmpeg converting with libswscale and encoding with utvideo,
#      magicyuv and ffvhuff; and the sizes of what each writes;
#   2. the coder alone, all fed the same yuv420p frames;
#   3. our conversion against libswscale (rgb24 to yuv420p, point sampling:
#      "neighbor" in ffmpeg's words) and against a plain memcpy of each frame.
#
#   bench/peers.sh [--build DIR] [--size WxH] [--frames N] [--loops N] [--repeat N] [--input FILE]
#
# --input takes rgb24 frames of the given size from a file (rows top-down, red
# first, as `ffmpeg -pix_fmt rgb24 -f rawvideo` writes them: real game footage,
# say) instead of the game-like pattern of kestrium-bench.
#
# ffmpeg gets one thread for the input, the filters and the encoder (-threads
# before -i is the decoder's only; the encoders would use every core without
# their own). It is timed by its own -benchmark, which leaves its start-up out; each
# figure is the best of --repeat runs, the same for every contender, so that a
# busy machine costs everyone alike. ffmpeg's time also holds reading the frames
# and passing them through its pipeline: the same pipeline with no conversion
# and no encoding is measured too and taken off ("net"), which makes the peers
# faster and the comparison harder for us; both figures are printed. Our frames
# come from memory in turn, from a set larger than the caches.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
size=1920x1080
frames=60
loops=5
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
    *) echo "usage: $0 [--build DIR] [--size WxH] [--frames N] [--loops N] [--repeat N] [--input FILE]" >&2; exit 2 ;;
  esac
  shift
done

# shellcheck source=bench/peer_frames.sh
source "$root/bench/peer_frames.sh"
prepare_frames
total=$((frames * loops))

echo "peers: $frames $what, $size, each taken $loops times ($total frames a run), best of $repeat"
ffmpeg -v error -f rawvideo -pix_fmt rgb24 -s "$size" -i "$work/game.rgb" -pix_fmt yuv420p -f rawvideo "$work/game.yuv"

# ours KERNEL INPUT [options]: best fps and the bytes per frame of kestrium-bench.
ours() {
  local best=0 bytes=0 line fps
  for ((r = 0; r < repeat; r++)); do
    line=$("$bench" "$@" --size "$size" --frames "$total" 2>/dev/null)
    fps=$(sed -E 's/.*fps=([0-9.]+).*/\1/' <<<"$line")
    bytes=$(sed -E 's/.*bytes_per_frame=([0-9]+).*/\1/' <<<"$line")
    best=$(larger "$best" "$fps")
  done
  echo "$best $bytes"
}

# peer PIX_FMT INPUT [output options]: best real seconds of ffmpeg's own
# -benchmark for all frames, and the encoded bytes per frame.
peer() {
  local pixfmt=$1 input=$2
  shift 2
  local best="" out secs kb
  for ((r = 0; r < repeat; r++)); do
    out=$(ffmpeg -hide_banner -nostdin -benchmark -threads 1 -stream_loop $((loops - 1)) -f rawvideo \
      -pix_fmt "$pixfmt" -s "$size" -i "$input" -filter_threads 1 -sws_flags neighbor "$@" -threads 1 -f null - 2>&1)
    secs=$(grep -oE 'rtime=[0-9.]+s' <<<"$out" | tail -1 | tr -dc '0-9.')
    kb=$(grep -oE 'video:[0-9]+kB' <<<"$out" | tail -1 | tr -dc '0-9')
    best=$(smaller "$best" "$secs")
  done
  echo "$best $((kb * 1024 / total))"
}

echo
echo "== 1. whole job, rgb24 to encoded bytes"
read -r our_fps our_bytes < <(ours tmb2 --input "$work/game.rgb")
read -r base_rgb _ < <(peer rgb24 "$work/game.rgb" -pix_fmt rgb24 -c:v wrapped_avframe)
printf '%-28s %9s %9s %14s %8s %8s\n' "contender" "fps" "net fps" "bytes/frame" "x raw" "x net"
printf '%-28s %9s %9s %14s\n' "kestrium fast (TMB2)" "$our_fps" "" "$our_bytes"
best_peer=0
declare -A peer_bytes
for codec in utvideo magicyuv ffvhuff; do
  read -r secs bytes < <(peer rgb24 "$work/game.rgb" -pix_fmt yuv420p -c:v "$codec")
  peer_bytes[$codec]=$bytes
  raw=$(fps "$secs")
  n=$(net "$secs" "$base_rgb")
  printf '%-28s %9s %9s %14s %8s %8s\n' "ffmpeg swscale + $codec" "$raw" "$n" "$bytes" "$(ratio "$our_fps" "$raw")" \
    "$(ratio "$our_fps" "$n")"
  best_peer=$(larger "$best_peer" "$n")
done
echo "ours against the fastest peer (net): $(ratio "$our_fps" "$best_peer")x the frame rate (target >= 2)"
for codec in utvideo magicyuv ffvhuff; do
  echo "size against $codec: $(ratio "$our_bytes" "${peer_bytes[$codec]}")x (target against utvideo <= 1.15)"
done

echo
echo "== 2. coder alone, from yuv420p"
read -r our_fps our_bytes < <(ours tmb2 --pix-fmt yuv420p --input "$work/game.yuv")
read -r base_yuv _ < <(peer yuv420p "$work/game.yuv" -c:v wrapped_avframe)
printf '%-28s %9s %9s %14s %8s %8s\n' "contender" "fps" "net fps" "bytes/frame" "x raw" "x net"
printf '%-28s %9s %9s %14s\n' "kestrium TMB2 coder" "$our_fps" "" "$our_bytes"
for codec in utvideo magicyuv ffvhuff; do
  read -r secs bytes < <(peer yuv420p "$work/game.yuv" -c:v "$codec")
  raw=$(fps "$secs")
  n=$(net "$secs" "$base_yuv")
  printf '%-28s %9s %9s %14s %8s %8s\n' "ffmpeg $codec" "$raw" "$n" "$bytes" "$(ratio "$our_fps" "$raw")" \
    "$(ratio "$our_fps" "$n")"
done

echo
echo "== 3. conversion, rgb24 to yuv420p"
read -r conv_fps _ < <(ours convert --input "$work/game.rgb")
read -r copy_fps _ < <(ours copy --input "$work/game.rgb")
read -r secs _ < <(peer rgb24 "$work/game.rgb" -pix_fmt yuv420p -c:v wrapped_avframe)
raw=$(fps "$secs")
n=$(net "$secs" "$base_rgb")
printf '%-28s %9s %9s\n' "contender" "fps" "net fps"
printf '%-28s %9s\n' "kestrium convert" "$conv_fps"
printf '%-28s %9s\n' "memcpy of the frame" "$copy_fps"
printf '%-28s %9s %9s\n' "libswscale point" "$raw" "$n"
echo "ours against libswscale point: $(ratio "$conv_fps" "$raw")x raw, $(ratio "$conv_fps" "$n")x net (target >= 3)"
echo "ours against memcpy: $(ratio "$conv_fps" "$copy_fps")x the frame rate (target >= 0.5)"
