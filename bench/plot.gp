# Files per second against N, for the library and the floor, on tmpfs and on
# disk:  gnuplot -c bench/plot.gp RESULTS.tsv bulk_rate.png
set terminal png size 800,500
set output ARG2
set title "Bulk tagging, 4 tags per file: library and SQLite-only floor"
set logscale x
set xlabel "files tagged in one run (N)"
set ylabel "files per second"
set yrange [0:*]
set key outside right
set grid
data = ARG1
plot "< grep ^tmpfs ".data using 2:4 with linespoints lw 2 title "floor, tmpfs", \
     "< grep ^tmpfs ".data using 2:3 with linespoints lw 2 title "library, tmpfs", \
     "< grep ^disk ".data using 2:4 with linespoints lw 2 dt 2 title "floor, disk", \
     "< grep ^disk ".data using 2:3 with linespoints lw 2 dt 2 title "library, disk"
