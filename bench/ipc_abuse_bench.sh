#!/usr/bin/env bash
# Runs `ipc_abuse_bench.exe service` against the real service, installed from C:\nv and started
# by the service manager, in a copy of the test prefix with its own wineserver and driver
# simulator (bench/bench_setup.sh).
#   bench/ipc_abuse_bench.sh [BUILD_DIR] [ANNOUNCING] [NEVER_READING]   defaults: build/mingw-x64 200 8
#   bench/ipc_abuse_bench.sh --smoke [BUILD_DIR]                         20 announcing, 4 never reading
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
announcing=${2:-200} never_reading=${3:-8}
[ "$smoke" = 0 ] || announcing=20 never_reading=4
service_prefix
run "$exe" -i install
run "$exe" -s start
poll 100 0.2 'grep -q loadqQuarantineContainers "$log" 2>/dev/null' || fail "the service did not start"
# Wine has no service SIDs: stand in for the service's own SID on its keys, as the tests do.
run "$NV_BIN_DIR/nv_regkey_probe.exe" grant-own-keys
[ "$rc" = 0 ] || fail "nv_regkey_probe grant-own-keys exited with $rc"
wine "$NV_BIN_DIR/ipc_abuse_bench.exe" service "$announcing" "$never_reading" </dev/null 2>&1 | tr -d '\r'
bench=$?
[ "$bench" = 0 ] && [ "$failures" = 0 ]
