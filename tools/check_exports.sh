#!/bin/bash
# Compares what a built library exports with the list: tools/check_exports.sh LIBRARY [no-java]
# Every name of halvo.map must be exported and nothing else; without the Java binding its names are
# not there.
set -euo pipefail
cd "$(dirname "$0")/.."
listed=$(sed -n 's/^ *\([A-Za-z_][A-Za-z0-9_]*\);.*/\1/p' halvo.map)
[ "${2-}" = no-java ] && listed=$(grep -vE '^(Java_|IID_)' <<<"$listed")
# V, W, u: vague linkage of the C++ runtime; the version node itself is an absolute symbol.
exported=$(nm -D --defined-only "$1" | awk '$2 !~ /[VWuA]/ {sub(/@.*/, "", $3); print $3}')
diff <(sort -u <<<"$listed") <(sort -u <<<"$exported") ||
    { echo "halvo.map (<) and $1 (>) differ"; exit 1; }
echo "$(wc -l <<<"$exported") names exported, all of them listed"
