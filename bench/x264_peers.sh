#!/usr/bin/env bash
# Measures "h264.x264" against ffmpeg's libx264 in one run, on the same game-like
# frames, with the same libx264 settings, and prints the ratios:
#
#   the whole job, rgb24 frames to coded H.264: ours (our conversion to NV12,
#   libx264, length prefixes: kestrium-bench x264) against ffmpeg converting with
#   libswscale and coding with libx264, at 1 and 2 encoder threads, with and
#   without the zero-latency tune.
#
#   bench/x264_peers.sh [--build DIR] [--size WxH] [--fps F] [--frames N] [--loops N] [--repeat N]
#                       [--bitrate KBPS] [--target-usage N] [--profile N] [--input FILE]
#
# --input takes rgb24 frames of the given size from a file (rows top-down, red
# first, as `ffmpeg -pix_fmt rgb24 -f rawvideo` writes them) instead of the
# game-like pattern of kestrium-bench.
#
# Same settings: the peer gets the preset, tune, profile, rate, buffer, key
# interval and threads of ours; both libx264 instances write their settings into
# the stream, and the two strings are compared (what differs is printed; the
# colour description and the time base do not change the work). ffmpeg's
# conversion and its pipeline run on one thread (-filter_threads 1), as ours
# runs on the encoder's thread; libswscale converts with point sampling
# ("neighbor"), its fastest. ffmpeg is timed by its own -benchmark (start-up left
# out), ours by kestrium-bench (reading the frames left out); each figure is the
# best of --repeat runs, ours and the peer's taken in turn, so that a busy machine
# costs both alike. ffmpeg's time also holds reading the frames and passing them
# through its pipeline: the same pipeline with no conversion and no coding is
# measured too and taken off ("net"), which makes the peer faster and the
# comparison harder for us; both figures are printed.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
size=1920x1080
fps=60
frames=60
loops=2
repeat=3
bitrate=6000
target_usage=0
profile=2
input=""
while (($#)); do
  case "$1" in
    --build) build=$2; shift ;;
    --size) size=$2; shift ;;
    --fps) fps=$2; shift ;;
    --frames) frames=$2; shift ;;
    --loops) loops=$2; shift ;;
    --repeat) repeat=$2; shift ;;
    --bitrate) bitrate=$2; shift ;;
    --target-usage) target_usage=$2; shift ;;
    --profile) profile=$2; shift ;;
    --input) input=$2; shift ;;
    *)
      echo "usage: $0 [--build DIR] [--size WxH] [--fps F] [--frames N] [--loops N] [--repeat N] [--bitrate KBPS]" \
        "[--target-usage N] [--profile N] [--input FILE]" >&2
      exit 2
      ;;
  esac
  shift
done

# The encoder's own mappings (X264Session): target usage to preset, profile to name.
presets=(veryfast fast faster veryfast veryfast superfast superfast ultrafast)
preset=${presets[$target_usage]:-veryfast}
profiles=(baseline main high)
profile_name=${profiles[$profile]:?profile is 0, 1 or 2}
keyint=${fps%.*}

# shellcheck source=bench/peer_frames.sh
source "$root/bench/peer_frames.sh"
prepare_frames
total=$((frames * loops))

echo "x264 peers: $frames $what, $size at $fps fps, each taken $loops times ($total frames a run), best of $repeat"
echo "settings: preset $preset, profile $profile_name, $bitrate kbit/s with a one-second buffer, an IDR frame every $keyint"

# ours THREADS LOWLATENCY: frames per second and bytes per frame of kestrium-bench.
ours() {
  local line
  line=$("$bench" x264 --input "$work/game.rgb" --size "$size" --frames "$total" --threads "$1" --low-latency "$2" \
    --bitrate "$bitrate" --target-usage "$target_usage" --profile "$profile" --fps "$fps" 2>"$work/ours.err") || {
    cat "$work/ours.err" >&2
    exit 1
  }
  echo "$(sed -E 's/.*fps=([0-9.]+).*/\1/' <<<"$line") $(sed -E 's/.*bytes_per_frame=([0-9]+).*/\1/' <<<"$line")"
}

# peer THREADS LOWLATENCY [OUTPUT...]: ffmpeg converting rgb24 with libswscale and
# coding with libx264 at our settings.
peer() {
  local threads=$1 lowlatency=$2
  shift 2
  local tune=()
  ((lowlatency)) && tune=(-tune zerolatency)
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -stream_loop $((loops - 1)) -f rawvideo -pix_fmt rgb24 \
    -s "$size" -r "$fps" -i "$work/game.rgb" -filter_threads 1 -sws_flags neighbor -pix_fmt yuv420p \
    -c:v libx264 -preset "$preset" "${tune[@]}" -profile:v "$profile_name" -b:v "${bitrate}k" -maxrate "${bitrate}k" \
    -bufsize "${bitrate}k" -g "$keyint" -bf 0 -sc_threshold 0 \
    -x264-params "nal-hrd=vbr:open-gop=0:keyint-min=$((keyint / 10 > 1 ? keyint / 10 : 1))" -threads "$threads" "$@" 2>&1
}

# The pipeline alone: no conversion, no coding.
baseline() {
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -stream_loop $((loops - 1)) -f rawvideo -pix_fmt rgb24 \
    -s "$size" -r "$fps" -i "$work/game.rgb" -filter_threads 1 -c:v wrapped_avframe -f null - 2>&1
}

rtime() { grep -oE 'rtime=[0-9.]+s' <<<"$1" | tail -1 | tr -dc '0-9.'; }

# The settings libx264 wrote into each stream, key by key, and what differs.
compare_settings() {
  local threads=$1 lowlatency=$2
  "$bench" x264 --input "$work/game.rgb" --size "$size" --frames 1 --threads "$threads" --low-latency "$lowlatency" \
    --bitrate "$bitrate" --target-usage "$target_usage" --profile "$profile" --fps "$fps" 2>&1 >/dev/null |
    sed -n 's/.*x264 options: //p' | tr ' ' '\n' | sort >"$work/ours.opts"
  peer "$threads" "$lowlatency" -frames:v 1 -f h264 -y "$work/peer.h264" >/dev/null
  strings "$work/peer.h264" | sed -n 's/.*options: //p' | head -1 | tr ' ' '\n' | sort >"$work/peer.opts"
  local differ
  differ=$(comm -3 "$work/ours.opts" "$work/peer.opts" | tr -s '\t\n' '  ')
  echo "${differ:-none}"
}

base=""
for ((r = 0; r < repeat; r++)); do base=$(smaller "$base" "$(rtime "$(baseline)")"); done

echo
printf '%-44s %9s %9s %14s %8s %8s  %s\n' "contender" "fps" "net fps" "bytes/frame" "x raw" "x net" \
  "settings that differ (ours / peer)"
for lowlatency in 0 1; do
  for threads in 1 2; do
    label="$threads thread"
    ((threads == 1)) || label+="s"
    ((lowlatency == 0)) || label+=", zerolatency"
    differ=$(compare_settings "$threads" "$lowlatency")
    our_fps=0 our_bytes=0 secs="" peer_bytes=0
    for ((r = 0; r < repeat; r++)); do
      read -r f b < <(ours "$threads" "$lowlatency")
      our_fps=$(larger "$our_fps" "$f")
      our_bytes=$b
      out=$(peer "$threads" "$lowlatency" -f null -)
      secs=$(smaller "$secs" "$(rtime "$out")")
      kb=$(grep -oE 'video:[0-9]+kB' <<<"$out" | tail -1 | tr -dc '0-9')
      peer_bytes=$((kb * 1024 / total))
    done
    raw=$(fps "$secs")
    n=$(net "$secs" "$base")
    printf '%-44s %9s %9s %14s\n' "kestrium h264.x264, $label" "$our_fps" "" "$our_bytes"
    printf '%-44s %9s %9s %14s %8s %8s  %s\n' "ffmpeg swscale + libx264" "$raw" "$n" "$peer_bytes" \
      "$(ratio "$our_fps" "$raw")" "$(ratio "$our_fps" "$n")" "$differ"
  done
done
echo "x raw, x net: our frame rate over the peer's (target >= 1.1); bytes/frame should be alike at one bitrate"
