#!/usr/bin/env bash
# Quarantines 64 MiB and 1 GiB files, random and text-like, through the running service
# (request 0x10000ca: archive, flush, read back and check, rename, delete the source) and with
# `quarantine_tool create` followed by `quarantine_tool verify` on the same file, both under
# Wine and both timed with their process start. Prints "name: value unit" lines.
#
#   bench/quarantine_service_bench.sh [BUILD_DIR]           BUILD_DIR defaults to build/mingw-x64
#   bench/quarantine_service_bench.sh --smoke [BUILD_DIR]   1 MiB files only
# It works in a copy of the test prefix (bench/bench_setup.sh).
set -uo pipefail
. "$(dirname "$0")/bench_setup.sh"
. "$src/tests/integration/protection_lib.sh"
sizes="64M:67108864 1G:1073741824"
[ "$smoke" = 0 ] || sizes=1M:1048576

tool=$NV_BIN_DIR/quarantine_tool.exe
now() { date +%s.%N; }
rate() { awk -v b="$1" -v a="$2" -v z="$3" 'BEGIN { printf "%.1f", b / 1e6 / (z - a) }'; }

printf '' >"$journal"
install_with_recorder
start_service
call create-quarantine-container path='C:\Q'
mkdir -p "$drive_c/data"
for size in $sizes; do
    for kind in random text; do
        label=${kind}_${size%%:*}
        bytes=${size#*:}
        file=$drive_c/data/$label.bin
        case $kind in
        random) head -c "$bytes" /dev/urandom >"$file" ;;
        text) seq 1 1000000000 | head -c "$bytes" >"$file" ;;
        esac
        cat "$file" >/dev/null
        t0=$(now)
        wine "$tool" create "C:\\data\\$label.bin" "C:\\data\\$label.QUA" </dev/null >/dev/null 2>&1 ||
            fail "quarantine_tool create of $label exited with $?"
        wine "$tool" verify "C:\\data\\$label.QUA" </dev/null >/dev/null 2>&1 ||
            fail "quarantine_tool verify of $label exited with $?"
        t1=$(now)
        rm -f "$drive_c/data/$label.QUA"
        tool_rate=$(rate "$bytes" "$t0" "$t1")
        echo "tool_create_verify_$label: $tool_rate MB/s"
        cat "$file" >/dev/null
        t0=$(now)
        call quarantine-files action=0 container='c:\q' path="C:\\data\\$label.bin"
        t1=$(now)
        [ "${reply:0:9}" = 'result=1 ' ] && [ ! -e "$file" ] || fail "quarantine of $label failed: $reply"
        service_rate=$(rate "$bytes" "$t0" "$t1")
        echo "service_quarantine_$label: $service_rate MB/s"
        awk -v s="$service_rate" -v t="$tool_rate" -v l="$label" 'BEGIN { printf "service_vs_tool_%s: %.2f ratio\n", l, s / t }'
        awk -v s="$service_rate" -v l="$label" 'BEGIN { printf "fits_180s_%s: %.0f MiB\n", l, s * 1e6 * 180 / 1048576 }'
        rm -f "$drive_c"/q/*.QUA "$file"
    done
done
stop_service
[ "$failures" = 0 ]
