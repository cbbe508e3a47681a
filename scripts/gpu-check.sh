#!/usr/bin/env bash
# Checks "h264.nvenc" on a machine with an NVIDIA card, where the tests can only
# use their fake driver: builds, starts a capture server of its own, shows what
# the probe found, records 10 s of 1920x1080 at 30 fps through the card and has
# ffprobe and ffmpeg read the file whole.
#
#   scripts/gpu-check.sh [--keep]
#
# Exit status: 0 the card recorded a good file; 1 something failed; 3 this
# machine has no NVIDIA encoder the server can use (no driver, no card, or a
# card without an encoder, as compute cards are), which is reported, not failed.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
keep=0
[[ ${1:-} == --keep ]] && keep=1

scripts/setup.sh >/dev/null || exit 1
scripts/build.sh linux >/dev/null || { echo "gpu-check: the build failed" >&2; exit 1; }
bin="$root/build/bin"

export KESTRIUM_NAMESPACE="kestrium-gpu-check-$$"
work=$(mktemp -d /tmp/kestrium-gpu-check.XXXXXX)
export XDG_DOCUMENTS_DIR="$work"
log="$work/Kestrium.txt"
show_log() {
  [[ -f $log ]] || return 0
  iconv -f UTF-16LE -t UTF-8 "$log" | sed 's/\r$//; s/^\xEF\xBB\xBF//' | grep -v '^$' | grep -E "${1:-.}" || true
}

"$bin/kestriumcapture" &
server=$!
cleanup() {
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true
  if ((keep)); then echo "--- kept: $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
for _ in $(seq 100); do
  "$bin/kestrium-client" stop gpu-check-probe >/dev/null 2>&1 && break
  sleep 0.1
done

features=$("$bin/kestrium-client" features) || { echo "gpu-check: the server does not answer" >&2; exit 1; }
echo "--- features: $features"
show_log 'NVENC|CUDA'
if [[ $features != *"nvenc=1"* ]]; then
  if show_log 'NVENC|CUDA' | grep -q NVENC; then
    echo "gpu-check: no NVIDIA card with an encoder was found (the probe's lines are above); nothing to check"
  else
    echo "gpu-check: no CUDA driver was found (the NVIDIA driver's libcuda); nothing to check"
  fi
  exit 3
fi

echo "--- recording 10 s of 1920x1080 at 30 fps with h264.nvenc"
out=$("$bin/kestrium-client" record --name gpu-check --encoder h264.nvenc --container mp4 --size 1920x1080 --fps 30 \
  --seconds 10 --pace realtime --dir "$work/recordings" --base gpu-check.exe 2>&1)
status=$?
echo "$out"
if ((status != 0)); then
  show_log 'NVENC|nvEnc|NV Encoder|CNvEncoder|CUDA|cuda'
  # A card without a video encoder refuses the session or offers no H.264.
  if show_log . | grep -qE 'nvEncOpenEncodeSessionEx\(\) returned with error [12]$|offers no H.264 encoder'; then
    echo "gpu-check: the card has no video encoder (a compute card?); nothing to check"
    exit 3
  fi
  echo "gpu-check: the recording failed (client exit $status)" >&2
  exit 1
fi
file=$(echo "$out" | grep -m1 '\.mp4$')
[[ -n $file && -f $file ]] || { echo "gpu-check: no MP4 file came out" >&2; exit 1; }

probe=$(ffprobe -v error -select_streams v:0 -count_frames \
  -show_entries stream=codec_name,width,height,nb_read_frames:format=duration -of default=nw=1 "$file")
echo "--- ffprobe: $file"
echo "$probe"
frames=$(sed -n 's/^nb_read_frames=//p' <<<"$probe")
failed=0
grep -q '^codec_name=h264$' <<<"$probe" || { echo "gpu-check: the video is not H.264" >&2; failed=1; }
grep -q '^width=1920$' <<<"$probe" && grep -q '^height=1080$' <<<"$probe" ||
  { echo "gpu-check: the picture is not 1920x1080" >&2; failed=1; }
if [[ -z $frames ]] || ((frames < 240)); then
  echo "gpu-check: ${frames:-no} frames for 10 s at 30 fps" >&2
  failed=1
fi
errors=$(ffmpeg -v error -i "$file" -f null - 2>&1)
if [[ -n $errors ]]; then
  echo "gpu-check: ffmpeg reports errors while decoding:" >&2
  echo "$errors" >&2
  failed=1
fi
show_log 'NVENC|NV Encoder|buffers'
if ((failed)); then exit 1; fi
echo "gpu-check: the card recorded $frames frames that ffmpeg decodes whole"
