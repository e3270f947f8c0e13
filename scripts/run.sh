#!/usr/bin/env bash
# Builds the service and shows it running here, under Wine, in a prefix of its own
# (build/run/prefix). Everything it needs is installed first.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

bash scripts/setup.sh
cmake --preset mingw-x64 >/dev/null
cmake --build --preset mingw-x64 -j 2

export WINEPREFIX="$root/build/run/prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
export NV_BIN_DIR="$root/build/mingw-x64/bin"
bash tests/wine/prefix.sh create

exe="$NV_BIN_DIR/NorvaleHalvernService.exe"
echo "== NorvaleHalvernService -h"
wine "$exe" -h </dev/null >"$root/build/run/out.txt" 2>/dev/null || true
cat "$root/build/run/out.txt"
echo "== NorvaleHalvernService -c norvale_halvern_svc"
set +e
wine "$exe" -c norvale_halvern_svc </dev/null >/dev/null 2>&1
echo "exit code: $? (251 = not installed)"
set -e
echo "== debug log: $NV_BIN_DIR/nvhalvernservice.debug.log"
tail -n 5 "$NV_BIN_DIR/nvhalvernservice.debug.log"
bash tests/wine/prefix.sh stop
