#!/usr/bin/env bash
# What a broadcast costs. Starts its own nginx with the RTMP module on loopback
# (stopped by its pid) and measures:
#  1. connect to first packet, with Nagle's algorithm on (as the publisher runs)
#     and with TCP_NODELAY (bench_rtmp_connect);
#  2. the server's CPU time per second of a 1280x720, 30 fps, 6 Mbit/s h264.x264
#     capture with and without the broadcast, the difference being what the
#     publishing costs, against the peer nginx's own CPU time for taking the
#     same stream in and recording it.
#
#   bench/broadcast_peers.sh [SECONDS]      (default 20; build/bin must be built)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin="$root/build/bin"
seconds=${1:-20}
work=$(mktemp -d /tmp/kestrium-broadcast-bench.XXXXXX)
nginx=""
server=""
cleanup() {
  if [[ -n $server ]]; then kill "$server" 2>/dev/null || true; fi
  if [[ -n $nginx ]]; then kill "$nginx" 2>/dev/null || true; fi
  wait 2>/dev/null || true
  rm -f /dev/shm/kestrium."$(id -u)"."$KESTRIUM_NAMESPACE".* 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
export KESTRIUM_NAMESPACE="kestrium-bench-$$"
export XDG_DOCUMENTS_DIR="$work"

port=$((20000 + RANDOM % 20000))
mkdir -p "$work/rec" "$work/logs"
cat >"$work/nginx.conf" <<CONF
load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;
daemon off;
master_process off;
pid $work/nginx.pid;
error_log $work/logs/error.log error;
events { worker_connections 64; }
rtmp {
  server {
    listen 127.0.0.1:$port;
    application live { live on; record all; record_path $work/rec; meta copy; }
  }
}
CONF
/usr/sbin/nginx -p "$work" -c "$work/nginx.conf" -e "$work/logs/error.log" &
nginx=$!
for _ in $(seq 100); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.05; done
url="rtmp://127.0.0.1:$port/live"

echo "connect to first packet, loopback:"
KESTRIUM_RTMP_URL="$url" "$bin/bench_rtmp_connect" 2>/dev/null | grep BM_

ticks=$(getconf CLK_TCK)
# User and system time of a process, all its threads, in milliseconds.
cpu_ms() { awk -v t="$ticks" '{ print int(($14 + $15) * 1000 / t) }' "/proc/$1/stat"; }

"$bin/kestriumcapture" &
server=$!
for _ in $(seq 100); do "$bin/kestrium-client" stop probe 2>/dev/null && break; sleep 0.1; done

record() {
  local before after
  before=$(cpu_ms "$server")
  "$bin/kestrium-client" record --name bench --encoder h264.x264 --container mp4 --size 1280x720 --fps 30 \
    --bitrate 6000 --seconds "$seconds" --dir "$work/out" "$@" >"$work/client.txt"
  after=$(cpu_ms "$server")
  echo $((after - before))
}
# The publisher's own threads (connection, send, socket), sampled while they run:
# the most each one had used, summed. (The recorder's thread also wraps each
# frame for them; that part is in the difference of the totals.)
sample_threads() {
  while kill -0 "$server" 2>/dev/null; do
    for stat in /proc/"$server"/task/*/stat; do
      awk -v t="$ticks" '$2 ~ /kestrium-rtmp/ { print $1, int(($14 + $15) * 1000 / t) }' "$stat" 2>/dev/null || true
    done
    sleep 0.2
  done
}
plain=$(record)
nginx_before=$(cpu_ms "$nginx")
sample_threads >"$work/threads.txt" &
sampler=$!
broadcast=$(record --broadcast "$url" --stream cpu)
kill "$sampler" 2>/dev/null || true
wait "$sampler" 2>/dev/null || true
nginx_cpu=$(($(cpu_ms "$nginx") - nginx_before))
threads=$(awk '{ if ($2 > most[$1]) most[$1] = $2 } END { s = 0; for (t in most) s += most[t]; print s }' "$work/threads.txt")
sent=$(sed -n 's/.*bytes_sent=\([0-9]*\).*/\1/p' "$work/client.txt" | tail -1)

echo "capture of $seconds s, 1280x720 at 30 fps, h264.x264 at 6000 kbps:"
echo "  server CPU without broadcast:   $plain ms"
echo "  server CPU with broadcast:      $broadcast ms   (bytes sent: $sent)"
awk -v a="$((broadcast - plain))" -v t="$threads" -v p="$nginx_cpu" -v s="$seconds" -v b="$sent" 'BEGIN {
  printf "  difference of the totals:      %.1f ms of CPU per second of stream (%.2f Mbit/s sent; x264 varies more)\n", a / s, b * 8 / s / 1e6
  printf "  the publisher'"'"'s threads:        %.1f ms of CPU per second of stream\n", t / s
  printf "  nginx taking it in:            %.1f ms of CPU per second\n", p / s
  if (p > 0) printf "  ratio, publisher threads / nginx: %.2f\n", t / p
}'
