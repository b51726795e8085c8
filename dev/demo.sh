#!/bin/bash
# Passes a real text from one process to another through a channel, and compares what arrived.
#     demo.sh build/i386    with the programs of a build tree
#     demo.sh               with the installed ones
# Serves a page of what goes on while it runs; DEMO_SERVE=1 keeps that, with some messages, until Enter.
# Removes all that it made, also when something fails.
set -euo pipefail
build=${1:+$(cd "$1" && pwd)}
example=$(cd "$(dirname "$0")" && pwd)/example.toml # where it is installed
[ -e "$example" ] || example=$(cd "$(dirname "$0")/.." && pwd)/tools/qm/example.toml
work=$(mktemp -d "${TMPDIR:-/tmp}/halvo-demo-XXXXXX")
key=$work/halvo.key
if [ "$build" ]; then
    export PATH=$build/bin:$PATH
    jars=$build/java/halvoipc.jar:$build/java/halvoipc-examples.jar
    # The VM of the library's word size.
    java=$(sed -n 's/^HALVOIPC_JDK:PATH=//p' "$build/CMakeCache.txt")/bin/java
    library=-Dhalvoipc.library=$build/lib/libhalvoipc.so
else
    share=$(dirname "$(command -v halvo-qm)")/../share
    jars=$share/java/halvoipc.jar:$share/doc/libhalvoipc-java/examples/halvoipc-examples.jar
    java=${JAVA:-$(command -v java || true)}
    library=-Dhalvoipc.demo # the VM knows where the library is
fi

clean_up() {
    local status=$?
    trap - EXIT
    local job
    for job in $(jobs -p); do kill "$job" 2>/dev/null || true; done
    wait
    [ -e "$key" ] && { halvo-qm remove --key "$key" || true; }
    rm -rf "$work"
    [ $status = 0 ] || echo "demo: failed" >&2
    exit $status
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

say() { printf '\n== %s\n' "$*"; }
same() {
    cmp "$1" "$2"
    echo "what arrived is what was sent: $(wc -l <"$2") lines, $(wc -c <"$2") bytes"
}

# Licence texts and copyright notices, as every Debian machine has them.
find -L /usr/share/common-licenses /usr/share/doc -maxdepth 2 -type f \
    \( -path '*/common-licenses/*' -o -name copyright \) -print0 | sort -z | xargs -0 cat |
    LC_ALL=C awk 'length($0) < 1000 && NR <= 10000' >"$work/sent.txt"

say "a segment from example.toml"
halvo-qm create "$example" --key "$key"
halvo-qm list --key "$key"
halvo-mon --key "$key" serve --listen 127.0.0.1:0 >"$work/address" &
for _ in {1..100}; do
    [ ! -s "$work/address" ] || break
    sleep 0.1
done
page=$(sed 's/^serving //' "$work/address")
[ "$page" ] || exit 1
echo "look at it while it works: $page"

say "$(wc -l <"$work/sent.txt") lines through channel MT01, one message each"
halvo-recv --key "$key" MT01 --keep-newline --idle 3000 --count "$(wc -l <"$work/sent.txt")" \
    --output "$work/got.txt" &
halvo-send --key "$key" MT01 --keep-newline "$work/sent.txt"
wait $!
same "$work/sent.txt" "$work/got.txt"

say "the same in batches of 50 that become readable together"
halvo-recv --key "$key" MO01 --keep-newline --idle 3000 --count "$(wc -l <"$work/sent.txt")" \
    --output "$work/batches.txt" &
halvo-send --key "$key" MO01 --keep-newline --batch 50 "$work/sent.txt"
wait $!
same "$work/sent.txt" "$work/batches.txt"

if [ -e "${jars#*:}" ] && [ -x "$java" ]; then
    vm() { "$java" -cp "$jars" "$library" "$@" >/dev/null; }
    LC_ALL=C awk 'length($0) > 0' "$work/sent.txt" >"$work/lines.txt"
    lines=$(wc -l <"$work/lines.txt")

    say "$lines lines from a Java writer to a C reader"
    halvo-recv --key "$key" MT01 --count "$lines" --idle 20000 --output "$work/from-java.txt" &
    vm SendLines "$key" MT01 "$work/lines.txt"
    wait $!
    same "$work/lines.txt" "$work/from-java.txt"

    say "and from a C writer to a Java reader"
    vm ReceiveLines "$key" MO01 "$work/to-java.txt" "$lines" &
    halvo-send --key "$key" MO01 --timeout 20000 "$work/lines.txt"
    wait $!
    same "$work/lines.txt" "$work/to-java.txt"
fi

say "the text through a file queue, with a restart of both sides in the middle"
half=$(($(wc -l <"$work/sent.txt") / 2))
head -n "$half" "$work/sent.txt" | halvo-fq put "$work/mo" --keep-newline --batch 100
halvo-fq get "$work/mo" --keep-newline --max 1000 >"$work/from-queue.txt"
tail -n +$((half + 1)) "$work/sent.txt" | halvo-fq put "$work/mo" --keep-newline --batch 100
halvo-fq stat "$work/mo"
halvo-fq get "$work/mo" --keep-newline >>"$work/from-queue.txt"
halvo-fq verify "$work/mo"
same "$work/sent.txt" "$work/from-queue.txt"

say "the segment afterwards"
halvo-qm check --key "$key"
halvo-mon table --key "$key"

if [ "${DEMO_SERVE-}" = 1 ]; then
    say "$page stays, with some messages, until you press Enter"
    halvo-recv --key "$key" MT01 --quiet --output "$work/served.txt" &
    while sleep 0.05; do head -n $((RANDOM % 20)) "$work/sent.txt"; done 2>/dev/null |
        halvo-send --key "$key" MT01 --quiet &
    seq 12 | halvo-send --key "$key" MT02 --quiet
    read -r _ || true
fi
echo "demo: done"
