#!/bin/bash
# Runs the tests of built presets and tells how many passed: dev/test.sh i386 x86_64
# Ends with status 1 when a test failed, or when one left its directory behind. Segments and
# semaphores that appeared meanwhile are named; another program's may be among them.
set -uo pipefail
cd "$(dirname "$0")/.."

directories() { ls -d "${TMPDIR:-/tmp}"/halvo-test-* 2>/dev/null; }
objects() { ipcs -m -s | awk '$1 ~ /^0x/ {print "System V object " $1 " " $2}'; }
new_of() { comm -13 <(sort <<<"$1") <("$2" | sort); }
directories_before=$(directories)
objects_before=$(objects)

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

for _ in 1 2 3 4 5 6; do # whoever cleans up behind a killed test may need a moment
    left=$(new_of "$directories_before" directories)
    [ -z "$left" ] && break
    sleep 0.5
done
if [ -n "$left" ]; then
    printf 'left behind by the tests:\n%s\n' "$left"
    status=1
fi
new_of "$objects_before" objects
printf '%s' "$summary"
exit $status
