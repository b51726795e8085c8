#!/bin/bash
# Builds the benchmark, runs it, and draws its ratios: bench/run.sh [options of halvo-bench]
#     QUICK=1   shorter measurements, within a minute; otherwise five
#     PLOT=1    also copies the drawing to docs/bench.svg
# Leaves ratios.txt, ratios.tsv and ratios.svg in build/bench. Ends with status 1 when a measurement
# failed; a goal that is short is no failure.
set -euo pipefail
cd "$(dirname "$0")/.."
dev/build.sh bench
out=build/bench
quick=()
[ -z "${QUICK-}" ] || quick=(--quick)
status=0
"$out/bin/halvo-bench" "${quick[@]}" --tsv "$out/ratios.tsv" "$@" | tee "$out/ratios.txt" || status=1

# One line a size, one column a peer: the ratios of a group's measure.
pivot() {
    awk -F '\t' -v group="$1" -v measure="$2" '
        $1 != group || $2 != measure { next }
        !($3 in row) { row[$3] = ++rows; size[rows] = $3 }
        !($4 in column) { column[$4] = ++columns; peer[columns] = $4 }
        { ratio[row[$3], column[$4]] = $8 }
        END {
            printf "size"
            for (c = 1; c <= columns; c++) printf "\t%s", peer[c]
            print ""
            for (r = 1; r <= rows; r++) {
                printf "%s", size[r]
                for (c = 1; c <= columns; c++)
                    printf "\t%s", (r, c) in ratio ? ratio[r, c] : "?"
                print ""
            }
        }' "$out/ratios.tsv"
}
pivot ring "q_ throughput" >"$out/throughput.tsv"
pivot trip "frx_ blocking p50" >"$out/round_trip.tsv"
for file in throughput round_trip; do
    [ "$(wc -l <"$out/$file.tsv")" -gt 1 ] || exit "$status" # that group was not run
done
gnuplot -e "directory='$out'" bench/plot.gp
if [ -n "${PLOT-}" ]; then cp "$out/ratios.svg" docs/bench.svg; fi
exit "$status"
