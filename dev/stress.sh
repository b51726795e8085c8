#!/bin/bash
# Runs the long form of all stress tests of a built preset, looks at the machine code of the ring
# operations and feeds hostile input, and tells every figure that they measure:
#     dev/stress.sh i386 [NAME ...]     NAME: a program of bin/stress, or one of its suites or
#                                         tests (step_kill_test.TwoDeaths), "machine_code", "fuzz";
#                                         all when none is given
# Each test is named when it begins; its figures follow when it has ended. At the end all figures
# stand in one table: what, what is asked for, what was measured, and PASS or FAIL where something
# is asked for. Whole outputs and the table (summary.txt) go to build/PRESET/stress.
# Ends with status 1 when a test failed, or took half an hour, or a figure is not what is asked for.
# HALVO_SEED repeats a random run; FUZZ_SECONDS (120) is the time for each kind of hostile input.
set -uo pipefail
cd "$(dirname "$0")/.." || exit
preset=$1
shift
build=build/$preset
logs=$build/stress
export HALVO_STRESS=long
mkdir -p "$logs"
rm -f "$logs"/summary.*

if [ $# = 0 ]; then
    mapfile -t all < <(ls "$build/bin/stress")
    set -- "${all[@]}" machine_code fuzz
fi

# What is to be run: "name command...", one a line. Each test has a process of its own, because a
# process attaches once.
tests_of() {
    local program=$build/bin/stress/${1%%.*} test
    case $1 in
    machine_code) echo "machine_code dev/check_order.sh $build/lib/libhalvoipc.so" ;;
    fuzz) for test in segment file_queue options config; do echo "fuzz.$test dev/fuzz.sh $test"; done ;;
    *)
        "$program" --gtest_list_tests |
            awk -v p="$program" -v name="${1%%.*}" -v wanted="$1" '/^[^ ].*\.$/ { suite = $1 }
                /^ / && index(name "." suite $1 ".", wanted ".") == 1 {
                    print name "." suite $1, p, "--gtest_filter=" suite $1 }'
        ;;
    esac
}
plan=()
for name in "$@"; do
    planned=${#plan[@]}
    mapfile -t -O "$planned" plan < <(tests_of "$name")
    [ ${#plan[@]} -gt "$planned" ] || { echo "$build has no stress test $name: build it first"; exit 1; }
done

# The figures in a log, judged: "PASS|FAIL|- | what | asked for | measured". Asked for can be: "-"
# nothing; "at least N", "at most N", "below N"; anything else is the very text to be measured.
judged() {
    awk -F ' [|] ' 'function judge(asked, measured, words, n) {
            if (asked == "-") return "-"
            if (asked ~ /^(at least|at most|below) / && measured !~ /^[0-9.]+$/) return "FAIL"
            n = split(asked, words, " ")
            if (n == 3 && asked ~ /^at least /) return measured + 0 >= words[3] + 0 ? "PASS" : "FAIL"
            if (n == 3 && asked ~ /^at most /) return measured + 0 <= words[3] + 0 ? "PASS" : "FAIL"
            if (n == 2 && asked ~ /^below /) return measured + 0 < words[2] + 0 ? "PASS" : "FAIL"
            return measured "" == asked "" ? "PASS" : "FAIL"
        }
        /^figure [|]/ { print judge($3, $4) " | " $2 " | " $3 " | " $4 }' "$1"
}
table() {
    awk -F ' [|] ' '{ printf "  %-4s  %-88s asked for: %-16s measured: %s\n", $1, $2, $3, $4 }'
}

status=0
failed=()
summary=$logs/summary.txt
: >"$summary.raw"
for i in "${!plan[@]}"; do
    read -r name command <<<"${plan[i]}"
    log=$logs/$name.log
    printf '[%d of %d] %s ... ' $((i + 1)) ${#plan[@]} "$name"
    began=$SECONDS
    timeout 30m $command >"$log" 2>&1
    result=$?
    figures=$(judged "$log")
    if [ $result = 0 ] && ! grep -q '^FAIL' <<<"$figures"; then
        printf 'passed in %d s\n' $((SECONDS - began))
    else
        printf 'FAILED (%d), see %s\n' $result "$log"
        failed+=("$name")
        status=1
    fi
    sed -n 's/^HALVO_SEED=/        HALVO_SEED=/p' "$log"
    [ -n "$figures" ] && table <<<"$figures" && echo "$figures" >>"$summary.raw"
done

{
    table <"$summary.raw"
    printf '%d figures, of them as asked for: %d, not: %d; %d tests, failed: %d\n' \
        "$(wc -l <"$summary.raw")" "$(grep -c '^PASS' "$summary.raw")" \
        "$(grep -c '^FAIL' "$summary.raw")" ${#plan[@]} ${#failed[@]}
    [ ${#failed[@]} = 0 ] || printf 'FAILED: %s\n' "${failed[@]}"
} >"$summary"
rm -f "$summary.raw"
printf '\nAll figures\n'
cat "$summary"
exit $status
