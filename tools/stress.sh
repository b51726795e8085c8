#!/bin/bash
# Runs the long form of all stress tests of a built preset and tells every figure that they measure:
#     tools/stress.sh i386 [NAME ...]     NAME: programs of bin/stress; all when none is given
# One line per figure: what, what is asked for, what was measured. Whole outputs go to
# build/PRESET/stress. Ends with status 1 when a test failed. HALVO_SEED repeats a random run.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
preset=$1
shift
build=build/$preset
logs=$build/stress
mkdir -p "$logs"
export HALVO_STRESS=long

programs=("$build"/bin/stress/*)
[ $# -gt 0 ] && programs=("${@/#/$build/bin/stress/}")

show() { # the figures in a log
    awk -F ' [|] ' '/^figure [|]/ { printf "  %-72s asked for: %-18s measured: %s\n", $2, $3, $4; fflush() }
        /^HALVO_SEED=/ { print "  " $0 }' "$1"
}

status=0
run() { # name, command: one test, with its log
    local name=$1 began=$SECONDS
    shift
    local log=$logs/$name.log
    "$@" >"$log" 2>&1
    local result=$?
    if [ $result = 0 ]; then
        printf '%s: passed in %d s\n' "$name" $((SECONDS - began))
    else
        printf '%s: FAILED (%d), see %s\n' "$name" $result "$log"
        status=1
    fi
    show "$log"
}

for program in "${programs[@]}"; do
    # Each test has a process of its own, because a process attaches once.
    while read -r test; do
        run "$(basename "$program").$test" "$program" --gtest_filter="$test"
    done < <("$program" --gtest_list_tests | awk '/^[^ ].*\.$/ { suite = $1 } /^ / { print suite $1 }')
done

if [ $# = 0 ]; then
    run machine_code tools/check_order.sh "$build/lib/libhalvoipc.so"
    sed 's/^/  /' "$logs/machine_code.log"
fi
exit $status
