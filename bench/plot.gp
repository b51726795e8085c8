# Two panels of bars, from the files that bench/run.sh makes: gnuplot -e "directory='...'" plot.gp
set terminal svg size 900,720 dynamic font "sans-serif,13" background "#ffffff"
set output directory."/ratios.svg"
set datafile separator "\t"
set datafile missing "?"
array colours[8] = ["#0072b2", "#56b4e9", "#009e73", "#e69f00", "#d55e00", "#cc79a7", "#777777", "#222222"]
set style data histogram
set style histogram clustered gap 1.5
set style fill solid 1.0 noborder
set boxwidth 0.9
set logscale y
set grid ytics lc rgb "#cccccc"
set border 3 lc rgb "#555555"
set tics nomirror out
set xtics scale 0
set ytics (0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100)
set lmargin 10
set rmargin 24
set xlabel "body / slot size in bytes"
set key outside right top Left reverse
set arrow 1 from graph 0, first 1 to graph 1, first 1 nohead lc rgb "#000000" dt 2 front
set multiplot layout 2,1

set title "Throughput of q\\_write and q\\_read: times the peer's"
set ylabel "ratio (log); above 1: ours is faster"
set yrange [0.05:*]
stats directory."/throughput.tsv" skip 1 nooutput
plot for [i=2:STATS_columns] directory."/throughput.tsv" using i:xtic(1) title columnheader(i) noenhanced lc rgb colours[i-1]

set title "Blocking round trip by frx\\_write and frx\\_read: how many times faster than the peer's"
set yrange [0.5:*]
stats directory."/round_trip.tsv" skip 1 nooutput
plot for [i=2:STATS_columns] directory."/round_trip.tsv" using i:xtic(1) title columnheader(i) noenhanced lc rgb colours[i-1]
unset multiplot
