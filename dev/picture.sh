#!/bin/bash
# Draws the status table of a segment at work: dev/picture.sh build/i386 docs/table.svg
# Messages go through two channels while the table is taken; some wait in a third. Removes all that it
# made.
set -euo pipefail
build=$(cd "$1" && pwd)
picture=$(realpath "$2")
cd "$(dirname "$0")"
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-picture-XXXXXX")
key=$work/halvo.key
PATH=$build/bin:$PATH

clean_up() {
    local status=$? job
    trap - EXIT
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    wait
    [ ! -e "$key" ] || halvo-qm remove --key "$key" >"$work/removed" || true
    rm -rf "$work"
    exit $status
}
trap clean_up EXIT

halvo-qm create example.toml --key "$key" >/dev/null
stream() { while echo "message of $1"; do sleep 0.002; done 2>/dev/null; }
for channel in MT01 MO01; do
    halvo-recv --key "$key" $channel --output /dev/null 2>/dev/null &
    stream $channel | halvo-send --key "$key" $channel 2>/dev/null &
done
printf '%s\n' 'MT01 1 32' 'MO01 1 36' '  MT02 1 33' '  FQ01' >"$work/options"
seq 40 | halvo-send --key "$key" MT02 2>/dev/null
sleep 2
halvo-mon table --key "$key" --options "$work/options" --sample 2 --utf8 --color always >"$work/table"
./terminal_svg.pl <"$work/table" >"$picture"
