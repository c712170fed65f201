# SPDX-License-Identifier: Apache-2.0
# The comparisons as bars: instructions for a second of audio, on a log scale, the daemon's in colour.
# Wants `folder`, where the tables are, and `picture`, the file to write.
set terminal svg size 900,900 font "sans,12" background "white"
set output picture
set datafile separator tab
set multiplot layout 3,1 margins 0.36,0.96,0.07,0.95 spacing 0,0.09
set logscale x
set xrange [1:2000]
set yrange [*:*] reverse
set offsets 0, 0, 0.5, 0.5
set grid xtics
set tics nomirror
set ytics out
unset key
set style fill solid
colour(name) = name eq "uafd" ? 0x1f77b4 : name[1:7] eq "minimal" ? 0x9ac29a : 0xb8b8b8

do for [table in "speaker microphone both"] {
    set title sprintf("%s: million instructions for a second of audio", table)
    plot folder.table.".tsv" using (1):0:(1):2:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
             every ::1 with boxxyerror lc rgb variable, \
         "" using 2:0:(sprintf(" %.2f", $2)) every ::1 with labels left
}
unset multiplot
