#!/bin/bash
# Compares what a built library exports with the list: dev/check_exports.sh LIBRARY [no-java]
# Every name of halvo.map must be exported with the version node that the map gives it, and nothing
# else; without the Java binding its names are not there.
set -euo pipefail
cd "$(dirname "$0")/.."
listed=$(awk '/^[A-Z0-9_.]+ \{/ {node = $1}
    /^ *[A-Za-z_][A-Za-z0-9_]*;/ {sub(/;.*/, "", $1); print $1 "@@" node}' halvo.map)
[ "${2-}" = no-java ] && listed=$(grep -vE '^(Java_|IID_)' <<<"$listed")
# V, W, u: vague linkage of the C++ runtime; a version node itself is an absolute symbol.
exported=$(nm -D --defined-only "$1" | awk '$2 !~ /[VWuA]/ {print $3}')
diff <(sort -u <<<"$listed") <(sort -u <<<"$exported") ||
    { echo "halvo.map (<) and $1 (>) differ"; exit 1; }
echo "$(wc -l <<<"$exported") names exported, all of them listed"
