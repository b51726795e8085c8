#!/bin/bash
# Draws the status table and the live screen of a segment at work: dev/picture.sh build/i386 docs
# makes docs/table.svg and docs/top.svg. Messages go through two channels while they are taken; some
# wait in two others. Removes all that it made. Needs tmux.
set -euo pipefail
build=$(cd "$1" && pwd)
pictures=$(realpath "$2")
cd "$(dirname "$0")"
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-picture-XXXXXX")
key=$work/halvo.key
PATH=$build/bin:$PATH
export LC_ALL=C.UTF-8
terminal() { tmux -S "$work/tmux" -f /dev/null "$@"; }

clean_up() {
    local status=$? job
    trap - EXIT
    terminal kill-server 2>/dev/null || true
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    wait
    [ ! -e "$key" ] || halvo-qm remove --key "$key" >"$work/removed" || true
    rm -rf "$work"
    exit $status
}
trap clean_up EXIT

cp ../tools/qm/example.toml "$work/config.toml"
for name in KT01 LG01 SK01 한국통신 RPT1 RPT2 BILL; do
    printf '[[channel]]\nname = "%s"\nslots = 64\nslot_size = 1024\n' "$name"
done >>"$work/config.toml"
halvo-qm create "$work/config.toml" --key "$key" >/dev/null
stream() { while echo "message of $1"; do sleep 0.002; done 2>/dev/null; }
for channel in MT01 MO01 한국통신; do
    halvo-recv --key "$key" "$channel" --name gateway --output /dev/null 2>/dev/null &
    stream "$channel" | halvo-send --key "$key" "$channel" --name billing 2>/dev/null &
done
printf '%s\n' 'MT01 1 32' 'MO01 1 36' '  MT02 1 33' '  FQ01' >"$work/options"
seq 40 | halvo-send --key "$key" MT02 --name feeder 2>/dev/null
# A ring without room whose writer waits.
seq 100 | halvo-send --key "$key" RPT1 --name reports --timeout 60000 2>/dev/null &
sleep 1
halvo-mon table --key "$key" --options "$work/options" --sample 2 --utf8 --color always >"$work/table"
./terminal_svg.pl <"$work/table" >"$pictures/table.svg"
terminal new-session -d -x 132 -y 20 "cd '$work' && halvo-mon top --key halvo.key"
sleep 4
terminal capture-pane -p -e >"$work/top"
./terminal_svg.pl <"$work/top" >"$pictures/top.svg"
