#!/usr/bin/env bash
# quarantine_tool: exit codes and messages for good and damaged archives, and that verify
# writes nothing and extract writes only where it is told.
#   quarantine_tool_test.sh wine|native TOOL
set -u
mode=$1
tool=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/nv-qtool.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failures=0

# Runs the tool with relative paths (Wine maps the working directory); output to files.
tool_run() {
  if [ "$mode" = wine ]; then
    WINEDEBUG=-all wine "$tool" "$@" </dev/null >out.txt 2>err.txt
  else
    "$tool" "$@" </dev/null >out.txt 2>err.txt
  fi
}

expect() {  # expect CODE TEXT-IN-OUTPUT -- ARGS...
  local want=$1 text=$2
  shift 3
  tool_run "$@"
  local rc=$?
  if [ "$rc" != "$want" ]; then
    echo "FAIL: quarantine_tool $*: exit $rc, expected $want"; cat out.txt err.txt; failures=$((failures + 1))
  elif [ -n "$text" ] && ! grep -qF -- "$text" out.txt err.txt; then
    echo "FAIL: quarantine_tool $*: no '$text' in output"; cat out.txt err.txt; failures=$((failures + 1))
  fi
}

# Patches COUNT bytes given as hex at OFFSET of FILE.
patch() { printf "$(echo "$3" | sed 's/../\\x&/g')" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }

head -c 700000 /dev/urandom >orig.bin  # stored blocks: a flipped plain byte is one content byte
cp orig.bin victim.bin

expect 1 "usage" -- bogus
expect 1 "usage" -- info
expect 0 "ok: good.QUA" -- --log tool.log create victim.bin good.QUA
grep -q "Archiving : done" tool.log || { echo "FAIL: no log line from create"; failures=$((failures + 1)); }
rm victim.bin

expect 0 "path: victim.bin" -- info good.QUA
grep -q "data_offset: 71" out.txt && grep -q "decrypt_length: 262148" out.txt || { echo "FAIL: info: $(cat out.txt)"; failures=$((failures + 1)); }

before=$(ls | sort)
expect 0 "ok: victim.bin" -- verify good.QUA
[ "$(ls | sort)" = "$before" ] || { echo "FAIL: verify wrote a file"; failures=$((failures + 1)); }

expect 0 "ok: victim.bin" -- extract good.QUA copy.bin
cmp -s orig.bin copy.bin || { echo "FAIL: extracted content differs"; failures=$((failures + 1)); }
[ ! -e victim.bin ] || { echo "FAIL: extract wrote the recorded path"; failures=$((failures + 1)); }

expect 2 "cannot open archive" -- verify missing.QUA

damaged() {  # damaged NAME CODE TEXT COMMAND...: copy good.QUA to NAME, run COMMAND on it, verify
  local name=$1 code=$2 text=$3
  shift 3
  cp good.QUA "$name"
  "$@" "$name"
  expect "$code" "$text" -- verify "$name"
}
zero_offset() { patch "$1" 0 00000000; }
cut_path() { truncate -s 65 "$1"; }
bad_magic() { patch "$1" 71 ffffffff; }
trailing() { printf 'x' >>"$1"; }
cut_frame() { truncate -s -5000 "$1"; }
bad_digest() { patch "$1" 30 ff; }
flip_plain() { local n; n=$(stat -c %s "$1"); patch "$1" $((n - 200000)) 00ff00ff; }
damaged zero.QUA 3 "detail: Failed to read the archive header" zero_offset
damaged cut.QUA 3 "damaged archive header" cut_path
damaged magic.QUA 4 "damaged content" bad_magic
damaged trailing.QUA 4 "detail: Decompress: Trailing data left in file after frame" trailing
damaged short.QUA 4 "damaged content" cut_frame
damaged digest.QUA 5 "does not match the recorded digest" bad_digest
damaged flip.QUA 5 "does not match the recorded digest" flip_plain
expect 0 "content_hash:" -- info digest.QUA
expect 5 "does not match" -- extract digest.QUA out.bin

[ ! -e victim.bin ] || { echo "FAIL: something restored the recorded path"; failures=$((failures + 1)); }

# A failed extract leaves the destination as it was and no partial file beside it.
printf 'kept' >kept.bin
expect 4 "damaged content" -- extract short.QUA kept.bin
[ "$(cat kept.bin)" = kept ] || { echo "FAIL: failed extract changed its destination"; failures=$((failures + 1)); }
ls | grep -q partial && { echo "FAIL: partial file left: $(ls | grep partial)"; failures=$((failures + 1)); }

# A destination that is the source itself is refused, and the file stays.
cp good.QUA self.QUA
expect 1 "is the archive itself" -- extract self.QUA ./self.QUA
cmp -s good.QUA self.QUA || { echo "FAIL: extract onto itself changed the archive"; failures=$((failures + 1)); }
expect 1 "is the source itself" -- create orig.bin orig.bin
[ "$(stat -c %s orig.bin)" = 700000 ] || { echo "FAIL: create onto itself changed the source"; failures=$((failures + 1)); }

# The recorded digest is the SHA-256 of the content, as an independent tool computes it.
: >empty.bin
yes 'quarantined line of text' | head -c 1048593 >text.bin
for f in empty.bin text.bin; do
  tool_run create "$f" "$f.QUA" && tool_run info "$f.QUA"
  got=$(sed -n 's/^content_hash: //p' out.txt | tr -d '\r')
  want=$(sha256sum "$f" | cut -d' ' -f1)
  [ "$got" = "$want" ] || { echo "FAIL: $f: recorded digest '$got', sha256sum $want"; failures=$((failures + 1)); }
done

# A source that another process rewrites and appends to while it is archived: archiving fails,
# or the archive verifies and extracts to the bytes it recorded.
head -c 8000000 /dev/urandom >moving.bin
( for i in $(seq 1 40); do
    head -c 300000 /dev/urandom | dd of=moving.bin bs=300000 seek=$((i % 20)) conv=notrunc status=none
    head -c 100000 /dev/urandom >>moving.bin
  done ) &
writer=$!
for i in 1 2; do
  rm -f moving.QUA
  if tool_run create moving.bin moving.QUA; then
    expect 0 "ok: moving.bin" -- extract moving.QUA moved.bin
    tool_run info moving.QUA
    [ "$(sed -n 's/^content_hash: //p' out.txt | tr -d '\r')" = "$(sha256sum moved.bin | cut -d' ' -f1)" ] ||
      { echo "FAIL: extracted bytes differ from the recorded digest"; failures=$((failures + 1)); }
  else
    [ ! -e moving.QUA ] || { echo "FAIL: failed create left an archive"; failures=$((failures + 1)); }
  fi
done
wait "$writer"

if [ "$failures" -ne 0 ]; then echo "$failures failure(s)"; exit 1; fi
echo "all quarantine_tool checks passed"
