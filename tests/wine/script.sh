#!/usr/bin/env bash
# ctest's runner for a shell test: bash SCRIPT ARGS..., and when it still runs after
# NV_SCRIPT_SECONDS, the commands it waits in (the process tree of the session it runs in, with how
# long each has run) and exit code 124, while ctest still takes the output: a killed test would
# name nothing.
limit=${NV_SCRIPT_SECONDS:-0}
[ "$limit" -gt 0 ] 2>/dev/null || exec bash "$@"
setsid bash "$@" & script=$!
(
    sleep "$limit" >/dev/null 2>&1
    trap '' TERM  # from here on the watchdog finishes whatever happens to the script
    echo "---- still running after $limit s; the test's processes (seconds running, command):"
    ps -s "$script" --forest -o pid=,ppid=,etimes=,args=  # the session setsid made for the script
    kill -TERM -- -"$script" 2>/dev/null
    exit 0
) & watchdog=$!
wait "$script"; rc=$?
kill "$watchdog" 2>/dev/null
if wait "$watchdog"; then
    # The watchdog ended the script: its signal, not the script, chose the exit code.
    kill -KILL -- -"$script" 2>/dev/null
    rc=124
fi
exit "$rc"
