#!/usr/bin/env bash
# The one-shot options as a user sees them: output bytes and process exit codes.
# (A Windows exit code of -2 reaches the Linux shell as 254, -3 as 253 and so on.)
source "$(dirname "$0")/lib.sh"

# A private copy of the program, so its debug log is this test's own.
dir="$work/app"
mkdir -p "$dir"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$dir/"
exe="$dir/NorvaleHalvernService.exe"
usage="$NV_SOURCE_DIR/tests/data/usage.txt"

# Options that print the usage text.
while read -r expected args; do
  run_exe "$exe" $args
  expect_eq "exit code of [$args]" "$expected" "$rc"
  expect_file_eq "usage text of [$args]" "$usage" "$out"
done <<'CASES'
0   -h
0   -H
254 -x
254 -i
254 -I nonsense
254 -s
254 -S restart
254 --help
CASES

# Options that print nothing.
while read -r expected args; do
  run_exe "$exe" $args
  expect_eq "exit code of [$args]" "$expected" "$rc"
  expect_empty "output of [$args]" "$out"
done <<'CASES'
0   -e
0   -E
254 -c
251 -c no_such_service_here
0   -c RpcSs
0   -C rpcss
254 -proxy_task
254 -proxy_task no_such_task
254 -proxy_task hvs_folder_repair
254 -PROXY_TASK HVS_FOLDER_REPAIR
0   -proxy_task hvs_unchange
CASES

# A stopped and a disabled service.
svc_stopped=nvcli_stopped_$$
svc_disabled=nvcli_disabled_$$
# sc may fail on a loaded machine: try again until the service manager knows the name.
create_service() {  # NAME [sc options]
    local name=$1
    shift
    for _ in 1 2 3; do
        wine sc create "$name" binPath= 'C:\windows\system32\notepad.exe' "$@" >/dev/null 2>&1 </dev/null
        wine sc query "$name" >/dev/null 2>&1 </dev/null && return 0
        sleep 1
    done
    echo "FAIL: sc create $name"
}
create_service "$svc_stopped"
create_service "$svc_disabled" start= disabled
run_exe "$exe" -c "$svc_stopped"
expect_eq "-c of a stopped service" 252 "$rc"
run_exe "$exe" -c "$svc_disabled"
expect_eq "-c of a disabled service" 253 "$rc"
wine sc delete "$svc_stopped" >/dev/null 2>&1 </dev/null
wine sc delete "$svc_disabled" >/dev/null 2>&1 </dev/null

# Folder repair never leaves a task log; the other tasks copy the debug log whatever their result.
[ ! -e "$dir/hvs_folder_repair.log" ] && [ ! -e "$dir/hvs_install.log" ] && pass || fail "unexpected task log"
for task in hvs_install hvs_fresh hvs_upgrade hvs_uninstall hvs_remove; do
  rm -f "$dir"/hvs_*.log
  run_exe "$exe" -proxy_task "$task"
  case $task in
    hvs_install | hvs_fresh) copy=hvs_install.log ;;
    hvs_upgrade) copy=hvs_upgrade.log ;;
    *) copy=hvs_uninstall.log ;;
  esac
  if cmp -s "$dir/nvhalvernservice.debug.log" "$dir/$copy"; then pass; else fail "$task: $copy is not a copy of the debug log"; fi
done

# A log path over 260 characters: no log, but the program works.
deep="$work/$(printf 'd%.0s' {1..120})/$(printf 'e%.0s' {1..120})"
mkdir -p "$deep"
cp "$exe" "$deep/"
run_exe "$deep/NorvaleHalvernService.exe" -h
expect_eq "exit code with a long path" 0 "$rc"
expect_file_eq "usage with a long path" "$usage" "$out"
[ ! -e "$deep/nvhalvernservice.debug.log" ] && pass || fail "a log was written despite the long path"

finish
