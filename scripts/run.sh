#!/usr/bin/env bash
# Builds the service and runs it here, under Wine's service control manager, in a prefix of its
# own (build/run/prefix), then shows a client getting the protocol and service versions back.
# Everything it needs is installed first. The service keeps running afterwards;
#   bash scripts/run.sh stop
# stops it and ends the prefix's wineserver.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

export WINEPREFIX="$root/build/run/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export NV_BIN_DIR="$root/build/mingw-x64/bin"
install_dir="$WINEPREFIX/drive_c/Program Files/Norvale/Halvern"
exe='C:\Program Files\Norvale\Halvern\NorvaleHalvernService.exe'

# Wine output goes through files: its helper processes may hold a pipe open.
say() {
  local out
  out=$(mktemp)
  set +e
  wine "$@" </dev/null >"$out" 2>&1
  local rc=$?
  set -e
  tr -d '\r' <"$out"
  rm -f "$out"
  return $rc
}

if [ "${1:-}" = "stop" ]; then
  if [ -d "$WINEPREFIX" ]; then
    say "$exe" -s stop || true
    bash tests/wine/prefix.sh stop
  fi
  echo "stopped"
  exit 0
fi

bash scripts/setup.sh
cmake --preset mingw-x64 >/dev/null
cmake --build --preset mingw-x64 -j 2

bash tests/wine/prefix.sh create
mkdir -p "$install_dir"
# The executable with the driver package it installs (the stand-in VQRMonitor.sys and .inf).
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$NV_BIN_DIR/VQRMonitor.sys" "$NV_BIN_DIR/VQRMonitor.inf" "$install_dir/"

echo "== NorvaleHalvernService -i instdrv"
say "$exe" -i instdrv
echo "== the driver service"
say sc query VQRMonitor | grep -E "SERVICE_NAME|TYPE|STATE" || true

echo "== NorvaleHalvernService -i install"
say "$exe" -i install
echo "== NorvaleHalvernService -s start"
say "$exe" -s start
echo "== NorvaleHalvernService -c norvale_halvern_svc (0 = running)"
say "$exe" -c norvale_halvern_svc && echo "exit code: 0"
echo "== a client asks for the protocol and service versions"
say "$NV_BIN_DIR/nv_ipc_client.exe" version
echo "== debug log: $install_dir/nvhalvernservice.debug.log"
tr -d '\r' <"$install_dir/nvhalvernservice.debug.log" | tail -n 8
echo
echo "The service keeps running in $WINEPREFIX."
echo "Send it requests with: WINEPREFIX=$WINEPREFIX wine $NV_BIN_DIR/nv_ipc_client.exe send 100000a"
echo "The driver stand-in:   WINEPREFIX=$WINEPREFIX wine $NV_BIN_DIR/driver_ctl.exe state"
echo "Stop it with:          bash scripts/run.sh stop"
