#!/usr/bin/env bash
# Prepares or ends the Wine prefix of a test run.
#   prefix.sh create   fresh prefix at $WINEPREFIX, persistent wineserver
#   prefix.sh stop     ends the wineserver (and with it every process of the prefix)
#   prefix.sh sim      starts the driver simulator in $WINEPREFIX (create does this; a copy
#                      runs under its own wineserver and needs its own)
set -euo pipefail
: "${WINEPREFIX:?WINEPREFIX must be set}"
export WINEDEBUG=${WINEDEBUG:--all} WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}

# The driver stand-in serves the Filter Manager ports in the background and ends with the
# wineserver. Wine loads the fltlib.dll in system32 without a DLL override.
start_simulator() {
  [ -f "${NV_BIN_DIR:-}/driver_sim.exe" ] || return 0
  local sim_log
  sim_log="$(dirname "$WINEPREFIX")/driver_sim-$(basename "$WINEPREFIX").log"
  setsid -f wine "$NV_BIN_DIR/driver_sim.exe" </dev/null >"$sim_log" 2>&1
  wine "$NV_BIN_DIR/driver_ctl.exe" wait-ready 60000 </dev/null >/dev/null 2>&1 ||
    { echo "driver simulator did not come up; see $sim_log" >&2; exit 1; }
}

case "${1:-}" in
  create)
    wineserver -k 2>/dev/null || true
    rm -rf "$WINEPREFIX"
    mkdir -p "$(dirname "$WINEPREFIX")"
    wineboot -i </dev/null >/dev/null 2>&1
    wineserver -w
    # Products of this build that the prefix must carry (the Filter Manager stand-in, when built).
    [ ! -f "${NV_BIN_DIR:-}/fltlib.dll" ] || cp "$NV_BIN_DIR/fltlib.dll" "$WINEPREFIX/drive_c/windows/system32/fltlib.dll"
    wineserver -p </dev/null >/dev/null 2>&1
    # Start Wine's own services now, detached from any test's output.
    wine cmd /c exit </dev/null >/dev/null 2>&1
    start_simulator
    echo "wine prefix ready: $WINEPREFIX"
    ;;
  stop) wineserver -k 2>/dev/null || true ;;
  sim) start_simulator ;;
  *) echo "usage: prefix.sh create|stop|sim" >&2; exit 2 ;;
esac
