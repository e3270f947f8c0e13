#!/usr/bin/env bash
# Runs irp_bench.exe against the real service: a prefix of its own under build/, the driver
# simulator, the service in the console (-d). Usage: bench/irp_bench.sh [BUILD_DIR] [ROUNDS] [BURST]
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$src/build/mingw-x64}" && pwd)
export NV_BIN_DIR=$build/bin WINEPREFIX=$build/bench/prefix
export WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
bash "$src/tests/wine/prefix.sh" create >/dev/null
trap 'bash "$src/tests/wine/prefix.sh" stop' EXIT
mkdir -p "$WINEPREFIX/drive_c/nv"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$WINEPREFIX/drive_c/nv/"
wine 'C:\nv\NorvaleHalvernService.exe' -d </dev/null >/dev/null 2>&1 &
for _ in $(seq 1 100); do
    grep -q loadqQuarantineContainers "$WINEPREFIX/drive_c/nv/nvhalvernservice.debug.log" 2>/dev/null && break
    sleep 0.2
done
wine "$NV_BIN_DIR/irp_bench.exe" "${2:-1000}" "${3:-10000}" </dev/null 2>&1 | tr -d '\r'
wine "$NV_BIN_DIR/nv_test_helper.exe" set-event 'Global\norvale_halvern_svc_NTSVC_STOP_EVENT' </dev/null
wait
