#!/bin/bash
# Runs the tests of built presets and tells how many passed: tools/test.sh i386 x86_64
# Ends with status 1 when a test failed, or when one left a segment, a semaphore or a file.
set -uo pipefail
cd "$(dirname "$0")/.."

left_behind() {
    ipcs -m | awk '$1 ~ /^0x/ {print "segment " $1 " " $2}'
    ipcs -s | awk '$1 ~ /^0x/ {print "semaphores " $1 " " $2}'
    ls -d "${TMPDIR:-/tmp}"/halvo-* 2>/dev/null
}
before=$(left_behind)

status=0
summary=
for preset in "$@"; do
    run=
    # The thread sanitizer wants its memory where it is without randomised addresses.
    [ "$preset" = tsan ] && run="setarch $(uname -m) -R"
    if ! $run ctest --preset "$preset" --parallel "$(nproc)" | tee "build/$preset/tests.log"; then
        status=1
    fi
    summary+=$(awk -v preset="$preset" '/tests passed,/ {
        printf "%s: %d of %d tests passed", preset, $NF - $4, $NF }' "build/$preset/tests.log")$'\n'
done

left=
for _ in 1 2 3 4 5 6; do # whoever cleans up behind a killed test may need a moment
    left=$(comm -13 <(sort <<<"$before") <(left_behind | sort))
    [ -z "$left" ] && break
    sleep 0.5
done
if [ -n "$left" ]; then
    printf 'left behind by the tests:\n%s\n' "$left"
    status=1
fi
printf '%s' "$summary"
exit $status
