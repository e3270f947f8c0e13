#!/usr/bin/env bash
# The storm's ceiling on this machine: the same storm as tests/soak/storm.sh (no kills) against
# nv_service_double, which answers every request at once and does nothing else, in place of the
# service. No build of the service can answer more requests per second here: the rest of the
# machine goes to the storm's own clients, the processes it starts and kills, and the wineserver
# (without the driver simulator's churn that storm.sh adds, so if anything the ceiling is high).
# Prints one "name: value unit" line.
#
#   bench/storm_ceiling.sh [BUILD_DIR [SECONDS [CLIENTS]]]     120 s with 50 clients by default
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
seconds=${2:-120}
clients=${3:-50}
export NV_STORM_GROWTH_LIMIT=1000
. "$src/tests/integration/protection_lib.sh"
. "$src/tests/soak/storm_setup.sh"

storm_setup "$clients"  # the storm's keys, folders and files, as the storm against the service has them
stop_service
cp "$NV_BIN_DIR/nv_service_double.exe" "$nv/"
double 'C:\nv\nv_service_double.exe' "$work/record" 'Global\nv_storm_ceiling_stop'
# The storm's own checks fail against the double (it keeps nothing); only its rate counts.
rate=$(timeout -k 10 $((seconds + 420)) wine "$storm" storm "$seconds" "$clients" </dev/null 2>&1 | tr -d '\r' |
    sed -n 's/^requests_per_second: \([0-9.]*\) requests\/s$/\1/p' | head -n 1)
undouble
[ -n "$rate" ] || { echo "storm_ceiling: no figure" >&2; exit 1; }
echo "storm_requests_per_second_ceiling: $rate requests/s"
