#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the libFuzzer targets of tests/fuzz with clang
# into build-fuzz and runs each for SECONDS (default 15), starting from the
# inputs tests/fuzz/seeds.py writes and the corpus kept in build-fuzz/corpus.
# An input that breaks a target is kept in build-fuzz/crashes; reproduce it
# with build-fuzz/fuzz/fuzz_TARGET FILE.  Exits non-zero when a target
# failed.
set -uo pipefail
cd "$(dirname "$0")/.."
secs=${1:-15}
dir=build-fuzz
targets=(frame netlink config)

CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	-DOSTREL_FUZZ=ON -DOSTREL_WERROR=OFF >/dev/null || exit 1
cmake --build "$dir" -j "$(nproc)" --target "${targets[@]/#/fuzz_}" 2>&1 |
	grep -E 'error|Error' || true
test "${PIPESTATUS[0]}" -eq 0 || { echo "fuzz: build failed" >&2; exit 1; }
/usr/bin/python3 tests/fuzz/seeds.py "$dir/seeds" || exit 1

passed=0 failed=0
for t in "${targets[@]}"; do
	mkdir -p "$dir/corpus/$t" "$dir/crashes"
	log=$dir/$t.log
	# Frames up to twice the receive stash, so that longer ones are met.
	"$dir/fuzz/fuzz_$t" -max_total_time="$secs" -max_len=4200 -timeout=10 \
		-print_final_stats=1 -artifact_prefix="$dir/crashes/$t-" \
		"$dir/corpus/$t" "$dir/seeds/$t" >"$log" 2>&1
	rc=$?
	runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
	cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
	if [ "$rc" -eq 0 ]; then
		passed=$((passed + 1))
		echo "fuzz_$t: ok, ${runs:-?} runs, $cov"
	else
		failed=$((failed + 1))
		echo "fuzz_$t: FAILED (exit $rc), input in $dir/crashes/"
		grep -E 'ERROR|runtime error|property broken|SUMMARY' "$log" | head -5
	fi
done
echo "fuzz: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
