# Sourced by the peer scripts: the frames both sides are given, and the sums
# their tables are made of.
#
# prepare_frames: with build, size, frames and input set (input empty for the
# game-like pattern of kestrium-bench), checks for kestrium-bench and ffmpeg,
# makes the work folder (removed on exit) and puts the rgb24 frames into
# $work/game.rgb; sets bench, work, frames (those of the input file, when one is
# given) and what (the words for them).
prepare_frames() {
  bench=$build/bin/kestrium-bench
  if [[ ! -x $bench ]]; then
    echo "$0: $bench not found: build first (scripts/build.sh)" >&2
    exit 2
  fi
  command -v ffmpeg >/dev/null || { echo "$0: ffmpeg not found (scripts/setup.sh)" >&2; exit 2; }
  work=$(mktemp -d "${TMPDIR:-/tmp}/kestrium-peers.XXXXXX")
  trap 'rm -rf "$work"' EXIT
  if [[ -n $input ]]; then
    local w=${size%x*} h=${size#*x}
    frames=$(($(stat -c %s "$input") / (w * h * 3)))
    ((frames > 0)) || { echo "$0: $input holds no whole frame of $size" >&2; exit 2; }
    ln -s "$(realpath "$input")" "$work/game.rgb"
    what="frames of $input"
  else
    "$bench" pattern --out "$work/game.rgb" --size "$size" --frames "$frames"
    what="game-like frames"
  fi
}

# fps SECONDS: frames per second of a run of $total frames.
fps() { awk -v n="$total" -v s="$1" 'BEGIN { printf "%.1f", n / s }'; }
# net SECONDS BASELINE: frames per second once ffmpeg's own pipeline is taken off.
net() { awk -v n="$total" -v s="$1" -v b="$2" 'BEGIN { printf "%.1f", (s > b) ? n / (s - b) : 0 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0) ? a / b : 0 }'; }
# the larger and the smaller of two figures; an empty one counts for nothing
larger() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b > a) ? b : a }'; }
smaller() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b < a) ? b : a }'; }
