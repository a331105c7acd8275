# SPDX-License-Identifier: ISC
# The plot of an outage rehearsal (bench/outage.sh): start requests per
# second across the fleet, gateways with status 3 and calls up at the
# network, over time, with the outage shaded.
#
#   gnuplot -e "csv='F.csv'; png='F.png'; vars='F.vars'; heading='TEXT'" bench/outage.gp
#
# vars sets outage_end (seconds from the first drop to the first recovery)
# and gateways; the CSV's rows are seconds from the first drop.
load vars
set terminal pngcairo size 1200,640 font ",11"
set output png
set datafile separator ","
set title heading
set xlabel "seconds from the first drop"
set ylabel "start requests per second"
set y2label "gateways"
set ytics nomirror
set y2tics
set yrange [0:*]
set offsets 0, 0, graph 0.25, 0
set y2range [0:gateways * 1.15]
set grid ytics
set key outside bottom center horizontal
set bmargin 6
set autoscale xfix
set object 1 rectangle from 0, graph 0 to outage_end, graph 1 behind \
    fillcolor rgb "#f4dcd6" fillstyle solid noborder
set label 1 "outage: every call dropped, every start refused" at outage_end / 2, graph 0.96 center
set boxwidth 1
set style fill solid 0.6 noborder
# A row counts the requests of its second, and the state at its end.
plot csv using ($1 + 0.5):2 every ::1 axes x1y1 with boxes lc rgb "#3b6ea5" title "start requests per second", \
     csv using ($1 + 1):3 every ::1 axes x1y2 with lines lw 3 lc rgb "#2e8b57" title "gateways with status 3", \
     csv using ($1 + 1):4 every ::1 axes x1y2 with lines lw 2 dt 2 lc rgb "#b03a2e" title "calls up at the network"
