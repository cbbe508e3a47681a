#!/usr/bin/env bash
# Installs what is missing, builds, and records a short clip end to end: starts a
# capture server, records 10 s of the client's moving test pattern at 1280x720
# with the best encoder this build has, shuts the server down, and shows the
# files with what ffprobe says of them.
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

"$bin/kestriumcapture" &
server=$!
cleanup() {
  kill "$server" 2>/dev/null || true
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
    --dir "$demo_dir" --base demo.exe
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
  ffprobe -v error -show_entries stream=codec_tag_string,width,height,r_frame_rate,nb_frames:format=duration,size \
    -of default=nw=1 "$file"
done
echo "--- the server's log: $demo_dir/Kestrium.txt"
iconv -f UTF-16LE -t UTF-8 "$demo_dir/Kestrium.txt" | sed 's/\r$//; s/^\xEF\xBB\xBF//' | grep -v '^$'
