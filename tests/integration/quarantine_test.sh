#!/usr/bin/env bash
# Quarantine containers, quarantined files and blocked files through requests against the running
# service, with the driver simulator and the object-security recorder; archives decoded with
# libmcrypt and the lz4 command; the service killed in the middle of a quarantine and a restore.
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"

own_sid=$(service_sid $svc)
other_sid=$(service_sid nv_other_svc)
device='\Device\HarddiskVolume1'
decode=$NV_SOURCE_DIR/tests/integration/quarantine_decode.py
qkey='HKLM\Software\Norvale\NVClientHelper\QuarantineContainers'
fkey='HKLM\system\CurrentControlSet\Services\VQRMonitor\ProtectedFolders'
bkey='HKLM\Software\Norvale\NVClientHelper\BlockedFiles'

hex_list() {  # hex_list ITEM...: a string list
    hex_u32 $#
    for item in "$@"; do hex_str "$item"; done
}
# The text of a status reply's message (hex after the result byte, without the zero).
reply_text() { printf '%s' "${reply:2}" | sed 's/00$//' | xxd -r -p; }
reply_result() { printf '%s' "${reply:0:2}"; }
unix_of() { printf '%s' "$drive_c/${1:3}" | tr '\\' '/'; }  # C:\a\b -> $drive_c/a/b
sum_of() { sha256sum "$1" 2>/dev/null | cut -c 1-64; }
quarantine() { request 10000ca "$(hex_u32 "$1")$(hex_str "$2")$(shift 2; hex_list "$@")"; }

mkdir -p "$drive_c/data" "$drive_c/swap"
{
    printf 'file\tC:\\data\\blk.txt\tD:(A;;FA;;;BA)(A;;0x1200a9;;;BU)\n'
    printf 'file\tC:\\data\\bad.txt\tD:P(A;;FA;;;BA)\n'
} >"$journal"
run reg add 'HKLM\Software\Norvale\NVClientHelper' /v ObjectSecurityJournal /t REG_SZ /d 'C:\nv\object_security.journal' /f
run "$exe" -i install
expect_eq "install" 0 "$rc"
start_service

echo "== containers"
mark=$(($(driver_count) + 1))
request 10000c9 "$(hex_str 'C:\Q')$(hex_list nv_other_svc)"
expect_eq "create C:\\Q" "$status_ok" "$reply"
request 10000c9 "$(hex_str 'c:\q\')$(hex_list)"
expect_eq "create c:\\q\\ again" "$status_ok" "$reply"
request 10000cd
expect_eq "one container" "$(hex_list 'c:\q\')" "$reply"
expect_eq "code 9 once, device path" "9 command $device\\q" "$(driver_messages $mark | grep -v feature)"
case "$(recorded file 'c:\q' | cut -f 1)" in
"D:P(A;OICI;0x101f01ff;;;$own_sid)(A;OICI;0x101f01ff;;;$other_sid)"*) ;;
*) fail "container DACL: $(recorded file 'c:\q')" ;;
esac
run reg query "$qkey" /v 'c:\q\'
grep -q 'REG_DWORD *0x1' "$out" || fail "QuarantineContainers value: $(cat "$out")"
run reg query "$fkey" /v 'c:\q\'
grep -q 'REG_DWORD *0x1' "$out" || fail "ProtectedFolders value: $(cat "$out")"

echo "== bad container input"
mark=$(($(driver_count) + 1))
printf 'x' >"$drive_c/data/file.txt"
long='C:\'$(printf 'y%.0s' $(seq 1 270))
for case in "no backslash:noslash" "relative:q\\r" "over 260:$long" "a file:C:\\data\\file.txt" "dot dot:C:\\q\\..\\windows"; do
    request 10000c9 "$(hex_str "${case#*:}")$(hex_list)"
    expect_eq "${case%%:*}" "$(status_msg 00 'Invalid path.')" "$reply"
done
request 10000c9 "$(hex_str '')$(hex_list)"
expect_eq "empty" "$(status_msg 00 'Invalid path.')" "$reply"
request 10000c9 "$(hex_str 'c:\x')"
expect_eq "no list" "$status_fail" "$reply"
expect_eq "bad containers: no rule" "" "$(driver_messages $mark | grep -v feature)"
request 10000cd
expect_eq "still one container" "$(hex_list 'c:\q\')" "$reply"
expect_eq "bad containers logged" 6 "$(log_count 'Failed to create quarantine container')"

echo "== quarantine two files, a bare name"
head -c 1048576 /dev/urandom >"$drive_c/data/a.bin"
seq 1 200000 >"$drive_c/data/b.txt"
seq 5 300000 >"$drive_c/data/c.txt"
sum_a=$(sum_of "$drive_c/data/a.bin")
sum_b=$(sum_of "$drive_c/data/b.txt")
sum_c=$(sum_of "$drive_c/data/c.txt")
t0=$(($(date +%s) * 1000))
quarantine 0 'C:\Q' 'C:\data\a.bin' 'C:\data\b.txt'
t1=$(($(date +%s) * 1000 + 1000))
expect_eq "two files: result" 01 "$(reply_result)"
msg=$(reply_text)
re1='^(c:\\q\\a\.bin\.([0-9A-F]{16})\.QUA);(c:\\q\\b\.txt\.[0-9A-F]{16}\.QUA);$'
[[ "$msg" =~ $re1 ]] || fail "two files: message [$msg]"
arc_a=${BASH_REMATCH[1]}
arc_b=${BASH_REMATCH[3]}
ms=$(python3 -c "import sys; print(int.from_bytes(bytes.fromhex(sys.argv[1]), 'little'))" "${BASH_REMATCH[2]:-00}")
[ "$ms" -ge "$t0" ] && [ "$ms" -le "$t1" ] || fail "archive name time $ms not within [$t0, $t1]"
[ ! -e "$drive_c/data/a.bin" ] && [ ! -e "$drive_c/data/b.txt" ] || fail "sources not deleted"
check_decoded() {  # ARCHIVE SUM PATH: decoded with libmcrypt and lz4
    local got
    got=$(python3 "$decode" "$(unix_of "$1")" "$work/decoded" 2>&1)
    expect_eq "decoded path of $1" "$3" "$got"
    expect_eq "decoded bytes of $1" "$2" "$(sum_of "$work/decoded")"
}
check_decoded "$arc_a" "$sum_a" 'C:\data\a.bin'
check_decoded "$arc_b" "$sum_b" 'C:\data\b.txt'
ls "$drive_c/q" | grep -v '\.QUA$' && fail "temporaries left in the container"
# A bare name and an archive that fails its check (the seam damages it before it is read back)
# each give an empty field; the file after them is still quarantined.
printf 'bad' >"$drive_c/data/bad.txt"
run reg add 'HKLM\Software\Norvale\NVClientHelper' /v ArchiveVerifyFault /t REG_SZ /d BAD.txt /f
quarantine 0 'c:\q' 'bare.txt' 'C:\data\bad.txt' 'C:\data\c.txt'
run reg delete 'HKLM\Software\Norvale\NVClientHelper' /v ArchiveVerifyFault /f
expect_eq "bare name: result" 00 "$(reply_result)"
msg=$(reply_text)
re2='^;;(c:\\q\\c\.txt\.[0-9A-F]{16}\.QUA);$'
[[ "$msg" =~ $re2 ]] || fail "bare name, failed check: message [$msg]"
arc_c=${BASH_REMATCH[1]}
expect_eq "bare name logged" 1 "$(log_count 'Invalid file path to quarantine: bare.txt')"
expect_eq "failed check logged" 1 "$(log_count 'Archive verification failed, the content does not decode to its digest: c:\q\bad.txt.')"
expect_eq "failed check: source kept" bad "$(cat "$drive_c/data/bad.txt")"
expect_eq "failed check: its DACL put back" "D:P(A;;FA;;;BA)" "$(recorded file 'C:\data\bad.txt' | cut -f 1)"
expect_eq "failed check: no archive nor temporary" "" "$(ls "$drive_c/q" | grep -i '^bad')"
request 10000cc "$(hex_str 'C:\Q')"
expect_eq "listing count" "$(hex_u32 3)" "${reply:0:8}"
for pair in "$arc_a|C:\\data\\a.bin" "$arc_b|C:\\data\\b.txt" "$arc_c|C:\\data\\c.txt"; do
    name=${pair%%|*}
    name=${name#c:\\q\\}
    [[ "$reply" == *"$(hex_str "$name")$(hex_str "${pair#*|}")"* ]] || fail "listing lacks $name"
done
request 10000cc "$(hex_str 'c:\notregistered')"
expect_eq "unregistered listing" "$(hex_u32 0)" "$reply"


echo "== is quarantined"
upper_c=$(printf '%s' "$arc_c" | tr 'a-z' 'A-Z')
request 10000ce "$(hex_str "$upper_c")"
expect_eq "archive, upper case" "$(status_msg 01 yes)" "$reply"
request 10000ce "$(hex_str 'C:\data\c.txt')"
expect_eq "source path" "$(status_msg 01 no)" "$reply"
request 10000ce "$(hex_str '')"
expect_eq "empty path" "$(status_msg 00 '')" "$reply"

echo "== remove and restore with a foreign archive"
quarantine 1 'c:\q\' "$arc_c" 'c:\other\x.QUA' 'c:\q\..\nv\NorvaleHalvernService.exe' "$arc_c"
expect_eq "remove: foreign fails" "$(status_msg 00 '')" "$reply"
[ ! -e "$(unix_of "$arc_c")" ] || fail "remove: archive still there"
[ -e "$drive_c/nv/NorvaleHalvernService.exe" ] || fail "remove: escaped the container"
expect_eq "remove: listed twice, nothing scheduled" 0 "$(log_count 'Failed to delete quarantined file')"
expect_eq "remove: mismatch logged" 2 "$(log_count 'Failed to remove the quarantined file, container path is not matched')"
quarantine 2 'c:\q\' 'c:\other\x.QUA' "$arc_a"
expect_eq "restore: foreign fails" "$(status_msg 00 '')" "$reply"
expect_eq "restore: bytes back" "$sum_a" "$(sum_of "$drive_c/data/a.bin")"
[ ! -e "$(unix_of "$arc_a")" ] || fail "restore: archive still there"
quarantine 3 'c:\q\' "$arc_b"
expect_eq "bad action" "$(status_msg 00 'Invalid action.')" "$reply"
quarantine 0 'c:\nothere' 'C:\data\a.bin'
expect_eq "unregistered container" "$(status_msg 00 'Invalid quarantine container.')" "$reply"

echo "== duplicates, a running image, a damaged archive"
quarantine 0 'c:\q' 'C:\data\a.bin' 'C:\DATA\a.bin'
msg=$(reply_text)
re3='^(c:\\q\\a\.bin\.[0-9A-F]{16}\.QUA);;$'
[[ "$msg" =~ $re3 ]] || fail "duplicates: message [$msg]"
arc_a=${BASH_REMATCH[1]}
expect_eq "duplicates: one archive of a.bin" 1 "$(ls "$drive_c/q" | grep -c '^a\.bin\.')"
cp "$NV_BIN_DIR/nv_test_helper.exe" "$drive_c/data/runner.exe"
wine "C:\\data\\runner.exe" hold-mutex 'Global\nv_runner' 120000 'Global\nv_runner_ready' </dev/null >/dev/null 2>&1 &
runner=$!
sleep 3
quarantine 0 'c:\q' 'C:\data\runner.exe'
expect_eq "running image: archived" 01 "$(reply_result)"
[ ! -e "$drive_c/data/runner.exe" ] || fail "running image: source still there"
for _ in $(seq 1 50); do kill -0 $runner 2>/dev/null || break; sleep 0.2; done
kill -0 $runner 2>/dev/null && fail "running image: not terminated"
grep -a -q 'Terminating process .*runner.exe' "$log" || fail "running image: no termination logged"
seq 1 1000 >"$drive_c/data/d.txt"
quarantine 0 'c:\q' 'C:\data\d.txt'
arc_d=$(reply_text | tr -d ';')
printf 'damage' | dd of="$(unix_of "$arc_d")" bs=1 seek=200 conv=notrunc status=none
seq 1 10 >"$drive_c/data/d.txt"
sum_d_now=$(sum_of "$drive_c/data/d.txt")
quarantine 2 'c:\q' "$arc_d"
expect_eq "damaged archive: fails" "$(status_msg 00 '')" "$reply"
[ -e "$(unix_of "$arc_d")" ] || fail "damaged archive: not kept"
expect_eq "damaged archive: existing file untouched" "$sum_d_now" "$(sum_of "$drive_c/data/d.txt")"
ls "$drive_c/data" | grep -q restoring && fail "damaged archive: temporary left"
expect_eq "damaged archive: logged" 1 "$(log_count "Failed to restore quarantine file: $arc_d")"

echo "== restore through a link swapped in"
printf 'swap' >"$drive_c/swap/s.txt"
quarantine 0 'c:\q' 'C:\swap\s.txt'
arc_s=$(reply_text | tr -d ';')
rmdir "$drive_c/swap" && ln -s "$drive_c/windows" "$drive_c/swap"
quarantine 2 'c:\q' "$arc_s"
expect_eq "link: restore refused" "$(status_msg 00 '')" "$reply"
[ ! -e "$drive_c/windows/s.txt" ] || fail "link: wrote through the link"
[ -e "$(unix_of "$arc_s")" ] || fail "link: archive not kept"
expect_eq "link: logged" 1 "$(log_count 'Restore refused, the folder of C:\swap\s.txt is a link')"
rm "$drive_c/swap" && mkdir "$drive_c/swap"

echo "== blocked files"
printf 'blk' >"$drive_c/data/blk.txt"
printf 'blk2' >"$drive_c/data/blk2.txt"
mark=$(($(driver_count) + 1))
request 10000cf "$(hex_str 'C:\Data\Blk.txt')"
expect_eq "block" "$status_ok" "$reply"
case "$(recorded file 'c:\data\blk.txt' | cut -f 1)" in
"D:P(A;OICI;0x101f01ff;;;$own_sid)"*) ;;
*) fail "blocked DACL: $(recorded file 'c:\data\blk.txt')" ;;
esac
expect_eq "block: code 9" "9 command $device\\data\\blk.txt" "$(driver_messages $mark | grep -v feature)"
request 10000d2 "$(hex_str 'C:\DATA\BLK.TXT')"
expect_eq "is blocked" "$(status_msg 01 yes)" "$reply"
run reg query "$bkey" /v 'c:\data\blk.txt'
grep -q 'REG_SZ *D:(A;;FA;;;BA)(A;;0x1200a9;;;BU)' "$out" || fail "saved descriptor persisted: $(cat "$out")"
upper_b=$(printf '%s' "$arc_b" | tr 'a-z' 'A-Z')
request 10000cf "$(hex_str "$upper_b")"
expect_eq "block an archive" "$(status_msg 01 'The file has already been quarantined.')" "$reply"
request 10000d0 "$(hex_str "$arc_b")"
expect_eq "unblock an archive" "$(status_msg 00 'The file has already been quarantined.')" "$reply"
request 10000d1 "$(hex_u32 0)$(hex_list nv_other_svc)$(hex_list 'C:\data\blk2.txt' "$arc_b")"
expect_eq "many, block: archive skipped" "$(status_msg 01 '')" "$reply"
case "$(recorded file 'c:\data\blk2.txt' | cut -f 1)" in
"D:P(A;OICI;0x101f01ff;;;$own_sid)(A;OICI;0x101f01ff;;;$other_sid)"*) ;;
*) fail "many: blk2 DACL: $(recorded file 'c:\data\blk2.txt')" ;;
esac
request 10000d1 "$(hex_u32 1)$(hex_list)$(hex_list 'C:\data\blk2.txt' "$upper_b")"
expect_eq "many, unblock: archive listed, lower-cased" "$(status_msg 01 "$(printf '%s' "$arc_b" | tr 'A-Z' 'a-z');")" "$reply"
request 10000d2 "$(hex_str 'c:\data\blk2.txt')"
expect_eq "blk2 unblocked" "$(status_msg 01 no)" "$reply"

echo "== restart: containers and blocked files come back"
run reg add "$qkey" /v "c:\\$(printf 'z%.0s' $(seq 1 300))\\" /t REG_DWORD /d 1 /f
stop_service
mark=$(($(driver_count) + 1))
start_service
expect_eq "reload logged" 1 "$(log_count 'Read quarantine containers: c:\q\')"
expect_eq "over-long name skipped" 0 "$(log_count 'Read quarantine containers: c:\zzz')"
expect_eq "code 9 re-sent" "9 command $device\\q" "$(driver_messages $mark | grep '^9 ')"
request 10000cd
expect_eq "containers after restart" "$(hex_list 'c:\q\')" "$reply"
request 10000d2 "$(hex_str 'c:\data\blk.txt')"
expect_eq "blocked after restart" "$(status_msg 01 yes)" "$reply"
mark=$(($(driver_count) + 1))
request 10000d0 "$(hex_str 'c:\data\blk.txt')"
expect_eq "unblock after restart" "$status_ok" "$reply"
expect_eq "unblock: saved descriptor back" "D:(A;;FA;;;BA)(A;;0x1200a9;;;BU)" "$(recorded file 'c:\data\blk.txt' | cut -f 1)"
expect_eq "unblock: code 10" "10 command $device\\data\\blk.txt" "$(driver_messages $mark | grep -v feature)"
run reg query "$bkey" /v 'c:\data\blk.txt'
[ "$rc" != 0 ] || fail "saved descriptor not removed"

echo "== remove containers"
request 10000c9 "$(hex_str 'c:\r')$(hex_list)"
seq 1 500 >"$drive_c/data/r.txt"
quarantine 0 'c:\r' 'C:\data\r.txt'
arc_r=$(reply_text | tr -d ';')
printf 'damage' | dd of="$(unix_of "$arc_r")" bs=1 seek=150 conv=notrunc status=none
mark=$(($(driver_count) + 1))
request 10000cb "$(hex_u32 2)$(hex_str 'c:\r')"
expect_eq "restore-remove with a failed restore" "$status_fail" "$reply"
request 10000cd
expect_eq "container kept" "$(hex_list 'c:\q\' 'c:\r\')" "$reply"
run reg query "$qkey" /v 'c:\r\'
expect_eq "value kept" 0 "$rc"
expect_eq "rule kept" "" "$(driver_messages $mark | grep -v feature)"
request 10000cb "$(hex_u32 1)$(hex_str 'C:\R')"
expect_eq "delete-remove" "$status_ok" "$reply"
[ ! -e "$drive_c/r" ] || fail "container folder left"
expect_eq "delete-remove: code 10" "10 command $device\\r" "$(driver_messages $mark | grep -v feature)"
run reg query "$qkey" /v 'c:\r\'
[ "$rc" != 0 ] || fail "QuarantineContainers value left"
run reg query "$fkey" /v 'c:\r\'
[ "$rc" != 0 ] || fail "ProtectedFolders value left"
request 10000cb "$(hex_u32 3)$(hex_str 'c:\q')"
expect_eq "remove: bad action" "$(status_msg 00 'Invalid action.')" "$reply"
request 10000cb "$(hex_u32 1)$(hex_str 'c:\nothere')"
expect_eq "remove: unregistered" "$(status_msg 00 'Invalid quarantine container.')" "$reply"

if [ "${NV_QUARANTINE_CRASH:-1}" = 1 ]; then
    echo "== crash safety: the service killed while quarantining and restoring"
    big=$drive_c/data/big.bin
    head -c $((512 * 1048576)) /dev/urandom >"$big"
    sum_big=$(sum_of "$big")
    wait_for() {  # wait_for GLOB: until a file of the container matches
        for _ in $(seq 1 600); do
            compgen -G "$drive_c/q/$1" >/dev/null && return 0
            sleep 0.05
        done
        return 1
    }
    check_one_form() {  # LABEL: the source intact or a complete archive that restores
        local label=$1 arcs
        arcs=$(ls "$drive_c/q" | grep '^big\.bin\..*\.QUA$')
        echo "$label: source $([ -e "$big" ] && echo kept || echo gone), archive $([ -n "$arcs" ] && echo complete || echo none)"
        if [ -e "$big" ] && [ "$(sum_of "$big")" = "$sum_big" ]; then
            [ -z "$arcs" ] || { rm -f "$drive_c/q/$arcs"; }  # both forms: the archive was complete
            return 0
        fi
        [ -n "$arcs" ] || { fail "$label: neither the source nor an archive"; return 1; }
        quarantine 2 'c:\q' "c:\\q\\$arcs"
        expect_eq "$label: archive restores" "$status_ok" "$reply"
        expect_eq "$label: restored bytes" "$sum_big" "$(sum_of "$big")"
    }
    for moment in 'big.bin.*.QUA.verifying.partial' 'big.bin.*.QUA.verifying' 'big.bin.*.QUA' 'none'; do
        (wine "$client" -t 200000 send 10000ca "$(hex_u32 0)$(hex_str 'c:\q')$(hex_list 'C:\data\big.bin')" \
            </dev/null >/dev/null 2>&1) &
        sender=$!
        if [ "$moment" = none ]; then sleep 0.5; else wait_for "$moment" || echo "note: $moment not seen"; fi
        run taskkill /F /IM NorvaleHalvernService.exe
        wait $sender
        start_service
        ls "$drive_c/q" | grep -q -E 'verifying|partial' && fail "after $moment: temporaries left"
        check_one_form "killed at $moment"
    done
    quarantine 0 'c:\q' 'C:\data\big.bin'
    arc_big=$(reply_text | tr -d ';')
    [ -e "$(unix_of "$arc_big")" ] || fail "big archive missing"
    # A restore killed while it writes leaves "big.bin.restoring"; the next start removes it
    # (the archive still holds the content) and the archive restores.
    for moment in 'restoring' 'none'; do
        (wine "$client" -t 200000 send 10000ca "$(hex_u32 2)$(hex_str 'c:\q')$(hex_list "$arc_big")" \
            </dev/null >/dev/null 2>&1) &
        sender=$!
        if [ "$moment" = none ]; then sleep 0.5; else
            for _ in $(seq 1 600); do [ -e "$big.restoring" ] && break; sleep 0.05; done
            [ -e "$big.restoring" ] || echo "note: $big.restoring not seen"
        fi
        run taskkill /F /IM NorvaleHalvernService.exe
        wait $sender
        start_service
        [ -e "$(unix_of "$arc_big")" ] || break
        [ ! -e "$big" ] || expect_eq "restore killed at $moment: restored copy" "$sum_big" "$(sum_of "$big")"
        [ ! -e "$big.restoring" ] || fail "restore killed at $moment: leftover kept"
    done
    [ "$(log_count 'Removing an interrupted restore: C:\data\big.bin.restoring')" -ge 1 ] || fail "no interrupted restore removed"
    if [ -e "$(unix_of "$arc_big")" ]; then
        quarantine 2 'c:\q' "$arc_big"
        expect_eq "restore after the kills" "$status_ok" "$reply"
    fi
    expect_eq "restored bytes" "$sum_big" "$(sum_of "$big")"
    [ ! -e "$(unix_of "$arc_big")" ] || fail "archive kept after its restore"
    rm -f "$big"
fi

stop_service
echo "failures: $failures"
[ "$failures" = 0 ]
