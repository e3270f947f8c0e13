#!/usr/bin/env bash
# Archives and restores 1 MiB, 64 MiB and 1 GiB files, compressible and random, with the
# Windows archive_bench.exe under Wine, and times in the same run, on the same files:
#   - the SHA-256 digest alone (archive_bench.exe digest), the bound of both operations;
#   - Debian's `lz4 -1` plus `sha256sum`, natively, as the baseline;
#   - with BEFORE_BIN_DIR, the same archive and restore with another build (figures prefixed
#     "before_"), so that two versions are compared under the same load.
# Prints "name: value unit" lines.
#
#   bench/archive_bench.sh [BIN_DIR] [WORK_DIR] [BEFORE_BIN_DIR]
# BIN_DIR defaults to build/mingw-x64/bin; WORK_DIR (about 3 GiB free) to a temporary directory.
# SIZES (default "1M 64M 1G") picks the file sizes, REPEAT (default 3) the rounds of each timing.
#   bench/archive_bench.sh --smoke BIN_DIR
# 1 MiB files only, in a temporary directory removed afterwards, leaving the wineserver of the
# test run's prefix (or the native build's archive_bench in BIN_DIR) alone.
set -eu
smoke=0
if [ "${1:-}" = --smoke ]; then
  smoke=1 SIZES=1M REPEAT=1
  shift
fi
here=$(cd "$(dirname "$0")/.." && pwd)
bin=$(cd "${1:-$here/build/mingw-x64/bin}" && pwd)
work=${2:-$(mktemp -d "${TMPDIR:-/tmp}/nv-archive-bench.XXXXXX")}
before_bin=${3:+$(cd "$3" && pwd)}
if [ "$smoke" = 1 ]; then
  trap 'rm -rf "$work"' EXIT
else
  trap 'wineserver -k 2>/dev/null || true' EXIT
fi
mkdir -p "$work"
cd "$work"
export WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=
export WINEPREFIX=${WINEPREFIX:-$here/build/mingw-x64/wine/prefix}

now() { date +%s.%N; }
rate() { awk -v b="$1" -v t="$2" 'BEGIN { printf "%.1f", b / 1e6 / t }'; }
ratio() { awk -v a="$2" -v b="$3" -v n="$1" 'BEGIN { if (a > 0 && b > 0) printf "%s: %.3g ratio\n", n, a / b }'; }  # 3 digits: a slow side never shows 0

make_file() {  # make_file NAME BYTES KIND
  case $3 in
    random) head -c "$2" /dev/urandom >"$1" ;;
    text) seq 1 1000000000 | head -c "$2" >"$1" ;;
  esac
}

# run BIN_DIR PREFIX ARGS...: one operation of that build's archive_bench; leaves its lines, with
# PREFIX in front, in $lines and its MB/s figure in $speed. A failed operation makes the exit
# status 1.
status=0
run() {
  local dir=$1 prefix=$2
  shift 2
  local runner=(wine "$dir/archive_bench.exe")
  [ -x "$dir/archive_bench" ] && [ ! -e "$dir/archive_bench.exe" ] && runner=("$dir/archive_bench")
  # Wine's helper processes inherit the output and outlive the program: go through a file.
  "${runner[@]}" "$@" </dev/null >out.txt 2>&1 || { echo "archive_bench $1 $2 exited with $?"; status=1; }
  lines=$(tr -d '\r' <out.txt | sed "s/^/$prefix/")
  speed=$(tr -d '\r' <out.txt | awk -F': ' '/ MB\/s$/ { print $2 + 0 }')
}

median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# restore BIN_DIR PREFIX LABEL FILE: restores FILE from FILE.QUA with run. The file is moved
# aside first and removed afterwards: the service restores a file that the quarantine removed
# and never replaces one, so the time the system takes to drop a replaced file's cached pages
# (0.2 to 0.7 s for 1 GiB here) is no part of a restore.
restore() {
  mv "$4" "$4.kept"
  run "$1" "$2" restore "$3" "$4.QUA" "$4"
  if [ -e "$4" ]; then rm -f "$4.kept"; else mv "$4.kept" "$4"; fi
}

archive() {  # archive BIN_DIR PREFIX LABEL FILE: archives FILE into FILE.QUA with run
  rm -f "$4.QUA"
  run "$1" "$2" archive "$3" "$4" "$4.QUA"
}

# against_digest OP BIN_DIR PREFIX LABEL FILE: REPEAT rounds of a digest and then OP (archive or
# restore); prints the last round's lines with OP's speed as the median of the rounds, and
# PREFIXOP_vs_digest_LABEL, the median OP speed over the median digest speed; leaves the last
# digest's lines in $digest_lines. The load of a shared machine drifts over the minute a 1 GiB
# file takes, and one digest and one operation compared alone moved the ratio by 0.2 from one
# run to the next.
against_digest() {
  local op=$1 dir=$2 prefix=$3 label=$4 file=$5 digests=() speeds=() r
  for r in $(seq 1 "${REPEAT:-3}"); do
    run "$bin" "" digest "$label" "$file"
    digests+=("$speed")
    digest_lines=$lines
    "$op" "$dir" "$prefix" "$label" "$file"
    speeds+=("$speed")
  done
  speed=$(median "${speeds[@]}")
  digest=$(median "${digests[@]}")
  printf '%s\n' "$lines" | sed "s|^\(${prefix}${op}_$label\): .* MB/s\$|\1: $speed MB/s|"
  ratio "${prefix}${op}_vs_digest_$label" "$speed" "$digest"
}

for size in ${SIZES:-1M 64M 1G}; do
  case $size in
    1M) bytes=1048576 ;;
    64M) bytes=67108864 ;;
    1G) bytes=1073741824 ;;
    *) echo "unknown size $size" >&2; exit 1 ;;
  esac
  for kind in text random; do
    label=${kind}_$size
    file=$label.bin
    make_file "$file" "$bytes" "$kind"
    cat "$file" >/dev/null  # every side reads from the page cache

    t0=$(now); lz4 -1 -q -f "$file" "$file.lz4"; sha256sum "$file" >/dev/null; t1=$(now)
    base_s=$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')
    base=$(rate "$bytes" "$base_s")
    echo "baseline_lz4_sha256_$label: $base MB/s"
    rm -f "$file.lz4"

    if [ -n "$before_bin" ]; then
      against_digest archive "$before_bin" before_ "$label" "$file"
      against_digest restore "$before_bin" before_ "$label" "$file"
    fi
    against_digest archive "$bin" "" "$label" "$file"
    ratio "archive_vs_baseline_$label" "$speed" "$base"
    echo "archive_size_$label: $(stat -c %s "$file.QUA") bytes"
    printf '%s\n' "$digest_lines"
    against_digest restore "$bin" "" "$label" "$file"
    rm -f "$file" "$file.QUA"
  done
done
exit $status
