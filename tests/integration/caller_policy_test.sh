#!/usr/bin/env bash
# Who may change state: a client started as an ordinary user (this token restricted, Administrators
# deny-only, no privileges) is served every request that only reads and refused every one that
# changes state, with nothing changed in the registry, the driver stand-in or on disk; the same
# request from an administrator is served. An ordinary user cannot stop the service, and the
# service signals only events that the subscribing client may set itself.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"

denied=00$(printf 'Access denied.' | xxd -p -u | tr -d '\n')00
user_image=$(win "$client")
as_user=("$helper" as-user "$user_image" -t 60000)  # "${as_user[@]}" ARGS: nv_ipc_client ARGS as an ordinary user
# Everything a request could change: the product's registry, the driver's record, DACLs written,
# the test service's state and the files of the folders the requests name.
snapshot() {
    wine reg query 'HKLM\Software\Norvale' /s </dev/null 2>/dev/null | tr -d '\r'
    wine reg query 'HKLM\System\CurrentControlSet\Services\VQRMonitor' /s </dev/null 2>/dev/null | tr -d '\r'
    driver_count
    wc -l <"$journal"
    svc_state nv_test_svc
    find "$drive_c/data" "$drive_c/prot" "$drive_c/Q" 2>/dev/null | sort
}
# settled: the snapshot once two in a row agree (what the last request started has finished).
settled() {
    local a b=$(snapshot)
    poll 10 0 'a=$b; b=$(snapshot); [ "$a" = "$b" ]'
    printf '%s' "$b"
}

mkdir -p "$drive_c/data" "$drive_c/prot/app"
printf 'x' >"$drive_c/data/f.txt"
: >"$journal"
install_with_recorder
install_test_service nv_test_svc svc demand
start_service

echo "== an ordinary user cannot stop the service (sent or posted)"
runs "stop sent" 0 "$denied" "${as_user[@]}" send 1000001
runs "stop posted" 0 '*' "${as_user[@]}" post 1000001

echo "== every request: the restricted client, then an administrator"
# The restricted client's own event, for its subscription: made by an ordinary user, for everyone
# (with the default DACL, only administrators and the system could set it).
waiter own "$work/own.txt" as-user "$(win "$helper")" wait-event 'Global\nv_caller_own' 600000 'D:(A;;GA;;;WD)'
refusals=0
# ID|ROUTE (- for a request that only reads)|PAYLOAD|RESTRICTED REPLY (for reads; default: the
# administrator's)|WAIT (after the administrator's request, until what it started has settled)
while IFS='|' read -r id route payload want settle; do
    idu=$(printf '%X' $((0x$id)))
    if [ "$route" = - ]; then
        [ "$id" = 1000000 ] && verb=post || verb=send  # the disconnect is posted, as the client library does
        runs "$id read by the restricted client" 0 '*' "${as_user[@]}" $verb "$id" ${payload:+"$payload"}
        mine=$(cat "$out")
        runs "$id read by an administrator" 0 '*' "$client" $verb "$id" ${payload:+"$payload"}
        expect_eq "$id: the restricted client is served" "${want:-$(cat "$out")}" "$mine"
        continue
    fi
    line="Access denied: request \"$route\" (IPC message $idu) from process "
    audit="Audit: request \"$route\" (IPC message $idu) from process "
    before=$(settled)
    logs "$id refused" "$line" runs "$id refused" 0 "$denied" "${as_user[@]}" send "$id" ${payload:+"$payload"}
    refusals=$((refusals + 1))
    # Settled too: one Wine tool run that prints nothing under load is not a change.
    after=$(settled)
    [ "$before" = "$after" ] || fail "$id from the restricted client changed: $(diff <(echo "$before") <(echo "$after"))"
    logs "$id audited" "$audit" run "$client" send "$id" ${payload:+"$payload"}
    [ "$rc" = 0 ] && [ "$(cat "$out")" != "$denied" ] || fail "$id from an administrator: exit $rc, reply [$(cat "$out")]"
    [ -z "$settle" ] || eval "$settle"
done <<ROWS
1000000|-||
1000009|-|05000000|
100000a|-||
1000004|-||
1000005|-||
100000c|-||
10000cc|-|$(encode get-quarantined-files name='C:\Q')|
10000cd|-||
10000ce|-|$(encode is-file-quarantined name='C:\data\f.txt')|
10000d2|-|$(encode is-file-access-blocked name='C:\data\f.txt')|
10000fa|-|$(encode subscribe-irp-notification unsubscribe=0 subscriber=mine event='Global\nv_caller_own' file= major=0xFF minor=0xFF type=0)|0100
10000fb|-|$(encode query-irp-notification-data subscriber=mine)|
1000002|protect services|$(encode protect-services svc=1 proc=1 name=nv_test_svc)|
1000003|protect processes|$(encode protect-processes protect=1 image='C:\prot\app\a.exe')|
100000b|protect reg keys|$(encode protect-reg-keys protect=1 root=0xFFFFFFFF80000002 path='Software\NvCaller' owner= level=2)|
1000065|start service|$(encode start-service name=nv_test_svc)||wait_svc_state nv_test_svc 0 && sleep 1
1000066|stop service by name|$(encode stop-service-by-name name=nv_test_svc)||wait_svc_state nv_test_svc 252
1000067|recover service DACL|$(encode recover-service-dacl name=nv_test_svc)|
1000069|recover folder DACL|$(encode recover-folder-dacl name='C:\prot\app')|
1000006|driver protection off||
1000007|driver protection on||
1000068|restore driver protection|$(encode restore-driver-protection flag=0)|
10000c9|create quarantine container|$(encode create-quarantine-container path='C:\Q')|
10000ca|quarantine files|$(encode quarantine-files action=0 container='C:\Q' path='C:\data\f.txt')|
10000cf|block file access|$(encode block-file-access name='C:\data\b.txt')|
10000d0|unblock file access|$(encode unblock-file-access name='C:\data\b.txt')|
10000d1|block files access|$(encode block-files-access action=0 path='C:\data\c.txt')|
10000cb|remove quarantine container|$(encode remove-quarantine-container action=1 path='C:\Q')|
1000008|protection master switch|$(encode set-protection-enabled on=0)|
ROWS
refused_lines() { tr -d '\r' <"$log" | grep -F 'Access denied: request "' | grep -c -F "$1"; }
expect_eq "every refusal logged once, naming the restricted client's image" "$((refusals + 2)) $((refusals + 2))" \
    "$(refused_lines ' from process ') $(refused_lines " ($user_image)")"

echo "== IRP subscriptions: only events the subscriber may set"
waiter admins "$work/admins.txt" wait-event 'Global\nv_caller_admins' 600000 'O:BAG:BAD:(A;;GA;;;SY)(A;;GA;;;BA)'
theirs=$(encode subscribe-irp-notification unsubscribe=0 subscriber=theirs event='Global\nv_caller_admins' file= major=0xFF minor=0xFF type=0)
runs "an event the restricted client may not set" 0 "0000" "${as_user[@]}" send 10000fa "$theirs"
expect_eq "refusal logged" 1 "$(log_count 'Subscription for <theirs> refused: process ')"
run "${as_user[@]}" send 10000fa "$(encode subscribe-irp-notification unsubscribe=0 subscriber=nothing event='Global\nv_caller_none' file= major=0xFF minor=0xFF type=0)"
expect "an event that does not exist" 0 "0000"
runs "the same event for an administrator" 0 "0100" "$client" send 10000fa "$theirs"
before_cleanup() { kill "$own" "$admins" 2>/dev/null; }

echo "== an administrator stops the service"
runs "stop" 0 "" "$client" post 1000001
wait_state 252
expect_eq "stop audited" 1 "$(log_count 'Audit: request "stop service" (IPC message 1000001) from process ')"

finish "caller policy" 200
