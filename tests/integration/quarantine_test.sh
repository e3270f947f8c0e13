#!/usr/bin/env bash
# Quarantine containers, quarantined files and blocked files through requests to the running
# service; the service killed mid-quarantine and mid-restore. The archive layout, decoded
# independently, is quarantine_tool_test.sh's (the tool and the service share the archive writer).
set -uo pipefail
. "$(dirname "$0")/protection_lib.sh"

other_sid=$(service_sid nv_other_svc)
own_ace="(A;OICI;0x101f01ff;;;$own_sid)"
other_ace="(A;OICI;0x101f01ff;;;$other_sid)"
qkey="$helper_key\\QuarantineContainers" bkey="$helper_key\\BlockedFiles"
fkey='HKLM\system\CurrentControlSet\Services\VQRMonitor\ProtectedFolders'
quarantined=$(said 1 'The file has already been quarantined.')

# The message and the result of a status reply.
reply_text() { printf '%s' "${reply#result=* message=}"; }
reply_result() { printf '%s' "${reply:7:1}"; }
replied() {  # LABEL RESULT|* REGEX: the reply's result, and its message matched (BASH_REMATCH) by REGEX
    [ "$2" = '*' ] || expect_eq "$1: result" "$2" "$(reply_result)"
    [[ "$(reply_text)" =~ $3 ]] || fail "$1: message [$(reply_text)]"
}
unix_of() { printf '%s' "$drive_c/${1:3}" | tr '\\' '/'; }  # C:\a\b -> $drive_c/a/b
sum_of() { sha256sum "$1" 2>/dev/null | cut -c 1-64; }
# quarantine ACTION CONTAINER PATH...: the request with one path field a PATH
quarantine() { local paths=("${@:3}"); call quarantine-files action="$1" container="$2" "${paths[@]/#/path=}"; }
quarantined() { local label=$1 want=$2; shift 2; quarantine "$@"; expect_eq "$label" "$want" "$reply"; }  # LABEL WANT ACTION...
dacl_starts() { [[ "$(recorded file "$2" | cut -f 1)" == "$3"* ]] || fail "$1: $(recorded file "$2")"; }
new_rules() { sent | grep -v feature; }
values_of() { printf '%s|%s' "$(reg_value "$qkey" "$1")" "$(reg_value "$fkey" "$1")"; }  # CONTAINER: its two registry values
# patch OFFSET HEX FILE: the bytes given as hex written at OFFSET; flip OFFSET MASK FILE: one byte xor MASK.
patch() { printf '%s' "$2" | xxd -r -p | dd of="$3" bs=1 seek="$1" conv=notrunc status=none; }
flip() { patch "$1" "$(printf '%02x' $((0x$(xxd -s "$1" -l 1 -p "$3") ^ $2)))" "$3"; }

mkdir -p "$drive_c/data" "$drive_c/swap" "$work/dvol/sub" && ln -sfn "$work/dvol" "$WINEPREFIX/dosdevices/d:"
printf 'file\t%s\t%s\n' 'C:\data\blk.txt' 'D:(A;;FA;;;BA)(A;;0x1200a9;;;BU)' 'C:\data\bad.txt' 'D:P(A;;FA;;;BA)' \
    'C:\sw\s2.bin' 'D:P(A;;FA;;;BA)' 'C:\data\nb.txt' 'D:P(A;;FA;;;BA)(A;;FR;;;BU)' 'C:\data\pro.txt' 'D:P(A;;FA;;;BA)' 'C:\data\p.txt' 'D:P(A;;FA;;;BA)(A;;FR;;;BU)' >"$journal"
install_with_recorder
start_service

echo "== containers"
mark
answers "create C:\\Q" "$ok" create-quarantine-container path='C:\Q' service=nv_other_svc
answers "create c:\\q\\ again" "$ok" create-quarantine-container path='c:\q\'
expect_eq "code 9 once, device path" "9 command $device\\q" "$(new_rules)"
dacl_starts "container DACL" 'c:\q' "D:P$own_ace$other_ace"

echo "== quarantine two files; a bare name and a failed check"
head -c 1048576 /dev/urandom >"$drive_c/data/a.bin" && seq 1 200000 >"$drive_c/data/b.txt" && seq 5 300000 >"$drive_c/data/c.txt"
sum_a=$(sum_of "$drive_c/data/a.bin")
t0=$(($(date +%s) * 1000))
quarantine 0 'C:\Q' 'C:\data\a.bin' 'C:\data\b.txt'
t1=$(($(date +%s) * 1000 + 1000))
replied "two files" 1 '^(c:\\q\\a\.bin\.([0-9A-F]{16})\.QUA);(c:\\q\\b\.txt\.[0-9A-F]{16}\.QUA);$'
arc_a=${BASH_REMATCH[1]} arc_b=${BASH_REMATCH[3]}
ms=$(python3 -c "import sys; print(int.from_bytes(bytes.fromhex(sys.argv[1]), 'little'))" "${BASH_REMATCH[2]:-00}")
[ "$ms" -ge "$t0" ] && [ "$ms" -le "$t1" ] || fail "archive name time $ms not within [$t0, $t1]"
[ ! -e "$drive_c/data/a.bin" ] && [ ! -e "$drive_c/data/b.txt" ] || fail "sources not deleted"
ls "$drive_c/q" | grep -v '\.QUA$' && fail "temporaries left in the container"
# The value makes the service damage the archive of bad.txt between writing and reading it back.
printf 'bad' >"$drive_c/data/bad.txt"
run reg add "$helper_key" /v ArchiveVerifyFault /t REG_SZ /d BAD.txt /f
quarantine 0 'c:\q' 'bare.txt' 'C:\data\bad.txt' 'C:\data\c.txt'
run reg delete "$helper_key" /v ArchiveVerifyFault /f
replied "bare name, failed check" 0 '^;;(c:\\q\\c\.txt\.[0-9A-F]{16}\.QUA);$'
arc_c=${BASH_REMATCH[1]}
expect_eq "bare name and failed check logged" "1 1" "$(log_count 'Request "quarantine files" refused for the path <bare.txt>: not a local path') $(
    log_count 'Archive verification failed, the content does not decode to its digest: c:\q\bad.txt.')"
expect_eq "failed check: source kept, its DACL put back, no archive nor temporary" "bad|D:P(A;;FA;;;BA)|" \
    "$(cat "$drive_c/data/bad.txt")|$(recorded file 'C:\data\bad.txt' | cut -f 1)|$(ls "$drive_c/q" | grep -i '^bad')"
call get-quarantined-files name='C:\Q'
expect_eq "listing" "count=3 $(printf 'archive=%s path=C:\\data\\%s\n' "${arc_a:5}" a.bin "${arc_b:5}" b.txt "${arc_c:5}" c.txt | sort)" \
    "$(head -n 1 <<<"$reply") $(tail -n +2 <<<"$reply" | sort)"  # the names without their "c:\q\"
answers "unregistered listing" count=0 get-quarantined-files name='c:\notregistered'

echo "== is quarantined"
answers "archive, upper case" "$(said 1 yes)" is-file-quarantined name="${arc_c^^}"
answers "source path" "$(said 1 no)" is-file-quarantined name='C:\data\c.txt'
answers "empty path" "$refused" is-file-quarantined name=

echo "== remove and restore with a foreign archive"
quarantined "remove: foreign fails" "$refused" 1 'c:\q\' "$arc_c" 'c:\other\x.QUA' 'c:\q\..\nv\NorvaleHalvernService.exe' "$arc_c"
[ ! -e "$(unix_of "$arc_c")" ] && [ -e "$drive_c/nv/NorvaleHalvernService.exe" ] || fail "remove: archive still there, or escaped the container"
expect_eq "remove: listed twice, nothing scheduled" 0 "$(log_count 'Failed to delete quarantined file')"
expect_eq "remove: mismatch and .. logged" "1 1" "$(log_count 'Failed to remove the quarantined file, container path is not matched') $(
    log_count 'refused for the path <c:\q\..\nv\NorvaleHalvernService.exe>: a parent folder component')"
quarantined "restore: foreign fails" "$refused" 2 'c:\q\' 'c:\other\x.QUA' "$arc_a"
expect_eq "restore: bytes back" "$sum_a" "$(sum_of "$drive_c/data/a.bin")"
expect_eq "restore: logged" "1 1" "$(log_count "restoring : $arc_a -> C:\data\a.bin") $(log_count 'restore : done')"
quarantined "bad action" "$(said 0 'Invalid action.')" 3 'c:\q\' "$arc_b"
quarantined "unregistered container" "$(said 0 'Invalid quarantine container.')" 0 'c:\nothere' 'C:\data\a.bin'

echo "== duplicates, a running image, a missing archive, damaged archives"
quarantine 0 'c:\q' 'C:\data\a.bin' 'C:\DATA\a.bin'
replied "duplicates" '*' '^(c:\\q\\a\.bin\.[0-9A-F]{16}\.QUA);;$'
expect_eq "duplicates: one archive of a.bin" 1 "$(ls "$drive_c/q" | grep -c '^a\.bin\.')"
cp "$NV_BIN_DIR/nv_test_helper.exe" "$drive_c/data/runner.exe"
wine "C:\\data\\runner.exe" hold-mutex 'Global\nv_runner' 120000 'Global\nv_runner_ready' </dev/null >/dev/null 2>&1 & runner=$!
sleep 3
quarantine 0 'c:\q' 'C:\data\runner.exe'
[ "$(reply_result)" = 1 ] && [ ! -e "$drive_c/data/runner.exe" ] || fail "running image: not archived, or its source still there [$reply]"
poll 50 0.2 '! kill -0 $runner 2>/dev/null' || fail "running image: not terminated"
grep -a -q 'Terminating process .*runner.exe' "$log" || fail "running image: no termination logged"
from=$(($(wc -l <"$log") + 1))
quarantined "missing archive: fails" "$refused" 2 'c:\q' 'c:\q\none.bin.0000000000000000.QUA'
expect_eq "missing archive: the archive code logs nothing" "" "$(tail -n +$from "$log" | grep -a NVFileArchive)"
# Damaged archives restored over existing files, each failing with its line in the log:
#   NAME|CONTENT (long: an encrypted first block and plain blocks; short: the whole frame
#   encrypted)|DAMAGE to the archive $f whose frame starts at $o|THE LINE
damaged=$(cat <<'EOT'
empty|long|truncate -s 0 "$f"|Failed to read the archive header
offset_inside_header|long|patch 0 "$(hex_u32 60)" "$f"|Invalid archive header: data offset 60
offset_huge|long|patch 0 "$(hex_u32 4294967280)" "$f"|Invalid archive header: data offset 4294967280
path_unterminated|long|patch $((o - 1)) 78 "$f"|Invalid archive header: path not terminated
chunk_past_end|long|truncate -s $((o + 107)) "$f"|Decompress: failed to read encrypted block
chunk_over_cap|long|patch 12 "$(hex_u32 2147483616)" "$f"|Invalid encrypted chunk: decrypt length
chunk_byte|long|flip $((o + 12)) 1 "$f"|Decompression error
short_chunk_byte|short|flip $(($(stat -c %s "$f") - 40)) 128 "$f"|Decompression error
EOT
)
sources=()
while IFS='|' read -r name content _; do
    if [ "$content" = long ]; then head -c 300000 /dev/urandom; else yes 'quarantined text' | head -c 5000; fi >"$drive_c/data/$name"
    sources+=("C:\\data\\$name")
done <<<"$damaged"
quarantine 0 'c:\q' "${sources[@]}"
IFS=';' read -r -a archives <<<"$(reply_text)"
expect_eq "damaged archives: made" "1 8" "$(reply_result) ${#archives[@]}"
i=0
while IFS='|' read -r name _ how _; do
    f=$(unix_of "${archives[i]}") && o=$(od -An -tu4 -N4 "$f" | tr -d ' ') && eval "$how"
    printf 'existing %s' "$name" >"$drive_c/data/$name" && i=$((i + 1))
done <<<"$damaged"
from=$(($(wc -l <"$log") + 1))
quarantined "damaged archives: fail" "$refused" 2 'c:\q' "${archives[@]}"
restore_log=$(tail -n +$from "$log" | tr -d '\r')
i=0
while IFS='|' read -r name _ _ line; do
    grep -q -F -- "$line" <<<"$restore_log" || fail "damaged $name: no [$line] in the log"
    expect_eq "damaged $name: archive kept, existing file untouched, logged once" "1 existing $name 1" "$(
        [ -e "$(unix_of "${archives[$i]}")" ] && echo 1) $(cat "$drive_c/data/$name") $(
        grep -c -F -- "Failed to restore quarantine file: ${archives[$i]}" <<<"$restore_log")"
    i=$((i + 1))
done <<<"$damaged"
expect_eq "damaged archives: two decompression errors, no restore done, no temporary left" "2 0 0" "$(
    grep -c 'Decompression error' <<<"$restore_log") $(grep -c 'restore : done' <<<"$restore_log") $(ls "$drive_c/data" | grep -c restoring)"

echo "== restore through a link swapped in"
printf 'swap' >"$drive_c/swap/s.txt"
quarantine 0 'c:\q' 'C:\swap\s.txt'
arc_s=$(reply_text | tr -d ';')
rmdir "$drive_c/swap" && ln -s "$drive_c/windows" "$drive_c/swap"
quarantined "link: restore refused" "$refused" 2 'c:\q' "$arc_s"
[ ! -e "$drive_c/windows/s.txt" ] && [ -e "$(unix_of "$arc_s")" ] || fail "link: wrote through the link, or the archive not kept"
expect_eq "link: logged" 1 "$(log_count 'Restore refused, the folder of C:\swap\s.txt is a link')"
rm "$drive_c/swap" && mkdir "$drive_c/swap"

echo "== sources through their handle: links on the way, a read-only file, restores beside a file"
mkdir -p "$drive_c/victim" "$drive_c/sw" && printf 'victim' >"$drive_c/victim/v.txt" && seq 1 1000 >"$drive_c/sw/s2.bin"
ln -s "$drive_c/victim" "$drive_c/lnk"
quarantined "folder a link before the request: refused" "$(said 0 ';')" 0 'c:\q' 'C:\lnk\v.txt'
expect_eq "link before: target untouched, no DACL written, logged" "victim 0 1" "$(cat "$drive_c/victim/v.txt") $(grep -a -i -c victim "$journal") $(
    log_count 'Quarantine refused, C:\lnk\v.txt is not a local path, or a folder on its way is missing or a link')"
# The test build waits after writing the archive of s2.bin while the ".paused" file it made is
# there; meanwhile the folder becomes a link to a folder holding a decoy of the same name.
run reg add "$helper_key" /v ArchivePause /t REG_SZ /d s2.bin /f
call_bg sender "$work/paused.out" quarantine-files action=0 container='c:\q' path='C:\sw\s2.bin'
poll 600 0.1 'compgen -G "$drive_c/q/*.paused" >/dev/null' || fail "the archive pause was not reached"
mv "$drive_c/sw" "$drive_c/sw.real" && mkdir "$drive_c/decoy" && printf 'decoy' >"$drive_c/decoy/s2.bin"
ln -s "$drive_c/decoy" "$drive_c/sw"
rm -f "$drive_c"/q/*.paused
wait $sender
run reg delete "$helper_key" /v ArchivePause /f
expect_eq "folder a link before the delete: refused" "$(said 0 ';')" "$(tr -d '\r' <"$work/paused.out")"
expect_eq "link before the delete: decoy and source kept" "decoy $(seq 1 1000 | sha256sum | cut -c 1-64)" \
    "$(cat "$drive_c/decoy/s2.bin") $(sum_of "$drive_c/sw.real/s2.bin")"
expect_eq "link before the delete: no archive, DACL back, logged" " D:P(A;;FA;;;BA) 1" "$(ls "$drive_c/q" | grep '^s2\.bin') $(
    recorded file 'C:\sw\s2.bin' | cut -f 1) $(log_count 'Failed to delete original file <C:\sw\s2.bin>, its path no longer names')"
rm -rf "$drive_c/lnk" "$drive_c/sw" "$drive_c/sw.real" "$drive_c/decoy" "$drive_c/victim"
# CONTENT quarantined from C:\data\ro.txt (read-only the first time)|NEWER content saved there
# meanwhile|the name the restore then takes beside it
printf 'read-only' >"$drive_c/data/ro.txt" && chmod a-w "$drive_c/data/ro.txt"
for row in 'read-only|newer|C:\data\ro (restored).txt' 'newer|third|C:\data\ro (restored 2).txt'; do
    IFS='|' read -r content newer placed <<<"$row"
    quarantine 0 'c:\q' 'C:\data\ro.txt'
    arc=$(reply_text | tr -d ';')
    [[ "$(reply_result) $arc" =~ ^1\ c:\\q\\ro\.txt\.[0-9A-F]{16}\.QUA$ ]] && [ ! -e "$drive_c/data/ro.txt" ] ||
        fail "$content: quarantined [$reply], or its source still there"
    printf '%s' "$newer" >"$drive_c/data/ro.txt"
    quarantined "$content: restored beside, the reply naming it" "$(said 1 "$placed;")" 2 'c:\q' "$arc"
    expect_eq "$content: both files, logged, the archive gone" "$newer $content 1 gone" "$(cat "$drive_c/data/ro.txt") $(
        cat "$(unix_of "$placed")") $(log_count "C:\data\ro.txt exists; the restored file is $placed.") $([ -e "$(unix_of "$arc")" ] || echo gone)"
done
expect_eq "read-only: nothing left for a reboot" "" \
    "$(reg_value 'HKLM\System\CurrentControlSet\Control\Session Manager' PendingFileRenameOperations)"
rm -f "$drive_c"/data/ro*

echo "== blocked files"
printf 'blk' >"$drive_c/data/blk.txt" && printf 'blk2' >"$drive_c/data/blk2.txt"
mark
answers "block" "$ok" block-file-access name='C:\Data\Blk.txt'
dacl_starts "blocked DACL" 'c:\data\blk.txt' "D:P$own_ace"
expect_eq "block: code 9" "9 command $device\\data\\blk.txt" "$(new_rules)"
answers "is blocked" "$(said 1 yes)" is-file-access-blocked name='C:\DATA\BLK.TXT'
answers "block an archive" "$quarantined" block-file-access name="${arc_b^^}"
answers "unblock an archive" "$(said 0 'The file has already been quarantined.')" unblock-file-access name="$arc_b"
answers "many, block: archive skipped" "$ok" \
    block-files-access action=0 service=nv_other_svc path='C:\data\blk2.txt' path="$arc_b"
dacl_starts "many: blk2 DACL" 'c:\data\blk2.txt' "D:P$own_ace$other_ace"
answers "many, unblock: archive listed, lower-cased" "$(said 1 "${arc_b,,};")" \
    block-files-access action=1 path='C:\data\blk2.txt' path="${arc_b^^}"
answers "blk2 unblocked" "$(said 1 no)" is-file-access-blocked name='c:\data\blk2.txt'

echo "== unblock only what was blocked, its DACL as it was"
# FILE|BLOCKED FIRST|REPLY|ITS DACL AFTER (the journal gave each one beforehand)|RULES SENT
for row in "nb.txt|no|$refused|D:P(A;;FA;;;BA)(A;;FR;;;BU)|" \
    "pro.txt|yes|$ok|D:P(A;;FA;;;BA)|10 command $device\\data\\pro.txt"; do
    IFS='|' read -r name block want dacl rules <<<"$row"
    printf 'x' >"$drive_c/data/$name"
    [ "$block" = no ] || answers "block $name" "$ok" block-file-access name="C:\\data\\$name"
    mark
    answers "unblock $name" "$want" unblock-file-access name="C:\\data\\$name"
    expect_eq "unblock $name: DACL" "$dacl" "$(grep -a -i -F -- "file	c:\\data\\$name	" "$journal" | tail -n 1 | cut -f 3)"
    expect_eq "unblock $name: rules" "$rules" "$(new_rules)"
done
expect_eq "never blocked: logged, DACL never written" "1 1" \
    "$(log_count 'Unblock refused, c:\data\nb.txt is not a blocked file') $(grep -a -i -c -F 'c:\data\nb.txt' "$journal")"

echo "== hostile paths: refused with the route's reply and one line, nothing changed"
# Besides the path rules: a container under a link (to an allowed folder), a container folder an
# ordinary user made first, a container over 260 characters (LONG) or where a file is, a file in
# a container that is no archive.
ln -s "$drive_c/data" "$drive_c/qlink" && ln -s "$drive_c/windows" "$drive_c/winlink"
run "$helper" as-user 'C:\windows\system32\cmd.exe' /c mkdir 'C:\userq'
[ -d "$drive_c/userq" ] || fail "the ordinary user's folder was not made: $(cat "$out")"
echo stray >"$drive_c/q/stray.txt" && printf x >"$drive_c/data/file.txt"
snapshot() { for k in "$qkey" "$fkey" "$bkey"; do wine reg query "$k" </dev/null 2>/dev/null; done | tr -d '\r'; wc -l <"$journal"; }
before=$(snapshot)
mark
# WANT (inv: "Invalid path.", semi: one empty field, no: the failure status)|PATH|THE LINE|MESSAGE FIELDS (@: PATH)
while IFS='|' read -r want path line fields; do
    case $want in inv) want=$(said 0 'Invalid path.') ;; semi) want=$(said 0 ';') ;; *) want=$refused ;; esac
    [ "$path" != LONG ] || path='C:\'$(printf 'y%.0s' $(seq 1 270))
    args=()
    for f in $fields; do args+=("${f//@/"$path"}"); done
    n=$(log_count "$line")
    answers "${args[0]} $path" "$want" "${args[@]}"
    expect_eq "${args[0]} $path: one line" $((n + 1)) "$(log_count "$line")"
done <<'EOT'
inv|\\nvhost\share\q|<\\nvhost\share\q>: not a local path|create-quarantine-container path=@
inv|C:\Windows|<C:\Windows>: a system folder|create-quarantine-container path=@
inv|C:\winlink\nvq|<C:\winlink\nvq>: a system folder|create-quarantine-container path=@
inv|C:\users\Public|<C:\users\Public>: a user profile folder|create-quarantine-container path=@
inv|C:\qlink\q3|is reached through a link: c:\qlink\q3|create-quarantine-container path=@
inv|C:\userq|exists already and is not a container: c:\userq\|create-quarantine-container path=@
inv|q\r|<q\r>: not a local path|create-quarantine-container path=@
inv|C:\q\..\windows|<C:\q\..\windows>: a parent folder component|create-quarantine-container path=@
inv|C:\data\file.txt|Failed to create quarantine container path.|create-quarantine-container path=@
inv|LONG|Failed to create quarantine container path.|create-quarantine-container path=@
inv||Failed to create quarantine container, invalid path.|create-quarantine-container path=@
inv|C:\|<C:\>: a drive root|remove-quarantine-container action=1 path=@
semi|\\?\C:\data\blk2.txt|<\\?\C:\data\blk2.txt>: not a local path|quarantine-files action=0 container=c:\q path=@
no|c:\q\stray.txt|<c:\q\stray.txt>: not a quarantine archive|quarantine-files action=1 container=c:\q path=@
no|C:\data\nul|<C:\data\nul>: a device name|block-file-access name=@
no|C:\Windows.\win.ini|<C:\Windows.\win.ini>: a system folder|unblock-file-access name=@
no|C:\windows\system32\nv.exe|<C:\windows\system32\nv.exe>: a system folder|protect-processes protect=1 image=@
no|C:\ProgramData\|<C:\ProgramData\>: a program root folder|recover-folder-dacl name=@
EOT
answers "block files: the refused one listed" "$(said 1 'c:\windows\win.ini;')" block-files-access action=0 path='C:\windows\win.ini'
expect_eq "hostile paths: no driver rule" "" "$(sent)"
expect_eq "hostile paths: registry and recorded DACLs unchanged" "$before" "$(snapshot)"
answers "hostile paths: containers" "$(items container 'c:\q\')" get-quarantine-containers
expect_eq "hostile paths: no q3 nor nvq made, the user's folder and the stray file stay" "0 1 stray" \
    "$(ls -d "$drive_c/data/q3" "$drive_c/windows/nvq" 2>/dev/null | wc -l) $(ls -d "$drive_c/userq" | wc -l) $(cat "$drive_c/q/stray.txt")"
rm -f "$drive_c/q/stray.txt" "$drive_c/qlink" "$drive_c/winlink"

echo "== restart: containers and blocked files come back"
run reg add "$qkey" /v "c:\\$(printf 'z%.0s' $(seq 1 300))\\" /t REG_DWORD /d 1 /f
long_container="c:\\$(printf 'y%.0s' $(seq 1 254))\\"  # 258 characters: within what a create takes
answers "a long container" "$ok" create-quarantine-container path="$long_container"
stop_service
mark
start_service
expect_eq "reload logged, the over-long name skipped" "1 0" \
    "$(log_count 'Read quarantine containers: c:\q\') $(log_count 'Read quarantine containers: c:\zzz')"
expect_eq "code 9 re-sent" "$(printf '9 command %s\n' "$device\\q" "$device\\${long_container:3:254}")" "$(sent | grep '^9 ')"
answers "containers after restart" "$(items container 'c:\q\' "$long_container")" get-quarantine-containers
answers "blocked after restart" "$(said 1 yes)" is-file-access-blocked name='c:\data\blk.txt'
answers "unblock after restart" "$ok" unblock-file-access name='c:\data\blk.txt'
expect_eq "unblock: saved descriptor back, and removed" "D:(A;;FA;;;BA)(A;;0x1200a9;;;BU)|" \
    "$(recorded file 'c:\data\blk.txt' | cut -f 1)|$(reg_value "$bkey" 'c:\data\blk.txt')"

echo "== remove containers"
call create-quarantine-container path='c:\r'
seq 1 500 >"$drive_c/data/r.txt"
quarantine 0 'c:\r' 'C:\data\r.txt'
flip 150 255 "$(unix_of "$(reply_text | tr -d ';')")"
mark
answers "restore-remove with a failed restore" "$refused" remove-quarantine-container action=2 path='c:\r'
answers "container kept" "$(items container 'c:\q\' 'c:\r\' "$long_container")" get-quarantine-containers
expect_eq "values and rule kept" "REG_DWORD 0x1|REG_DWORD 0x1 " "$(values_of 'c:\r\') $(new_rules)"
echo stray >"$drive_c/r/stray.txt"
answers "delete-remove, a stray file in the folder" "$refused" remove-quarantine-container action=1 path='C:\R'
expect_eq "folder, values and rule kept" "1 REG_DWORD 0x1|REG_DWORD 0x1 " "$(ls "$drive_c/r" | wc -l) $(values_of 'c:\r\') $(new_rules)"
rm "$drive_c/r/stray.txt"
answers "delete-remove" "$ok" remove-quarantine-container action=1 path='C:\R'
expect_eq "delete-remove: folder gone, code 10, both values removed" "gone 10 command $device\\r |" \
    "$([ -e "$drive_c/r" ] || echo gone) $(new_rules) $(values_of 'c:\r\')"
answers "remove: bad action" "$(said 0 'Invalid action.')" remove-quarantine-container action=3 path='c:\q'
answers "remove: unregistered" "$(said 0 'Invalid quarantine container.')" remove-quarantine-container action=1 path='c:\nothere'

echo "== crash safety: the service killed while quarantining and restoring"
big=$drive_c/data/big.bin
head -c $((512 * 1048576)) /dev/urandom >"$big"
sum_big=$(sum_of "$big")
# kill_during ACTION PATH GLOB: sends the request, kills the service once GLOB matches (or
# half a second after sending for "none"), starts it again.
kill_during() {
    local sender; call_bg sender /dev/null quarantine-files action="$1" container='c:\q' path="$2"
    if [ "$3" = none ]; then sleep 0.5; else poll 600 0.05 "compgen -G '$3' >/dev/null"; fi
    run taskkill /F /IM NorvaleHalvernService.exe
    wait $sender
    start_service
}
for moment in 'big.bin.*.QUA.verifying.partial' 'big.bin.*.QUA.verifying' 'big.bin.*.QUA' 'none'; do
    glob=$drive_c/q/$moment
    [ "$moment" = none ] && glob=none
    kill_during 0 'C:\data\big.bin' "$glob"
    ls "$drive_c/q" | grep -q -E 'verifying|partial' && fail "after $moment: temporaries left"
    arcs=$(ls "$drive_c/q" | grep '^big\.bin\..*\.QUA$')
    if [ -e "$big" ] && [ "$(sum_of "$big")" = "$sum_big" ]; then
        [ -z "$arcs" ] || rm -f "$drive_c/q/$arcs"  # both forms: the archive was complete
        continue
    fi
    [ -n "$arcs" ] || { fail "killed at $moment: neither the source nor an archive"; continue; }
    quarantined "killed at $moment: archive restores" "$ok" 2 'c:\q' "c:\\q\\$arcs"
    expect_eq "killed at $moment: restored bytes" "$sum_big" "$(sum_of "$big")"
done
quarantine 0 'c:\q' 'C:\data\big.bin'
arc_big=$(reply_text | tr -d ';')
[ -e "$(unix_of "$arc_big")" ] || fail "big archive missing"
# A restore killed while it writes leaves "big.bin.restoring"; the next start removes it
# (the archive still holds the content) and the archive restores.
for moment in "$big.restoring" none; do
    kill_during 2 "$arc_big" "$moment"
    [ -e "$(unix_of "$arc_big")" ] || break
    [ ! -e "$big" ] || expect_eq "restore killed at $moment: restored copy" "$sum_big" "$(sum_of "$big")"
    [ ! -e "$big.restoring" ] || fail "restore killed at $moment: leftover kept"
done
[ "$(log_count 'Removing an interrupted restore: C:\data\big.bin.restoring')" -ge 1 ] || fail "no interrupted restore removed"
[ ! -e "$(unix_of "$arc_big")" ] || quarantined "restore after the kills" "$ok" 2 'c:\q' "$arc_big"
expect_eq "restored bytes, the archive gone" "$sum_big gone" "$(sum_of "$big") $([ -e "$(unix_of "$arc_big")" ] || echo gone)"
rm -f "$big"

# Killed at the test build's pause after the archive was written; then its temporary damaged,
# as it was, or damaged with its source gone. WHAT|SOURCE AFTER|TEMPORARY AFTER|LOG LINE
run reg add "$helper_key" /v ArchivePause /t REG_SZ /d p.txt /f
while IFS='|' read -r what source_after temp_after line; do
    printf 'paused %s' "$what" >"$drive_c/data/p.txt"
    call_bg sender /dev/null quarantine-files action=0 container='c:\q' path='C:\data\p.txt'
    poll 600 0.1 'compgen -G "$drive_c/q/p.txt.*.paused" >/dev/null' || fail "$what: the pause was not reached"
    runs "$what: killed" 0 '*' taskkill /F /IM NorvaleHalvernService.exe
    wait $sender
    rm -f "$drive_c"/q/p.txt.*.paused
    temp=$(compgen -G "$drive_c/q/p.txt.*.QUA.verifying")
    [ "$what" = whole ] || flip 150 255 "$temp"
    [ "$what" != lost ] || rm "$drive_c/data/p.txt"
    start_service
    expect_eq "$what: source, temporary, archive" "$source_after $temp_after $([ "$what" = whole ] && echo 1 || echo 0)" \
        "$([ -e "$drive_c/data/p.txt" ] && echo kept || echo gone) $([ -e "$temp" ] && echo kept || echo gone) $(compgen -G "$drive_c/q/p.txt.*.QUA" | wc -l)"
    [ "$(log_count "$line")" = 1 ] || { fail "$what: not logged once: $line"; tr -d '\r' <"$log" | grep -F 'p.txt'; }
    expect_eq "$what: record gone" "" "$(reg_value "$helper_key\\QuarantineInProgress" 'C:\data\p.txt')"
    [ "$what" != damaged ] ||
        expect_eq "damaged: the DACL from before" "D:P(A;;FA;;;BA)(A;;FR;;;BU)" "$(recorded file 'C:\data\p.txt' | cut -f 1)"
    rm -f "$temp" "$drive_c"/q/p.txt.*.QUA "$drive_c/data/p.txt"
done <<'EOF'
damaged|kept|gone|The source of an interrupted quarantine has its DACL back: C:\data\p.txt
whole|gone|gone|Deleted its source C:\data\p.txt
lost|gone|kept|its source C:\data\p.txt is gone
EOF
run reg delete "$helper_key" /v ArchivePause /f

# A stop while 1 GiB is being quarantined and, beside it, another quarantine waits at the
# pause: the work ends, its threads are joined and both clients are answered.
truncate -s 1G "$drive_c/data/huge.bin"
printf 'paused' >"$drive_c/data/p.txt"
run reg add "$helper_key" /v ArchivePause /t REG_SZ /d p.txt /f
call_bg sender "$work/huge.out" quarantine-files action=0 container='c:\q' path='C:\data\huge.bin'
answers "create C:\\Q2" "$ok" create-quarantine-container path='C:\Q2'
call_bg pauser "$work/paused.out" quarantine-files action=0 container='c:\q2' path='C:\data\p.txt'
poll 300 0.1 '[ "$(log_count "Archiving : C:\data\huge.bin")" = 1 ]' || fail "the 1 GiB quarantine did not start"
poll 600 0.1 'compgen -G "$drive_c/q2/p.txt.*.paused" >/dev/null' || fail "the paused quarantine did not start"
sleep 1
within 10 stop_service
wait $sender $pauser
# The paused one may finish what it had written once the pause gives way: nothing is lost
# either way, the source or its archive is there, never both, never neither.
expect_eq "stopped: no thread terminated, 1 GiB intact and not archived, its client told" \
    "0 1073741824 0 result=1 message=;" \
    "$(log_count 'of its stop, terminated') $(stat -c %s "$drive_c/data/huge.bin") $(ls "$drive_c/q" | grep -c '^huge') $(tr -d '\r' <"$work/huge.out")"
expect_eq "stopped: the paused source or its archive, its client told" "1 result=1" "$(($([ -e "$drive_c/data/p.txt" ] && echo 1 || echo 0) + $(
    ls "$drive_c/q2" | grep -c '^p\.txt.*QUA$'))) $(tr -d '\r' <"$work/paused.out" | cut -d ' ' -f 1)"
rm -f "$drive_c/data/huge.bin" "$drive_c/data/p.txt" "$drive_c"/q2/p.txt.*
run reg delete "$helper_key" /v ArchivePause /f
start_service

echo "== requests side by side"
# While a quarantine into c:\side waits at the test build's pause, the service goes on with other
# work: a listing and a restore from another container are answered. What touches c:\side waits
# for it, in the order it came: the removal of that container from another client, and, on one
# connection, a quarantine into it followed by a version request that touches nothing.
answers "create C:\\Side" "$ok" create-quarantine-container path='C:\Side'
printf 'restore me' >"$drive_c/data/r.txt"
quarantine 0 'c:\q' 'C:\data\r.txt'
arc_r=$(reply_text | tr -d ';')
printf 'held' >"$drive_c/data/h.txt" && printf 'next' >"$drive_c/data/n.txt"
run reg add "$helper_key" /v ArchivePause /t REG_SZ /d h.txt /f
call_bg held "$work/held.out" quarantine-files action=0 container='c:\side' path='C:\data\h.txt'
poll 600 0.1 'compgen -G "$drive_c/side/h.txt.*.paused" >/dev/null' || fail "side by side: the pause was not reached"
versions=$(log_count 'Received IPC message 100000A')
(wine "$helper" pipeline $svc "10000ca:$(encode quarantine-files action=0 container='c:\side' path='C:\data\n.txt')" \
    "100000a:" </dev/null >"$work/pipeline.out" 2>&1) & piped=$!
poll 300 0.05 '[ "$(log_count "Received IPC message 100000A")" -gt "$versions" ]' || fail "side by side: the pipeline did not arrive"
call_bg removing "$work/removed.out" remove-quarantine-container action=1 path='c:\side'
call get-quarantine-containers
[[ "$reply" == *$'\ncontainer=c:\\side\\'* ]] || fail "side by side: the list [$reply]"
quarantine 2 'c:\q' "$arc_r"
expect_eq "side by side: a restore from another container" "$ok restore me" "$reply $(cat "$drive_c/data/r.txt")"
still_waiting "side by side: what touches c:\\side" $held $removing
expect_eq "side by side: the pipeline not answered" 0 "$(wc -c <"$work/pipeline.out")"
rm -f "$drive_c"/side/h.txt.*.paused
wait $held $piped $removing
tr -d '\r' <"$work/held.out" | grep -q -E '^result=1 message=c:\\side\\h\.txt\.[0-9A-F]{16}\.QUA;$' ||
    fail "side by side: the held quarantine [$(cat "$work/held.out")]"
# Each line "ID SEQUENCE PAYLOAD": the quarantine's reply first (result 1), then the version's.
expect_eq "side by side: one connection's replies in order" "10000CA 1 01 100000A 2" \
    "$(tr -d '\r' <"$work/pipeline.out" | awk '{ printf "%s%s %s", (NR > 1 ? " " : ""), $1, $2; if (NR == 1) printf " %s", substr($3, 1, 2) }')"
expect_eq "side by side: the removal after both quarantines" "result=1 message= gone gone gone" \
    "$(tr -d '\r' <"$work/removed.out") $([ -e "$drive_c/side" ] || echo gone) $([ -e "$drive_c/data/h.txt" ] || echo gone) $([ -e "$drive_c/data/n.txt" ] || echo gone)"
run reg delete "$helper_key" /v ArchivePause /f
rm -f "$drive_c/data/r.txt"

# A source on another volume (D:): its archive's folder is flushed before the source goes.
printf 'other' >"$work/dvol/sub/o.txt"
quarantine 0 'c:\q' 'D:\sub\o.txt'
replied "other volume" 1 '^c:\\q\\o\.txt\.[0-9A-F]{16}\.QUA;$'
expect_eq "other volume: source gone, no flush failure" "gone 0" \
    "$([ -e "$work/dvol/sub/o.txt" ] || echo gone) $(log_count 'Failed to flush the container folder')"
answers "the long container, after the restarts" "$ok" remove-quarantine-container action=1 path="$long_container"

stop_service

echo "== the product executable reads neither test value"
cp "$NV_BIN_DIR/NorvaleHalvernService.exe" "$nv/"
printf 'bad' >"$drive_c/data/bad.txt"
run reg add "$helper_key" /v ArchiveVerifyFault /t REG_SZ /d BAD.txt /f
lines=$(wc -l <"$journal") recorders=$(log_count 'Object security is recorded to')
start_service
quarantine 0 'c:\q' 'C:\data\bad.txt'
replied "product: bad.txt archived" 1 '^c:\\q\\bad\.txt\.[0-9A-F]{16}\.QUA;$'
expect_eq "product: no recorder, nothing journalled" "$recorders $lines" \
    "$(log_count 'Object security is recorded to') $(wc -l <"$journal")"
stop_service
finish quarantine 300
