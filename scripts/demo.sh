#!/usr/bin/env bash
# Installs what is missing, builds, and records a short clip end to end: starts a
# capture server, records 10 s of the client's moving test pattern at 1280x720
# with the best encoder this build has, with sound, shuts the server down, and
# shows the files with what ffprobe says of them.
#
# The sound is what the computer plays: the default output of the user's sound
# server. Without one, the demo starts a private sound server with a device
# "Demo Tone" playing a 440 Hz tone, and stops it at the end.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh linux >/dev/null
bin="$root/build/bin"

# A namespace and a documents folder of its own: the demo never meets a server
# the user runs, and its log stays beside its recordings.
export KESTRIUM_NAMESPACE="kestrium-demo-$$"
demo_dir="$root/recordings/demo-$(date +%Y%m%d-%H%M%S)"
mkdir -p "$demo_dir"
export XDG_DOCUMENTS_DIR="$demo_dir"

sound_pids=()
pa_dir=""
# The description of the default output: recording it records what the computer plays.
default_output() {
  local name
  name=$(pactl get-default-sink 2>/dev/null) || return 1
  pactl list sinks 2>/dev/null |
    awk -v n="$name" '$1 == "Name:" { hit = ($2 == n) }
                      hit && /^[ \t]*Description:/ { sub(/^[ \t]*Description: /, ""); print; exit }'
}
# A sound server of the demo's own, with one device that plays a tone.
start_private_sound_server() {
  command -v pulseaudio >/dev/null || return 1
  pa_dir=$(mktemp -d /tmp/kestrium-demo-pa.XXXXXX)
  printf '%s\n' "load-module module-native-protocol-unix auth-anonymous=1 socket=$pa_dir/native" \
    'load-module module-null-sink sink_name=tone rate=48000 channels=2 sink_properties=device.description="Demo\ Tone"' \
    >"$pa_dir/default.pa"
  XDG_RUNTIME_DIR="$pa_dir" HOME="$pa_dir" pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=false \
    --disable-shm=true -F "$pa_dir/default.pa" --log-target=file:"$pa_dir/log.txt" &
  sound_pids+=($!)
  export PULSE_SERVER="unix:$pa_dir/native"
  for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
  pactl info >/dev/null 2>&1 || return 1
  # An idle null device works in blocks of two seconds until a reader asks it
  # for a short latency; once that reader gets sound, every new one gets it at
  # once, and the recording's sound starts with its pictures.
  parec --device=tone.monitor --latency-msec=10 --format=u8 --channels=1 --rate=8000 >"$pa_dir/monitor.raw" &
  sound_pids+=($!)
  for _ in $(seq 100); do [[ -s $pa_dir/monitor.raw ]] && break; sleep 0.05; done
  sox -n -r 48000 -c 2 -e floating-point -b 32 "$pa_dir/tone.raw" synth 30 sine 440 vol 0.3
  pacat --device=tone --format=float32le --rate=48000 --channels=2 --latency-msec=200 "$pa_dir/tone.raw" &
  sound_pids+=($!)
}
stop_sound() {
  # The players first, then their server.
  for ((i = ${#sound_pids[@]} - 1; i >= 0; i--)); do kill "${sound_pids[i]}" 2>/dev/null || true; done
  for pid in "${sound_pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  sound_pids=()
  if [[ -n $pa_dir ]]; then rm -rf "$pa_dir"; fi
  pa_dir=""
}
sound=""
if pactl info >/dev/null 2>&1 && sound=$(default_output) && [[ -n $sound ]]; then
  echo "--- recording the sound of \"$sound\""
elif start_private_sound_server; then
  sound="Demo Tone"
  echo "--- no sound server: recording a 440 Hz tone from a private one"
else
  sound=""
  echo "--- no sound server: recording without sound"
fi
audio_args=()
if [[ -n $sound ]]; then audio_args=(--audio "$sound"); fi

"$bin/kestriumcapture" &
server=$!
cleanup() {
  kill "$server" 2>/dev/null || true
  stop_sound
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true
}
trap cleanup EXIT
# The server is up once its command channel answers.
for _ in $(seq 100); do
  if "$bin/kestrium-client" stop demo-probe 2>/dev/null; then break; fi
  sleep 0.1
done

record() {
  "$bin/kestrium-client" record --name demo --encoder "$1" --size 1280x720 --fps 30 --seconds 10 \
    --dir "$demo_dir" --base demo.exe "${audio_args[@]}"
}
echo "--- recording 10 s of 1280x720 at 30 fps"
# The lossless "fast" codec when this build has it, else uncompressed video.
if ! record fast; then
  echo "--- no \"fast\" encoder in this build: recording uncompressed"
  record no_compression
fi

"$bin/kestriumcapture" /shutdown
wait "$server"
trap - EXIT
cleanup

for file in "$demo_dir"/*.avi; do
  echo "--- $file"
  ffprobe -v error -show_entries stream=codec_type,codec_tag_string,width,height,r_frame_rate,nb_frames,sample_rate,channels:format=duration,size \
    -of default=nw=1 "$file"
done
echo "--- the server's log: $demo_dir/Kestrium.txt"
iconv -f UTF-16LE -t UTF-8 "$demo_dir/Kestrium.txt" | sed 's/\r$//; s/^\xEF\xBB\xBF//' | grep -v '^$'
