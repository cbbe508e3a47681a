#!/usr/bin/env bash
# Makes the seed corpora of the fuzz targets from real recordings: a server of
# build/ records small captures (one with sound from a PulseAudio daemon of its
# own), one of them killed while it writes, and the pieces go to
# tests/fuzz/corpus/TARGET. Run once by hand when the formats change; the
# corpora are kept in the repository.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
bin="$root/build/bin"
corpus="$root/tests/fuzz/corpus"
work=$(mktemp -d /tmp/kestrium-seeds-XXXXXX)
export HOME="$work/home" XDG_DOCUMENTS_DIR="$work/home" XDG_RUNTIME_DIR="$work/home" KESTRIUM_NAMESPACE="seeds-$$"
mkdir -p "$HOME" "$work/rec"
pids=()
finish() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".*
  rm -rf "$work"
}
trap finish EXIT

# A sound server with one playback device, "Game Audio".
echo "load-module module-native-protocol-unix auth-anonymous=1 socket=$work/native" >"$work/default.pa"
echo "load-module module-null-sink sink_name=game rate=48000 channels=2 sink_properties='device.description=\"Game Audio\"'" >>"$work/default.pa"
export PULSE_SERVER="unix:$work/native"
pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=false --disable-shm=true -F "$work/default.pa" \
  --log-target=file:"$work/pa.log" </dev/null >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.05; done
parec --device=game.monitor --format=u8 --channels=1 --rate=8000 >/dev/null 2>&1 &
pids+=($!)

start_server() {
  "$bin/kestriumcapture" >/dev/null 2>&1 &
  server=$!
  pids+=("$server")
  for _ in $(seq 200); do "$bin/kestrium-client" features >/dev/null 2>&1 && return; sleep 0.05; done
  echo "no server" >&2
  exit 1
}
record() { "$bin/kestrium-client" record --dir "$work/rec" "$@" | grep -E '^/' ; }

start_server
mkdir -p "$corpus"/{fuzz_tmb2,fuzz_avi,fuzz_mp4_journal,fuzz_command_block}
# The command blocks as the client wrote them: the server's block keeps the last.
block=/dev/shm/kestrium.$(id -u).$KESTRIUM_NAMESPACE.Kestrium5CaptureServer_Command
# Its file holds a page of our own head before the block's 13144 bytes.
command_seed() { tail -c +4097 "$block" | head -c 13144 >"$corpus/fuzz_command_block/$1"; }
fast=$(record --name fast --encoder fast --size 48x32 --frames 6 --base fast)
command_seed stop
odd=$(record --name odd --encoder fast --size 33x17 --frames 3 --base odd)
mjpeg=$(record --name mj --encoder mjpeg --size 32x16 --frames 4 --audio "Game Audio" --aac 64 --base mjpeg)
h264avi=$(record --name h --encoder h264.x264 --container avi --size 64x36 --frames 8 --base h264)
"$bin/kestrium-client" begin nosuch >/dev/null && command_seed begin
"$bin/kestrium-client" pause nosuch on >/dev/null && command_seed pause
"$bin/kestrium-client" send 9 --name x >/dev/null && command_seed unknown
cp "$fast" "$corpus/fuzz_avi/fast.avi"
cp "$mjpeg" "$corpus/fuzz_avi/mjpeg-aac.avi"
cp "$h264avi" "$corpus/fuzz_avi/h264.avi"

# The TMB2 frames of the "fast" recordings, behind their picture's size.
python3 - "$fast" 48 32 "$odd" 33 17 "$corpus/fuzz_tmb2" <<'PY'
import struct, sys
args = sys.argv[1:]
out = args[-1]
for path, w, h in zip(args[0:-1:3], args[1:-1:3], args[2:-1:3]):
    data = open(path, 'rb').read()
    at, n = 0, 0
    while True:
        at = data.find(b'00dc', at)
        if at < 0 or n == 3: break
        size = struct.unpack_from('<I', data, at + 4)[0]
        if 0 < size < len(data):
            head = struct.pack('<HH', int(w) - 1, int(h) - 1)
            open(f'{out}/{w}x{h}-{n}', 'wb').write(head + data[at + 8:at + 8 + size])
            n += 1
        at += 4
PY

# Killed while writing: an AVI cut off, and an MP4 with its journal.
"$bin/kestrium-client" record --name cut --dir "$work/rec" --encoder mjpeg --size 32x16 --seconds 30 \
  --audio "Game Audio" --aac 64 --base cut >/dev/null 2>&1 &
client=$!
sleep 2.5
kill -9 "$server"
wait "$client" 2>/dev/null || true
cp "$(ls "$work"/rec/cut*.avi)" "$corpus/fuzz_avi/killed-mjpeg-aac.avi"
start_server
"$bin/kestrium-client" record --name mp4 --dir "$work/rec" --encoder h264.x264 --size 64x36 --seconds 30 \
  --audio "Game Audio" --aac 64 --base mp4 >/dev/null 2>&1 &
client=$!
sleep 0.3
command_seed start
sleep 2.7
kill -9 "$server"
wait "$client" 2>/dev/null || true
mp4=$(ls "$work"/rec/mp4*.mp4)
python3 - "$mp4" "$mp4.journal" "$corpus/fuzz_mp4_journal/killed-h264-aac" <<'PY'
import struct, sys
mp4, journal, out = (open(p, 'rb').read() for p in sys.argv[1:3]), None, sys.argv[3]
mp4, journal = (open(p, 'rb').read() for p in sys.argv[1:3])
open(out, 'wb').write(struct.pack('<I', len(journal)) + journal + mp4)
PY
ls -l "$corpus"/*
