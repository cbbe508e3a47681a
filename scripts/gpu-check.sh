#!/usr/bin/env bash
# Checks the hardware H.264 encoders ("h264.nvenc", "h264.quicksync",
# "h264.amdvce") on a machine with such a GPU, where the tests can only use
# their fake drivers: builds, starts a capture server of its own, shows what the
# probes found, records 10 s of 1920x1080 at 30 fps through each encoder found
# and has ffprobe and ffmpeg read every file whole.
#
#   scripts/gpu-check.sh [--keep]
#
# Exit status: 0 every encoder found recorded a good file; 1 something failed;
# 3 this machine has no hardware encoder the server can use (no driver, no GPU,
# or a GPU without an encoder, as compute cards are), which is reported, not
# failed.
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
show_log 'NVENC|CUDA|QuickSync|AMD_VCE'

# Records with one encoder and checks the file: 0 good, 1 failed, 3 the GPU has
# no encoder after all.
check_encoder() {
  local encoder=$1 lines=$2
  echo "--- recording 10 s of 1920x1080 at 30 fps with $encoder"
  local out status
  out=$("$bin/kestrium-client" record --name "gpu-check-${encoder#h264.}" --encoder "$encoder" --container mp4 \
    --size 1920x1080 --fps 30 --seconds 10 --pace realtime --dir "$work/recordings-${encoder#h264.}" \
    --base gpu-check.exe 2>&1)
  status=$?
  echo "$out"
  if ((status != 0)); then
    show_log "$lines"
    # A card without a video encoder refuses the session or offers no H.264.
    if show_log . | grep -qE 'nvEncOpenEncodeSessionEx\(\) returned with error [12]$|offers no H.264 encoder'; then
      echo "gpu-check: the card has no video encoder (a compute card?); nothing to check"
      return 3
    fi
    echo "gpu-check: the recording with $encoder failed (client exit $status)" >&2
    return 1
  fi
  local file
  file=$(echo "$out" | grep -m1 '\.mp4$')
  [[ -n $file && -f $file ]] || { echo "gpu-check: no MP4 file came out of $encoder" >&2; return 1; }

  local probe frames failed=0 errors
  probe=$(ffprobe -v error -select_streams v:0 -count_frames \
    -show_entries stream=codec_name,width,height,nb_read_frames:format=duration -of default=nw=1 "$file")
  echo "--- ffprobe: $file"
  echo "$probe"
  frames=$(sed -n 's/^nb_read_frames=//p' <<<"$probe")
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
  show_log "$lines"
  ((failed)) && return 1
  echo "gpu-check: $encoder recorded $frames frames that ffmpeg decodes whole"
  return 0
}

checked=0
failures=0
for entry in "nvenc:h264.nvenc:NVENC|NV Encoder|CNvEncoder|CUDA|buffers" \
             "quicksync:h264.quicksync:QuickSync|QS " \
             "amdvce:h264.amdvce:AMD_VCE"; do
  IFS=: read -r word encoder lines <<<"$entry"
  [[ $features == *"$word=1"* ]] || continue
  check_encoder "$encoder" "$lines"
  case $? in
    0) checked=$((checked + 1)) ;;
    3) ;;
    *) failures=$((failures + 1)) ;;
  esac
done
if ((failures)); then exit 1; fi
if ((checked == 0)); then
  if show_log 'NVENC|CUDA|QuickSync|AMD_VCE' | grep -q .; then
    echo "gpu-check: no GPU with an encoder the server can use was found (the probes' lines are above); nothing to check"
  else
    echo "gpu-check: no GPU driver was found (libcuda, oneVPL with a VA display, or libva on an AMD GPU); nothing to check"
  fi
  exit 3
fi
echo "gpu-check: $checked encoder(s) recorded good files"
