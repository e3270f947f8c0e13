#!/usr/bin/env bash
# Builds the service and installs it here the way the product's installer does: a staging folder
# holds the program, the driver's INF and the stand-in driver, and "-proxy_task hvs_install" run
# from there copies them under Program Files, installs the driver and the service and starts it,
# under Wine's service control manager in a prefix of its own (build/run/prefix). Then a client
# gets the protocol and service versions back. The service keeps running afterwards;
#   bash scripts/run.sh stop
# stops it and ends the prefix's wineserver.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

export WINEPREFIX="$root/build/run/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export NV_BIN_DIR="$root/build/mingw-x64/bin"
staging="$WINEPREFIX/drive_c/staging"
install_dir="$WINEPREFIX/drive_c/Program Files/Norvale/Halvern Service"
exe='C:\Program Files\Norvale\Halvern Service\NorvaleHalvernService.exe'

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
mkdir -p "$staging"
# The release as its installer ships it: the program with the driver package it installs.
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$NV_BIN_DIR/VQRMonitor.sys" "$NV_BIN_DIR/VQRMonitor.inf" "$staging/"

echo "== C:\staging\NorvaleHalvernService.exe -proxy_task hvs_install"
if say 'C:\staging\NorvaleHalvernService.exe' -proxy_task hvs_install; then echo "exit code: 0"; else
  echo "the install failed; its log:"
  tr -d '\r' <"$staging/hvs_install.log" | tail -n 30
  exit 1
fi
echo "== the product folder"
ls "$install_dir"
echo "== the driver service"
say sc query VQRMonitor | grep -E "SERVICE_NAME|TYPE|STATE" || true
echo "== NorvaleHalvernService -c norvale_halvern_svc (0 = running)"
say "$exe" -c norvale_halvern_svc && echo "exit code: 0"
echo "== a client asks for the protocol and service versions"
say "$NV_BIN_DIR/nv_ipc_client.exe" version
echo "== debug log: $install_dir/nvhalvernservice.debug.log"
tr -d '\r' <"$install_dir/nvhalvernservice.debug.log" | tail -n 8

# ---- The product at work, through halvernctl (the administrator's command line) ----------------
# Runs once the service is up, whatever installed it.
# Each step shows halvernctl's output and, when it is not 0, its exit code; the demo goes on.
ctl() {
  local rc=0
  say "$NV_BIN_DIR/halvernctl.exe" "$@" || rc=$?
  [ "$rc" = 0 ] || echo "(halvernctl exit code $rc)"
  return "$rc"
}
show_protection() {
  local app='C:\DemoApp' app_dir="$WINEPREFIX/drive_c/DemoApp"
  # On Windows the running service writes its own registry records through its service SID, to
  # which its start-up gives its own keys. Wine's tokens carry no service SID, so once the service
  # has started, Administrators (every process here) stand in for it on those keys.
  say "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys >/dev/null || true

  mkdir -p "$app_dir"
  cp "$NV_BIN_DIR/nv_test_service.exe" "$app_dir/demo.exe"
  echo "demo data" >"$app_dir/sample.txt"
  echo "secret" >"$app_dir/secret.txt"
  echo "== halvernctl status"
  ctl status || true
  echo "== halvernctl process protect $app\\demo.exe (the program and its folder)"
  ctl process protect "$app\\demo.exe" || true
  echo "== halvernctl process list"
  ctl process list || true
  echo "== the driver stand-in now holds the rules: driver_ctl state"
  say "$NV_BIN_DIR/driver_ctl.exe" state | jq -c '{features, process_rules, folder_rules, blocking_rules}' || true

  # ---- QUARANTINE AND BLOCKED FILES
  local container="$app\\Quarantine" archive
  echo "== halvernctl quarantine create / add / list / restore $app\\sample.txt"
  if ctl quarantine create "$container"; then
    archive=$(say "$NV_BIN_DIR/halvernctl.exe" --json quarantine add "$container" "$app\\sample.txt" | jq -r '.archives[0].archive // empty') || true
    echo "archive: $archive"
    ctl quarantine list "$container" || true
    [ -n "$archive" ] && ctl quarantine restore "$container" "$archive" && ls "$app_dir" || true
  fi
  echo "== halvernctl block $app\\secret.txt"
  ctl block "$app\\secret.txt" && ctl is-blocked "$app\\secret.txt" || true
  # ---- END QUARANTINE AND BLOCKED FILES
  echo "== driver_ctl state"
  say "$NV_BIN_DIR/driver_ctl.exe" state | jq -c '{features, process_rules, folder_rules, blocking_rules}' || true
}
show_protection
echo
echo "The service keeps running in $WINEPREFIX."
echo "Send it requests with: WINEPREFIX=$WINEPREFIX wine $NV_BIN_DIR/nv_ipc_client.exe send 100000a"
echo "The driver stand-in:   WINEPREFIX=$WINEPREFIX wine $NV_BIN_DIR/driver_ctl.exe state"
echo "Stop it with:          bash scripts/run.sh stop"
