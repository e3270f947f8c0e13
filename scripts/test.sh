#!/usr/bin/env bash
# Sets up the machine, builds every preset and runs every test: natively (sanitizers, fuzzing)
# and the Windows binaries under Wine. Exits non-zero when anything fails.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

bash scripts/setup.sh || exit 1

# mingw-x86 and clang-mingw-x64 (a second compiler over the Windows code) are built, not run:
# their build presets name only the product's programs and libraries.
for preset in mingw-x64 mingw-x86 clang-mingw-x64 native; do
  echo "== build $preset"
  cmake --preset "$preset" >"build-$preset.configure.log" 2>&1 || { cat "build-$preset.configure.log"; exit 1; }
  rm -f "build-$preset.configure.log"
  cmake --build --preset "$preset" -j 2 || exit 1
done

passed=0
failed=0
status=0
for preset in native mingw-x64; do
  echo "== test $preset"
  log=$(mktemp)
  ctest --preset "$preset" 2>&1 | tee "$log"
  [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
  summary=$(grep -E '[0-9]+% tests passed, [0-9]+ tests failed out of [0-9]+' "$log" | tail -n 1)
  if [ -z "$summary" ]; then
    status=1
  else
    f=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    t=$(sed -E 's/.* tests failed out of ([0-9]+).*/\1/' <<<"$summary")
    passed=$((passed + t - f))
    failed=$((failed + f))
  fi
  rm -f "$log"
done

echo "total: $passed passed, $failed failed"
[ "$failed" -eq 0 ] || status=1
exit $status
