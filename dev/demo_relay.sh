#!/bin/bash
# Passes 100,000 messages from a channel of one segment through a broker into a channel of another,
# while the broker is restarted, and compares what arrived.
#     demo_relay.sh build/i386 build/x86_64    the two "machines": build trees of any word size
# The broker is one of its own, on loopback in a scratch directory. Removes all that it made, also when
# something fails.
set -euo pipefail
here=$(cd "$1" && pwd)/bin there=$(cd "$2" && pwd)/bin
broker=$(cd "$(dirname "$0")" && pwd)/broker.sh
count=100000
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-demo-XXXXXX")

clean_up() {
    local status=$? job machine
    trap - EXIT
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    wait
    for machine in here there; do
        [ ! -e "$work/$machine/key" ] || "$here/halvo-qm" remove --key "$work/$machine/key" || true
    done
    "$broker" remove "$work/broker"
    rm -rf "$work"
    [ $status = 0 ] || echo "demo: failed" >&2
    exit $status
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
say() { printf '\n== %s\n' "$*"; }

say "a broker on loopback"
port=$("$broker" start "$work/broker")
echo "amqp://127.0.0.1:$port, process $("$broker" pid "$work/broker")"
printf 'user = guest\npassword = guest\n' >"$work/credentials"
chmod 600 "$work/credentials"

# machine NAME BINARIES FROM TO
machine() {
    mkdir "$work/$1"
    printf '[[channel]]\nname = "MT01"\nslots = 1024\nslot_size = 256\n' >"$work/$1/segment.toml"
    "$2/halvo-qm" create "$work/$1/segment.toml" --key "$work/$1/key"
    cat >"$work/$1/relay.toml" <<END
[relay]
key = "$work/$1/key"
state = "$work/$1"
[broker]
url = "amqp://127.0.0.1:$port"
credentials = "$work/credentials"
[[route]]
name = "mt01"
from = "$3"
to = "$4"
dead_letter_queue = "mt01.dead"
END
}
say "two segments, and what the relays need"
machine here "$here" channel:MT01 amqp:mt01
machine there "$there" amqp:mt01 channel:MT01
"$here/halvo-relay" check --declare "$work/here/relay.toml"
"$there/halvo-relay" check "$work/there/relay.toml"

say "$count messages, the relays at work, and a restart of the broker"
awk -v n=$count 'BEGIN { for (i = 1; i <= n; i++)
    printf "%07d %s\n", i, substr("the quick brown fox jumps over the lazy dog, again and again", i % 40) }' \
    >"$work/sent.txt"
"$there/halvo-relay" run "$work/there/relay.toml" 2>"$work/there.log" &
relays=$!
"$here/halvo-relay" run "$work/here/relay.toml" 2>"$work/here.log" &
relays="$relays $!"
"$there/halvo-recv" --quiet --key "$work/there/key" MT01 --count $count --idle 60000 \
    --output "$work/got.txt" &
receiver=$!
"$here/halvo-send" --quiet --key "$work/here/key" MT01 --timeout 60000 "$work/sent.txt" &
until [ "$(wc -l 2>/dev/null <"$work/got.txt" || echo 0)" -gt $((count / 4)) ]; do sleep 0.05; done
echo "after $(wc -l <"$work/got.txt") messages: restarting"
"$broker" stop "$work/broker"
"$broker" start "$work/broker" >/dev/null
wait $receiver || { cat "$work/here.log" "$work/there.log"; exit 1; }

say "the relays"
"$here/halvo-relay" status "$work/here/relay.toml"
"$there/halvo-relay" status "$work/there/relay.toml"
# shellcheck disable=SC2086 # two of them
kill $relays
grep -h -e connected -e connection-lost "$work/here.log" "$work/there.log" | sort

say "compared"
cmp "$work/sent.txt" "$work/got.txt"
echo "$count messages sent, the same $count received, in order"
echo "demo: done"
