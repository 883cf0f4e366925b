# Draws how the cost grows, from the results of scripts/bench:
#   gnuplot -e "results='FILE'; places='tmpfs ext4'; target='DIRECTORY'" bench/growth.gnuplot
set terminal svg size 720,420 font "sans,12" background "white"
set datafile separator "\t"
set grid
set key left top

# Columns of the results.
size = 3
floor = 5
helper = 9
rows(figure, place) = sprintf("< awk -F '\\t' '$1 == \"%s\" && $2 == \"%s\"' %s", figure, place, results)

# Not everything is there when only some cases were measured.
isMeasured(figure) = int(system(sprintf("awk -F '\\t' '$1 == \"%s\"' %s | wc -l", figure, results))) > 0

set logscale x

if (isMeasured("drain, per record")) {
    set output target."/growth-backlog.svg"
    set title "Drain of a backlog"
    set xlabel "records"
    set ylabel "microseconds per record"
    set yrange [0:*]
    plot for [place in places] rows("drain, per record", place) using size:helper with linespoints title "helper, ".place, \
         for [place in places] rows("drain, per record", place) using size:floor with linespoints dashtype 2 title "floor, ".place
}

if (isMeasured("waiting: share of a core")) {
    set output target."/growth-waiting.svg"
    set title "Records that wait for another chat"
    set xlabel "records"
    set ylabel "percent of a core"
    plot for [place in places] rows("waiting: share of a core", place) using size:helper with linespoints title "helper, ".place, \
         for [place in places] rows("waiting: share of a core", place) using size:floor with linespoints dashtype 2 title "floor, ".place
}

if (isMeasured("sendMessage")) {
    set output target."/growth-line.svg"
    set title "A message by the length of its line"
    set xlabel "bytes"
    set ylabel "milliseconds"
    set logscale y
    set yrange [*:*]
    plot for [place in places] rows("sendMessage", place) using size:helper with linespoints title "helper, ".place, \
         for [place in places] rows("sendMessage", place) using size:floor with linespoints dashtype 2 title "floor, ".place
}

if (isMeasured("capture scan, a message changed")) {
    set output target."/growth-messages.svg"
    set title "Capture scan after one small change"
    set xlabel "messages in the open chat"
    set ylabel "milliseconds"
    plot rows("capture scan, a message changed", "") using size:helper with linespoints title "a message changed", \
         rows("capture scan, the chat list changed", "") using size:helper with linespoints title "the chat list changed", \
         rows("capture scan, a message changed", "") using size:floor with linespoints dashtype 2 title "floor: one query"
}

if (isMeasured("worker tree, by changes a second: processor")) {
    set output target."/growth-changes.svg"
    set title "Worker tree by changes of the page"
    set xlabel "small changes a second in a chat of 300 messages"
    set ylabel "percent of a core"
    unset logscale
    set yrange [0:*]
    plot rows("worker tree, by changes a second: processor", "") using size:helper with linespoints title "whole tree"
}
