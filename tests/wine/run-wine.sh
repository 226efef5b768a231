#!/usr/bin/env bash
# Runs the tests' Windows programs under Wine, on a private Xvfb display and
# in a Wine prefix of the build folder.
#
#   run-wine.sh start STATE_DIR           start Xvfb, create the prefix
#   run-wine.sh exec STATE_DIR PROGRAM... run a program under Wine
#   run-wine.sh stop STATE_DIR            end the Wine server and Xvfb
set -euo pipefail

action=$1
state=$2
shift 2
mkdir -p "$state"
state=$(cd "$state" && pwd)

export WINEPREFIX=$state/prefix
export WINEDEBUG=-all
# No Mono or Gecko installers: the tests need neither.
export WINEDLLOVERRIDES="mscoree,mshtml="

case $action in
start)
  if [[ -f $state/xvfb.pid ]] && kill -0 "$(cat "$state/xvfb.pid")" 2>/dev/null; then
    kill "$(cat "$state/xvfb.pid")" || true
  fi
  # Xvfb picks a free display and tells us its number.
  exec {fd}>"$state/display"
  Xvfb -displayfd "$fd" -screen 0 1024x768x24 -nolisten tcp > "$state/xvfb.log" 2>&1 &
  echo $! > "$state/xvfb.pid"
  for _ in $(seq 100); do
    [[ -s $state/display ]] && break
    sleep 0.1
  done
  exec {fd}>&-
  if [[ ! -s $state/display ]]; then
    echo "run-wine.sh: Xvfb did not start" >&2
    cat "$state/xvfb.log" >&2
    exit 1
  fi
  export DISPLAY=:$(head -n 1 "$state/display")
  # A new prefix takes about half a minute; one kept from an earlier run is
  # used as it is.
  if [[ ! -f $WINEPREFIX/system.reg ]]; then
    wineboot -u > "$state/wineboot.log" 2>&1 || { cat "$state/wineboot.log" >&2; exit 1; }
    # There is no window manager on the display: Wine draws the frames and
    # captions itself, so that the screenshot shows them.
    wine reg add 'HKCU\Software\Wine\X11 Driver' /v Managed /d N /f >> "$state/wineboot.log" 2>&1
    wineserver -w
  fi
  echo "Wine prefix $WINEPREFIX ready on display $DISPLAY"
  ;;
exec)
  export DISPLAY=:$(head -n 1 "$state/display")
  program=$1
  shift
  args=()
  for a in "$@"; do args+=("$a"); done
  # The last argument is the program's work folder.
  mkdir -p "${args[-1]}"
  status=0
  wine "$program" "${args[@]}" || status=$?
  if [[ -n ${KELVANE_SCREENSHOT:-} && -f ${args[-1]}/dialog.png ]]; then
    cp "${args[-1]}/dialog.png" "$KELVANE_SCREENSHOT"
    echo "Dialog screenshot: $KELVANE_SCREENSHOT"
  fi
  exit $status
  ;;
stop)
  wineserver -k 2>/dev/null || true
  if [[ -f $state/xvfb.pid ]]; then
    kill "$(cat "$state/xvfb.pid")" 2>/dev/null || true
    rm -f "$state/xvfb.pid"
  fi
  ;;
*)
  echo "usage: run-wine.sh start|exec|stop STATE_DIR [PROGRAM ARGS...]" >&2
  exit 2
  ;;
esac
