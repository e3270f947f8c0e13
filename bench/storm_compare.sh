#!/usr/bin/env bash
# The same storm (tests/soak/storm.sh, no kills) against two builds in one run, one after the
# other on this machine, and the ratio of their answered requests per second; then the storm's
# ceiling here (bench/storm_ceiling.sh: against a server that answers at once) and the most any
# build could show over BEFORE. Prints "name: value unit" lines.
#
#   bench/storm_compare.sh BEFORE_BUILD_DIR [AFTER_BUILD_DIR [SECONDS [CLIENTS]]]
#       AFTER_BUILD_DIR defaults to build/mingw-x64; 120 s with 50 clients by default
set -uo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
before=${1:?usage: storm_compare.sh BEFORE_BUILD_DIR [AFTER_BUILD_DIR [SECONDS [CLIENTS]]]}
after=${2:-$src/build/mingw-x64}
seconds=${3:-120}
clients=${4:-50}
echo "storm_machine: $(nproc) cores, $(lscpu 2>/dev/null | sed -n 's/^Model name: *//p' | head -n 1), load $(cut -d ' ' -f 1-3 /proc/loadavg)"
rate() {  # BUILD_DIR: the storm's requests per second, or nothing
    WINEPREFIX=$1/wine/prefix bash "$src/tests/soak/storm.sh" "$1" "$seconds" "$clients" 0 1000 2>&1 |
        tr -d '\r' | sed -n 's/^requests_per_second: \([0-9.]*\) requests\/s$/\1/p' | head -n 1
}
b=$(rate "$before")
a=$(rate "$after")
[ -n "$b" ] && [ -n "$a" ] || { echo "storm_compare: no figure (before ${b:-none}, after ${a:-none})" >&2; exit 1; }
echo "storm_requests_per_second_before: $b requests/s"
echo "storm_requests_per_second_after: $a requests/s"
awk -v a="$a" -v b="$b" 'BEGIN { printf "storm_requests_per_second_ratio: %.2f x\n", (b > 0 ? a / b : 0) }'
c=$(bash "$src/bench/storm_ceiling.sh" "$after" "$seconds" "$clients" | sed -n 's/^storm_requests_per_second_ceiling: \([0-9.]*\) .*/\1/p')
[ -n "$c" ] || { echo "storm_compare: no ceiling figure" >&2; exit 1; }
echo "storm_requests_per_second_ceiling: $c requests/s"
awk -v c="$c" -v b="$b" 'BEGIN { printf "storm_ratio_ceiling: %.2f x\n", (b > 0 ? c / b : 0) }'
