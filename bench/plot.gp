# Files per second against N, for the library, the SQLite-only floor and the
# floor that also reads the meta directory per file; tmpfs (on all CPUs and
# on one CPU) on the left, disk on the right:
#   gnuplot -c bench/plot.gp RESULTS.tsv bulk_rate.png
set terminal png size 1200,600
set output ARG2
data = ARG1
rows(medium) = "< awk -F'\t' '$1 == \"".medium."\"' ".data
set logscale x
set xlabel "files (N)"
set ylabel "files per second"
set yrange [0:*]
set grid
set key below font ",10"
set xrange [700:140000]
set multiplot layout 1,2 title "Bulk tagging, 4 tags per file: library against the floor"
set title "tmpfs"
plot rows("tmpfs") using 2:4 with linespoints lw 2 lc 1 title "floor", \
     rows("tmpfs") using 2:5 with linespoints lw 2 lc 3 title "floor + one lookup", \
     rows("tmpfs") using 2:3 with linespoints lw 2 lc 2 title "library", \
     rows("tmpfs-1cpu") using 2:4 with linespoints lw 2 lc 1 dt 2 title "floor, 1 CPU", \
     rows("tmpfs-1cpu") using 2:5 with linespoints lw 2 lc 3 dt 2 title "floor + one lookup, 1 CPU", \
     rows("tmpfs-1cpu") using 2:3 with linespoints lw 2 lc 2 dt 2 title "library, 1 CPU"
set title "disk (ext4 on virtio)"
plot rows("disk") using 2:4 with linespoints lw 2 lc 1 title "floor", \
     rows("disk") using 2:5 with linespoints lw 2 lc 3 title "floor + one lookup", \
     rows("disk") using 2:3 with linespoints lw 2 lc 2 title "library"
unset multiplot
