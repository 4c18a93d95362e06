#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the plain build
# (unit, ABI, integration and end-to-end tests), then the unit tests again
# under AddressSanitizer and ThreadSanitizer, and a short run of the fuzz
# targets.  Network tests need root; they skip without it.
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh || exit 1

passed=0 failed=0 status=0
run_ctest() {
  local dir=$1; shift
  local log=$dir/ctest.log
  ctest --test-dir "$dir" --output-on-failure "$@" 2>&1 | tee "$log"
  local rc=${PIPESTATUS[0]}
  local line
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of' "$log" | tail -1)
  if [ -n "$line" ]; then
    local total fail
    fail=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* ([0-9]+) tests failed out of ([0-9]+).*/\2/' <<<"$line")
    passed=$((passed + total - fail)) failed=$((failed + fail))
  fi
  [ "$rc" -eq 0 ] || status=1
}

echo "== plain build: all tests"
scripts/build.sh build || exit 1
run_ctest build

for san in address thread; do
  echo "== $san sanitizer: unit tests"
  scripts/build.sh "build-$san" "$san" || exit 1
  run_ctest "build-$san" -L unit
done

# Received frames, netlink answers and the configuration under libFuzzer.
secs=${OSTREL_FUZZ_SECONDS:-15}
echo "== fuzz targets: $secs s each"
mkdir -p build-fuzz
scripts/fuzz.sh "$secs" 2>&1 | tee build-fuzz/run.log
[ "${PIPESTATUS[0]}" -eq 0 ] || status=1
line=$(grep -E '^fuzz: [0-9]+ passed, [0-9]+ failed$' build-fuzz/run.log | tail -1)
if [ -n "$line" ]; then
  read -r fp ff < <(sed -E 's/fuzz: ([0-9]+) passed, ([0-9]+) failed/\1 \2/' <<<"$line")
  passed=$((passed + fp)) failed=$((failed + ff))
else
  failed=$((failed + 1))
fi

echo "ostrel: $passed passed, $failed failed"
exit "$status"
