#!/usr/bin/env bash
# Runs one Windows test program under wine64, for ctest and test discovery.
#
# Now and then (about one start in a thousand or more, with the machine busy)
# wine ends a program before it has run a line of it: a non-zero status and no
# output at all. A test program always prints something, so a start like that
# is made again, at most twice, and said on stderr; a failing test prints its
# failure and is never run twice.
wine=/usr/lib/wine/wine64
out=$(mktemp "${TMPDIR:-/tmp}/kestrium-wine-run.XXXXXX") || exec "$wine" "$@"
trap 'rm -f "$out"' EXIT
for attempt in 1 2 3; do
  "$wine" "$@" >"$out" 2>&1
  status=$?
  if [[ $status -eq 0 || -s $out || $attempt -eq 3 ]]; then break; fi
  echo "wine-run: wine ended $1 with status $status before it printed anything; starting it again" >&2
done
cat "$out"
exit "$status"
