#!/bin/bash
# Formats every manual page without a warning, and compares the pages with what they are about: the
# options of the programs and the exported functions. The programs' --help and wrong usage too.
#     man_test.sh BUILD-TREE SOURCE-TREE
set -euo pipefail
build=$1 source=$2
pages=("$build"/man/*.gz)
status=0
complain() { echo "$*"; status=1; }

for page in "${pages[@]}"; do
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 \
        man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
    [ -z "$warnings" ] || complain "$page: $warnings"
    # What a page names beside itself must be there.
    for other in $(zcat "$page" | grep -oE 'halvo(-[a-z]+)?\([0-9]\)' | tr -d '\\' | sort -u); do
        [ -e "$build/man/$(sed 's/(\(.\))/.\1/' <<<"$other").gz" ] ||
            complain "$page: no page $other"
    done
done

text() { zcat "$build/man/$1.gz" | sed 's/\\-/-/g; s/\\f\[[A-Z]*\]//g'; }
for page in "$build"/man/*.1.gz; do
    name=$(basename "$page" .1.gz)
    program=$build/bin/$name
    page=$(text "$name.1")
    commands=$("$program" --help | awk '/^[A-Z]/ {inside = /^Subcommands/} inside && /^  [^ ]/ {print $1}')
    help=$(for command in '' $commands; do "$program" $command --help; done)
    options=$(grep -oE '^  (-[a-z],)?--[a-z0-9-]+' <<<"$help" | grep -oE -- '--[a-z0-9-]+')
    for option in $options; do
        grep -qF -- "$option" <<<"$page" || complain "$name.1: nothing of $option"
    done
    for option in $(grep -oE -- '--[a-z0-9-]+' <<<"$page" | sort -u); do
        grep -qF -- "$option" <<<"$help" || complain "$name.1: $name has no $option"
    done
    [[ "$("$program" --version)" == "$name "[0-9]* ]] || complain "$name has no version"
    grep -qi 'exit status' <<<"$help" && grep -q "^ *\(Example: \)\?$name " <<<"$help" ||
        complain "$name --help has no exit status or no example"
    usage=0
    "$program" --no-such-option >/dev/null 2>&1 || usage=$?
    [ $usage = 2 ] || complain "$name ends with $usage after wrong usage"
done

functions=$(text halvo-frx.3; text halvo-queue.3; text halvo-fq.3; text halvo-status.3)
for name in $(sed -n 's/^ *\([a-z][A-Za-z0-9_]*\);.*/\1/p' "$source/halvo.map"); do
    grep -qw -- "$name" <<<"$functions" || echo "$name"
done | grep -vE '^(cell|prt_itvl|start_tvsec|titleToggle|forecolors|q_last|qprtopts|qopt)' &&
    complain "no page of section 3 has the names above"
[ $status = 0 ] && echo "${#pages[@]} pages"
exit $status
