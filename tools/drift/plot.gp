# SPDX-License-Identifier: Apache-2.0
# gnuplot -e "csv='FILE'; png='FILE'; what='TITLE'" plot.gp: draws depth and latency, what latency
# control did, and what the host heard in place of the app.
set terminal pngcairo size 1200,900 font 'DejaVu Sans,11'
set output png
set datafile separator ','
set multiplot layout 3,1 title what font ',14'
set key above horizontal width -2 samplen 2
set lmargin 11
set rmargin 3
set border 3
set xrange [*:*] noextend
set tics nomirror
set yrange [0:*]

set ylabel 'ms'
plot csv using 1:3:4 skip 1 with filledcurves fs solid 0.25 noborder lc rgb '#2a9d4a' \
         title 'target range of the depth', \
     csv using 1:2 skip 1 with points pt 7 ps 0.25 lc rgb '#1b6e34' notitle, \
     NaN with points pt 7 ps 0.7 lc rgb '#1b6e34' title 'depth of the buffer before each read', \
     csv using 1:5 skip 1 with points pt 7 ps 0.25 lc rgb '#c2410c' notitle, \
     NaN with points pt 7 ps 0.7 lc rgb '#c2410c' title 'latency from app to host'

set ylabel 'frames so far'
plot csv using 1:6 skip 1 with lines lw 2 lc rgb '#2563eb' title 'stretched: a sample made up', \
     csv using 1:7 skip 1 with lines lw 2 lc rgb '#9333ea' title 'squeezed: a sample left out'

set ylabel 'ms so far'
set xlabel 'seconds since the host began to record'
set yrange [0:10<*]
plot csv using 1:12 skip 1 with lines lw 2 lc rgb '#dc2626' title 'silence heard instead of the app', \
     csv using 1:11 skip 1 with lines lw 2 lc rgb '#111111' title 'written in vain'
unset multiplot
