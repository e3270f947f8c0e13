#!/usr/bin/env bash
# Runs one benchmark in its smoke mode and checks that it measured something: the program exits
# 0 and prints every expected figure as "name: value unit", each value a number above zero, or
# exactly VALUE for a figure given as "name=VALUE". Never a limit on how slow a figure may be.
#
#   bench/smoke.sh 'FIGURES' PROGRAM [ARGS...]
# FIGURES: names separated by spaces, shell braces allowed ('ipc_{empty,4k}_round_trip').
# Prints the benchmark's output, then "smoke: ok (N figures)" or one line "smoke: FAILED: why".
set -uo pipefail
if [ $# -lt 2 ]; then
    echo "usage: smoke.sh 'FIGURES' PROGRAM [ARGS...]" >&2
    exit 2
fi
figures=$1
shift
out=$(mktemp "${TMPDIR:-/tmp}/nv-bench-smoke.XXXXXX")
trap 'rm -f "$out"' EXIT
# Through a file: Wine's helper processes may inherit a pipe and outlive the program.
"$@" </dev/null >"$out" 2>&1
rc=$?
sed -i 's/\r$//' "$out"
cat "$out"

problems=()
[ "$rc" = 0 ] || problems+=("$(basename "$1")${2:+ $(basename -- "$2")} exited with $rc")
eval "wanted=($figures)"
for want in "${wanted[@]}"; do
    name=${want%%=*}
    exact=
    [[ $want == *=* ]] && exact=${want#*=}
    found=0
    while IFS= read -r rest; do
        found=1
        read -r value unit _ <<<"$rest"
        if ! [[ $value =~ ^-?[0-9]+(\.[0-9]+)?([eE][-+]?[0-9]+)?$ && -n ${unit:-} ]]; then
            problems+=("$name is \"$rest\", not a number and a unit")
        elif [ -n "$exact" ]; then
            awk -v v="$value" -v e="$exact" 'BEGIN { exit !(v + 0 == e + 0) }' || problems+=("$name is $value, not $exact")
        else
            awk -v v="$value" 'BEGIN { exit !(v + 0 > 0) }' || problems+=("$name is $value, not above zero")
        fi
    done < <(awk -v n="$name" 'index($0, n ": ") == 1 { print substr($0, length(n) + 3) }' "$out")
    [ "$found" = 1 ] || problems+=("$name missing")
done

if [ ${#problems[@]} -ne 0 ]; then
    line=$(printf '%s; ' "${problems[@]}")
    echo "smoke: FAILED: ${line%; }"
    exit 1
fi
echo "smoke: ok (${#wanted[@]} figures)"
