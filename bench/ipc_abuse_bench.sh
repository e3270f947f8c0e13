#!/usr/bin/env bash
# Runs `ipc_abuse_bench.exe service` against the real service: a prefix of its own under build/,
# the driver simulator, the service installed from C:\nv and started by the service manager.
# Usage: bench/ipc_abuse_bench.sh [BUILD_DIR] [ANNOUNCING] [NEVER_READING]
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build/mingw-x64}" && pwd)
export NV_BIN_DIR=$build/bin WINEPREFIX=$build/bench/abuse-prefix
export WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
bash "$src/tests/wine/prefix.sh" create >/dev/null
trap 'bash "$src/tests/wine/prefix.sh" stop' EXIT
mkdir -p "$WINEPREFIX/drive_c/nv"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$WINEPREFIX/drive_c/nv/"
wine 'C:\nv\NorvaleHalvernService.exe' -i install </dev/null >/dev/null 2>&1
wine 'C:\nv\NorvaleHalvernService.exe' -s start </dev/null >/dev/null 2>&1
for _ in $(seq 1 100); do
    grep -q loadqQuarantineContainers "$WINEPREFIX/drive_c/nv/nvhalvernservice.debug.log" 2>/dev/null && break
    sleep 0.2
done
# Wine has no service SIDs: stand in for the service's own SID on its keys, as the tests do.
wine "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys </dev/null >/dev/null 2>&1 || true
wine "$NV_BIN_DIR/ipc_abuse_bench.exe" service "${2:-200}" "${3:-8}" </dev/null 2>&1 | tr -d '\r'
