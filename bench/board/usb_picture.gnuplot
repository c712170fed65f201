# SPDX-License-Identifier: Apache-2.0
# Both directions over USB as bars: what the whole board does for a second of sound, and the median
# latency each way with the largest as a whisker. Ours is in colour. Wants `folder` and `picture`, as
# picture.gnuplot does.
set terminal svg noenhanced size 900,620 font "sans,12" background "white"
set output picture
set datafile separator tab
set datafile missing "NaN"
set multiplot layout 3,1 margins 0.38,0.96,0.08,0.94 spacing 0,0.11
set yrange [*:*] reverse
set offsets 0, 0, 0.5, 0.5
set grid xtics
set tics nomirror
set ytics out
unset key
set style fill solid
colour(name) = name[1:10] eq "usb_f_vexa" ? 0x1f77b4 : 0xb8b8b8
table = folder."usb_both.tsv"

set title "million instructions of the whole board for a second of sound both ways"
set xrange [0:200]
plot table using (0):0:(0):2:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
         every ::1 with boxxyerror lc rgb variable, \
     "" using 2:0:(sprintf(" %.2f", $2)) every ::1 with labels left
set xrange [0:130]
set title "latency from the host's program to the app: median and largest, ms"
plot table using (0):0:(0):6:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
         every ::1::6 with boxxyerror lc rgb variable, \
     "" using 6:0:6:7 every ::1::6 with xerrorbars pt -1 lc rgb "black"
set title "latency from the app to the host's program: median and largest, ms"
plot table using (0):0:(0):8:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
         every ::1::6 with boxxyerror lc rgb variable, \
     "" using 8:0:8:9 every ::1::6 with xerrorbars pt -1 lc rgb "black"
unset multiplot
