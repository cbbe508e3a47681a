#!/usr/bin/env bash
# Runs ctest for a Windows x86_64 build directory under wine64.
#
#   scripts/wine-ctest.sh BUILD_DIR [ctest args...]
#
# The wine prefix lives in BUILD_DIR/wineprefix; the first run creates it (a few
# seconds), later runs reuse it. One wineserver is kept up for the whole run so
# that the test programs don't each pay for starting wine. It is warmed up by a
# wine process whose standard handles all go to /dev/null: wine's helper
# processes (services, winedevice, ...) start then and inherit nothing of
# ctest's output pipes, which would otherwise keep ctest waiting after the tests
# end. The wineserver is stopped on the way out, whatever happens.
set -euo pipefail

if [[ $# -lt 1 || ! -d $1 ]]; then
  echo "usage: $0 BUILD_DIR [ctest args...]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
shift

wine=/usr/lib/wine/wine64
wineserver=/usr/lib/wine/wineserver
for tool in "$wine" "$wineserver"; do
  if [[ ! -x $tool ]]; then
    echo "$0: $tool not found (install wine64)" >&2
    exit 2
  fi
done

export WINEPREFIX="$build_dir/wineprefix"
export WINEARCH=win64
export WINEDEBUG=-all
# No Mono or Gecko installers: nothing here needs .NET or an HTML engine, and
# their prompts would stall a run without a display.
export WINEDLLOVERRIDES="mscoree,mshtml="
# The documents folder of a program that names none (see configure_prefix).
default_documents="$build_dir/wine-documents"
mkdir -p "$default_documents"
export KESTRIUM_TEST_DOCUMENTS="Z:${default_documents//\//\\}"

stop_wineserver() {
  "$wineserver" -k >/dev/null 2>&1 || true
  # -k only asks; wait until the server and its prefix lock are really gone.
  timeout 30 "$wineserver" -w >/dev/null 2>&1 || true
}

# The sound server of the device tests. wine's audio driver (winepulse) plays
# to and records from the PulseAudio server that PULSE_SERVER named when wine
# started (a Windows program cannot point its children elsewhere): a headless
# daemon of this run, with the devices of tests/audio/wine-sound-devices.pa
# named like real ones; the recording tests add devices of their own to it
# (tests/audio/SoundServer.h). Its folder is short, because a socket's path
# must fit in 108 bytes; the clients' runtime files and cookie stay in it too.
# Without pulseaudio the device tests skip.
sound_dir=""
sound_pid=""
start_sound_server() {
  command -v pulseaudio >/dev/null 2>&1 || return 0
  sound_dir=$(mktemp -d /tmp/kestrium-pa-XXXXXX)
  {
    echo "load-module module-native-protocol-unix auth-anonymous=1 socket=$sound_dir/native"
    cat "$root/tests/audio/wine-sound-devices.pa"
  } >"$sound_dir/default.pa"
  export PULSE_RUNTIME_PATH="$sound_dir/runtime" PULSE_COOKIE="$sound_dir/cookie"
  # No shared memory: the tests must leave /dev/shm as they found it.
  HOME="$sound_dir" XDG_RUNTIME_DIR="$sound_dir" pulseaudio -n --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=false --disable-shm=true -F "$sound_dir/default.pa" --log-target=file:"$sound_dir/log.txt" \
    </dev/null >/dev/null 2>&1 &
  sound_pid=$!
  export PULSE_SERVER="unix:$sound_dir/native"
  local tries
  for ((tries = 0; tries < 200; ++tries)); do
    pactl info >/dev/null 2>&1 && return 0
    kill -0 "$sound_pid" 2>/dev/null || break
    sleep 0.05
  done
  echo "$0: the sound server did not come up; the device tests will skip" >&2
  stop_sound_server
}

# Asked to go by its pid, so that it removes what it made; killed if it won't.
stop_sound_server() {
  if [[ -n $sound_pid ]]; then
    kill "$sound_pid" 2>/dev/null || true
    local tries
    for ((tries = 0; tries < 100; ++tries)); do
      kill -0 "$sound_pid" 2>/dev/null || break
      sleep 0.05
    done
    kill -9 "$sound_pid" 2>/dev/null || true
    wait "$sound_pid" 2>/dev/null || true
    sound_pid=""
  fi
  if [[ -n $sound_dir ]]; then
    rm -rf "$sound_dir"
    sound_dir=""
  fi
  unset PULSE_SERVER
}

stop_all() {
  stop_wineserver
  stop_sound_server
}
trap stop_all EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Starts a persistent wineserver for the prefix and brings up (or first creates)
# the prefix and wine's services, all detached from our standard handles. -p
# keeps the server up between the test programs; a server already running for
# this prefix is reused (the new one then just exits).
start_wine() {
  mkdir -p "$WINEPREFIX"
  "$wineserver" -p </dev/null >/dev/null 2>&1 || true
  timeout 300 "$wine" cmd /c exit </dev/null >/dev/null 2>&1
}

# Before wine, so that its processes find the sound server from the start.
start_sound_server

if ! start_wine; then
  # A prefix left half-made by an interrupted first run does not recover by
  # itself: make it again from nothing, once.
  echo "$0: wine did not start in $WINEPREFIX; creating the prefix again" >&2
  stop_wineserver
  rm -rf "$WINEPREFIX"
  if ! start_wine; then
    echo "$0: wine could not start in $WINEPREFIX" >&2
    exit 1
  fi
fi

# Once per prefix: there is no X server here, and wine's null display driver
# still lets programs make (invisible) windows, as the server does. The
# documents folder, where a server writes its log, is the one the variable
# KESTRIUM_TEST_DOCUMENTS names, so that each test's servers write a log of
# their own, as on Linux, and the tests need not take turns; the prefix's own
# documents folder, a link to $HOME in a new prefix, becomes a folder of the
# prefix, so that nothing of a test lands in $HOME.
marker="$WINEPREFIX/.kestrium-configured-2"
configure_prefix() {
  [[ -f $marker ]] && return 0
  timeout 120 "$wine" reg add 'HKCU\Software\Wine\Drivers' /v Graphics /d null /f \
    </dev/null >/dev/null 2>&1 || return 1
  timeout 120 "$wine" reg add 'HKCU\Software\Microsoft\Windows\CurrentVersion\Explorer\User Shell Folders' \
    /v Personal /t REG_EXPAND_SZ /d '%KESTRIUM_TEST_DOCUMENTS%' /f </dev/null >/dev/null 2>&1 || return 1
  local documents
  for documents in "$WINEPREFIX"/drive_c/users/*/Documents; do
    if [[ -L $documents ]]; then
      rm "$documents" && mkdir -p "$documents"
    fi
  done
  touch "$marker"
}
if [[ ! -f $marker ]]; then
  if ! configure_prefix; then
    echo "$0: could not configure the wine prefix $WINEPREFIX" >&2
    exit 1
  fi
  # The desktop of the running wineserver was made without a display driver:
  # start again, so that the null driver is the one in use.
  stop_wineserver
  start_wine
fi

status=0
ctest --test-dir "$build_dir" "$@" || status=$?
exit "$status"
