#!/usr/bin/env bash
# ctest's runner for a shell test: bash SCRIPT ARGS..., and when it still runs after
# NV_SCRIPT_SECONDS, the commands it waits in (its process tree, with how long each has run)
# and exit code 124, while ctest still takes the output: a killed test would name nothing.
limit=${NV_SCRIPT_SECONDS:-0}
[ "$limit" -gt 0 ] 2>/dev/null || exec bash "$@"
setsid bash "$@" &
script=$!
(
    sleep "$limit" >/dev/null 2>&1
    trap '' TERM  # from here on the watchdog finishes whatever happens to the script
    echo "---- still running after $limit s; the test's processes (seconds running, command):"
    ps -e -o pid=,ppid=,etimes=,args= | awk -v root="$script" '
        { parent[$1] = $2; line[$1] = $0; order[NR] = $1 }
        END {
            for (i = 1; i <= NR; i++) {
                p = order[i]; depth = 0
                for (q = p; q != "" && q != root && depth < 64; q = parent[q]) depth++
                if (q == root) printf "%*s%s\n", 2 * depth, "", line[p]
            }
        }'
    kill -TERM -- -"$script" 2>/dev/null
    exit 0
) &
watchdog=$!
wait "$script"
rc=$?
kill "$watchdog" 2>/dev/null
if wait "$watchdog"; then
    # The watchdog ended the script: its signal, not the script, chose the exit code.
    kill -KILL -- -"$script" 2>/dev/null
    rc=124
fi
exit "$rc"
