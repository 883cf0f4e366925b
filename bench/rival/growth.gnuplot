# Draws what several helpers on one machine cost, from the table of `npm run measure -- growth`:
#   gnuplot -e "results='FILE'; target='FILE.svg'" bench/rival/growth.gnuplot
set terminal svg size 720,600 font "sans,12" background "white"
set datafile separator "\t"
set grid
set key left top
set yrange [0:*]
set output target
set multiplot layout 2,1 title "Helpers at rest beside each other"
set xlabel "helpers, each with a worker"
set ylabel "MiB"
plot results using 1:2 with linespoints title "workers", results using 1:3 with linespoints title "rivals"
set ylabel "percent of a core"
plot results using 1:4 with linespoints title "workers", results using 1:5 with linespoints title "rivals"
unset multiplot
