# The chart of docs/performance.md: kvtframework's speed against the best peer
# and against the machine's limit, one pair of bars per row of the table.
# scripts/compare.sh --chart writes performance.dat from a fresh table and runs
# this; by hand: cd docs && gnuplot performance.gp
set terminal svg size 1100,620 dynamic font "sans,11"
set output "performance.svg"
set datafile separator "\t"
set title "kvtframework speed ratio (above 1: faster)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
set logscale y 2
set yrange [0.03125:16]
set ytics ("1/32" 0.03125, "1/16" 0.0625, "1/8" 0.125, "1/4" 0.25, "1/2" 0.5, "1" 1, "2" 2, "4" 4, "8" 8, "16" 16)
set grid ytics
set xtics rotate by -40 left font ",9" nomirror
set bmargin 14
set rmargin 16
set key top right
set arrow from graph 0, first 1 to graph 1, first 1 nohead lw 2 lc rgb "#444444"
plot "performance.dat" using 2:xtic(1) title "vs best peer" lc rgb "#3b7dd8", \
     "" using 3 title "vs machine limit (os)" lc rgb "#e39b2d"
