#!/usr/bin/env bash
# Runs irp_bench.exe against the real service in the console (-d), in a copy of the test prefix
# with its own wineserver and driver simulator (bench/bench_setup.sh).
#   bench/irp_bench.sh [BUILD_DIR] [ROUNDS] [BURST]    defaults: build/mingw-x64 1000 10000
#   bench/irp_bench.sh --smoke [BUILD_DIR]             20 rounds and a burst of 200
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
rounds=${2:-1000} burst=${3:-10000}
[ "$smoke" = 0 ] || rounds=20 burst=200
service_prefix
wine 'C:\nv\NorvaleHalvernService.exe' -d </dev/null >/dev/null 2>&1 &
poll 100 0.2 'grep -q loadqQuarantineContainers "$log" 2>/dev/null' || fail "the service did not start"
wine "$NV_BIN_DIR/irp_bench.exe" "$rounds" "$burst" </dev/null 2>&1 | tr -d '\r'
bench=$?
wine "$helper" set-event 'Global\norvale_halvern_svc_NTSVC_STOP_EVENT' </dev/null
wait
[ "$bench" = 0 ] && [ "$failures" = 0 ]
