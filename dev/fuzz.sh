#!/bin/bash
# Feeds hostile input to the library and the queue manager's configuration: builds the fuzzers of
# tests/fuzz with clang and runs each for FUZZ_SECONDS (120), or those that are named.
#
#     dev/fuzz.sh [TARGET...]        segment file_queue options config
#
# Prints two figures for each target: runs and edges covered, and findings. A finding is kept, with the
# fuzzer's report, in build/fuzz/findings; status 1 when there is one. Put the input into
# tests/fuzz/corpus/TARGET, which the tests replay. What the fuzzers learn stays in build/fuzz.
set -uo pipefail
cd "$(dirname "$0")/.."
tree=build/fuzz
seconds=${FUZZ_SECONDS:-120}
[ $# -gt 0 ] || set -- segment file_queue options config

mkdir -p $tree
if ! {
    cmake -S . -B $tree -G Ninja -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" \
        -DHALVOIPC_WIDTH=64 -DHALVOIPC_JAVA=OFF \
        -DHALVOIPC_SANITIZE=fuzzer-no-link,address,undefined &&
        cmake --build $tree --target fuzzers --parallel "$(nproc)"
} >$tree/build.log 2>&1; then
    tail -n 30 $tree/build.log
    exit 1
fi

status=0
for target in "$@"; do
    learnt=$tree/corpus/$target
    found=$tree/findings/$target-
    report=$tree/findings/$target.log
    mkdir -p "$learnt" "$tree/findings"
    before=$(find $tree/findings -name "$target-*" | wc -l)
    $tree/bin/"fuzz_$target" -max_total_time="$seconds" -max_len=1024 -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$found" \
        "$learnt" "tests/fuzz/corpus/$target" >"$report" 2>&1
    ended=$?
    findings=$(($(find $tree/findings -name "$target-*" | wc -l) - before))
    [ $ended -eq 0 ] || [ $findings -gt 0 ] || findings=1 # it died without an input to show
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$report")
    edges=$(sed -n 's/.* cov: \([0-9]*\) .*/\1/p' "$report" | tail -n 1)
    echo "figure | hostile input, $target: runs / edges covered | - | ${runs:-0} / ${edges:-0}"
    echo "figure | hostile input, $target: findings | 0 | $findings"
    [ "$findings" -eq 0 ] || status=1
done
exit $status
