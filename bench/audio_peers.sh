#!/usr/bin/env bash
# Measures the AAC and MP3 encoders against ffmpeg's in one run, on the same
# sound, and prints each as a multiple of real time and the ratio ours / peer:
#
#   kestrium-bench aac  against  ffmpeg -c:a aac         (the same libavcodec encoder)
#   kestrium-bench mp3  against  ffmpeg -c:a libmp3lame  (the same LAME)
#
#   bench/audio_peers.sh [--build DIR] [--seconds S] [--rate HZ] [--channels N] [--bitrate KBPS] [--repeat N]
#
# The sound is game-like: a chord of three tones over pink noise, made by
# ffmpeg once and given to both as raw 16-bit PCM. ffmpeg is timed by its own
# -benchmark (start-up left out), ours by kestrium-bench (reading the file left
# out); ffmpeg's figure also holds reading the file and its pipeline, which is
# measured alone (-c:a pcm_s16le to the null muxer) and taken off ("net"): that
# makes the peer faster and the comparison harder for us. Each figure is the
# best of --repeat runs, ours and the peer's taken in turn.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build
seconds=60
rate=48000
channels=2
bitrate=160
repeat=3
while (($#)); do
  case "$1" in
    --build) build=$2; shift ;;
    --seconds) seconds=$2; shift ;;
    --rate) rate=$2; shift ;;
    --channels) channels=$2; shift ;;
    --bitrate) bitrate=$2; shift ;;
    --repeat) repeat=$2; shift ;;
    *)
      echo "usage: $0 [--build DIR] [--seconds S] [--rate HZ] [--channels N] [--bitrate KBPS] [--repeat N]" >&2
      exit 2
      ;;
  esac
  shift
done

bench=$build/bin/kestrium-bench
[[ -x $bench ]] || { echo "$0: $bench not found: build first (scripts/build.sh)" >&2; exit 2; }
command -v ffmpeg >/dev/null || { echo "$0: ffmpeg not found (scripts/setup.sh)" >&2; exit 2; }
work=$(mktemp -d "${TMPDIR:-/tmp}/kestrium-audio-peers.XXXXXX")
trap 'rm -rf "$work"' EXIT

ffmpeg -hide_banner -nostdin -v error -f lavfi -i "anoisesrc=color=pink:amplitude=0.1:d=$seconds:r=$rate" \
  -f lavfi -i "sine=f=220:d=$seconds:r=$rate" -f lavfi -i "sine=f=277:d=$seconds:r=$rate" \
  -f lavfi -i "sine=f=330:d=$seconds:r=$rate" -filter_complex "amix=inputs=4:normalize=0" \
  -ac "$channels" -f s16le -acodec pcm_s16le "$work/sound.raw"

# larger, smaller and ratio
# shellcheck source=bench/peer_frames.sh
source "$root/bench/peer_frames.sh"
rtime() { grep -oE 'rtime=[0-9.]+s' <<<"$1" | tail -1 | tr -dc '0-9.'; }
times() { awk -v n="$seconds" -v s="$1" -v b="${2:-0}" 'BEGIN { printf "%.1f", (s > b) ? n / (s - b) : 0 }'; }

peer() {
  ffmpeg -hide_banner -nostdin -benchmark -threads 1 -f s16le -ar "$rate" -ac "$channels" -i "$work/sound.raw" \
    -threads 1 "$@" -f null - 2>&1
}

echo "audio peers: $seconds s of game-like sound, $rate Hz, $channels channels, $bitrate kbit/s, best of $repeat"
echo
printf '%-36s %12s %12s %10s %10s\n' "contender" "x realtime" "net x rt" "ours/raw" "ours/net"
base=""
for ((r = 0; r < repeat; r++)); do base=$(smaller "$base" "$(rtime "$(peer -c:a pcm_s16le)")"); done
for kernel in aac mp3; do
  case $kernel in
    aac) codec=aac ;;
    mp3) codec=libmp3lame ;;
  esac
  ours=0 secs=""
  for ((r = 0; r < repeat; r++)); do
    line=$("$bench" "$kernel" --input "$work/sound.raw" --rate "$rate" --channels "$channels" --bitrate "$bitrate")
    ours=$(larger "$ours" "$(sed -E 's/.*x_realtime=([0-9.]+).*/\1/' <<<"$line")")
    secs=$(smaller "$secs" "$(rtime "$(peer -c:a "$codec" -b:a "${bitrate}k")")")
  done
  raw=$(times "$secs")
  net=$(times "$secs" "$base")
  printf '%-36s %12s %12s %10s %10s\n' "kestrium-bench $kernel" "$ours" "" "" ""
  printf '%-36s %12s %12s %10s %10s\n' "ffmpeg -c:a $codec" "$raw" "$net" "$(ratio "$ours" "$raw")" \
    "$(ratio "$ours" "$net")"
done
