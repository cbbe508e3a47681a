#!/usr/bin/env bash
# What the sound of a capture costs the machine: the server's CPU time per second
# of recording with two devices ("Game Audio", stereo, and "USB Microphone", mono,
# both 48 kHz) less the same capture without sound, against the peer, PulseAudio's
# own recorder (parec) taking the same two devices for as long. Linux only; a
# private sound server is started for it and stopped by its pid.
#
#   bench/audio_cpu.sh [SECONDS]      (default 15; build/bin must be built)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin="$root/build/bin"
seconds=${1:-15}
work=$(mktemp -d /tmp/kestrium-audio-cpu.XXXXXX)
pids=()
server=""
cleanup() {
  if [[ -n $server ]]; then kill "$server" 2>/dev/null || true; fi
  for ((i = ${#pids[@]} - 1; i >= 0; i--)); do kill "${pids[i]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
export KESTRIUM_NAMESPACE="kestrium-bench-$$"
export XDG_DOCUMENTS_DIR="$work"

printf '%s\n' "load-module module-native-protocol-unix auth-anonymous=1 socket=$work/native" \
  'load-module module-null-sink sink_name=game rate=48000 channels=2 sink_properties=device.description="Game\ Audio"' \
  'load-module module-null-sink sink_name=mic rate=48000 channels=1 sink_properties=device.description=MicSink' \
  'load-module module-remap-source source_name=usbmic master=mic.monitor channels=1 channel_map=mono source_properties=device.description="USB\ Microphone"' \
  >"$work/default.pa"
XDG_RUNTIME_DIR="$work" HOME="$work" pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=false \
  --disable-shm=true -F "$work/default.pa" --log-target=file:"$work/pa.txt" &
pids+=($!)
export PULSE_SERVER="unix:$work/native"
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
for sink in game mic; do
  parec --device=$sink.monitor --latency-msec=10 --format=u8 --channels=1 --rate=8000 >/dev/null &
  pids+=($!)
done
sox -n -r 48000 -c 2 -e floating-point -b 32 "$work/game.raw" synth 600 sine 1000 vol 0.5
sox -n -r 48000 -c 1 -e floating-point -b 32 "$work/mic.raw" synth 600 sine 440 vol 0.5
pacat --device=game --format=float32le --rate=48000 --channels=2 --latency-msec=200 "$work/game.raw" &
pids+=($!)
pacat --device=mic --format=float32le --rate=48000 --channels=1 --latency-msec=200 "$work/mic.raw" &
pids+=($!)
sleep 2

ticks=$(getconf CLK_TCK)
# User and system time of a process, all its threads, in milliseconds.
cpu_ms() { awk -v t="$ticks" '{ print ($14 + $15) * 1000 / t }' "/proc/$1/stat"; }

"$bin/kestriumcapture" &
server=$!
for _ in $(seq 100); do "$bin/kestrium-client" stop probe 2>/dev/null && break; sleep 0.1; done

record() {
  local before after
  before=$(cpu_ms "$server")
  # Few and small pictures: the difference the sound makes stands out.
  "$bin/kestrium-client" record --name bench --encoder no_compression --size 64x36 --fps 5 \
    --seconds "$seconds" --dir "$work/out" "$@" >/dev/null
  after=$(cpu_ms "$server")
  echo $((${after%.*} - ${before%.*}))
}
video_only=$(record)
with_sound=$(record --audio "Game Audio" --audio "USB Microphone")

# The peer: PulseAudio's recorder on the same two devices, in the same format.
peer_start=$(date +%s%N)
parec --device=game.monitor --format=float32le --rate=48000 --channels=2 >/dev/null &
p1=$!
parec --device=usbmic --format=float32le --rate=48000 --channels=1 >/dev/null &
p2=$!
sleep "$seconds"
peer=$(($(cpu_ms $p1 | cut -d. -f1) + $(cpu_ms $p2 | cut -d. -f1)))
kill $p1 $p2
wait $p1 $p2 2>/dev/null || true

audio=$((with_sound - video_only))
echo "recording of $seconds s, 64x36 at 5 fps, uncompressed:"
echo "  server CPU without sound:     $video_only ms"
echo "  server CPU with two devices:  $with_sound ms"
awk -v a="$audio" -v p="$peer" -v s="$seconds" 'BEGIN {
  printf "  the cost of the sound:       %.1f ms of CPU per second of recording\n", a / s
  printf "  parec on the same devices:   %.1f ms of CPU per second\n", p / s
  if (p > 0) printf "  ratio, ours / parec:         %.2f\n", a / p
}'
