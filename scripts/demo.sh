#!/usr/bin/env bash
# Installs what is missing, builds, and shows the server at work end to end: it
# starts a capture server, talks to it with the client, shuts it down and shows
# the server's log. (Once the recorder lands, this records a short clip.)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/setup.sh
scripts/build.sh linux >/dev/null
bin="$root/build/bin"

# A namespace and a documents folder of its own: the demo never meets a server
# the user runs, and its log stays in the demo folder.
export KESTRIUM_NAMESPACE="kestrium-demo-$$"
demo_dir="$root/recordings/demo"
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

echo "--- kestrium-client features"
"$bin/kestrium-client" features
echo "--- kestrium-client pause demo on   (no such capture: the server logs why)"
"$bin/kestrium-client" pause demo on
echo "--- kestrium-client send 9          (an unknown command gets a warning)"
"$bin/kestrium-client" send 9
echo "--- kestriumcapture /shutdown"
"$bin/kestriumcapture" /shutdown
wait "$server"
trap - EXIT
cleanup
echo "--- the server's log, $demo_dir/Kestrium.txt"
iconv -f UTF-16LE -t UTF-8 "$demo_dir/Kestrium.txt" | sed 's/\r$//; s/^\xEF\xBB\xBF//'
