# SPDX-License-Identifier: Apache-2.0
# picture.gnuplot DATA PICTURE: draws a bar for every contestant; shorter is better, and both scales are
# logarithmic.
set terminal pngcairo noenhanced size 1400,820 font "sans,10" background "white"
set output ARG2
set multiplot layout 2,2 title "What the frame buffer and its queue cost, beside what one would use instead"
set logscale x
set format x "%g"
set grid xtics
set style fill solid 0.9 border -1
set yrange [] reverse
set offsets 0, 0, 0.6, 0.6
set tics scale 0.5
set key top right

frames(title_, plain, squeezed, low) = sprintf("set title '%s'; plot ARG1 index 0 using %d:0:(%g):%d:($0-0.38):($0):yticlabels(1) with boxxyerror lc rgb '#4c78a8' title 'plain', '' index 0 using %d:0:(%g):%d:($0):($0+0.38) with boxxyerror lc rgb '#f58518' title 'squeezed'", title_, plain, low, plain, squeezed, low, squeezed)
queues(title_, column_, low) = sprintf("set title '%s'; plot ARG1 index 1 using %d:0:(%g):%d:($0-0.3):($0+0.3):yticlabels(1) with boxxyerror lc rgb '#54a24b' notitle", title_, column_, low, column_)

set xrange [1:]
eval frames("a frame of 240 samples, nanoseconds on this machine", 2, 3, 1)
set xrange [10:]
eval frames("a frame of 240 samples, instructions on AArch64", 4, 5, 10)
set xrange [1:]
eval queues("960 bytes in, twice 480 out, nanoseconds on this machine", 2, 1)
set xrange [10:]
eval queues("960 bytes in, twice 480 out, instructions on AArch64", 4, 10)
