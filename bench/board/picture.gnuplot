# SPDX-License-Identifier: Apache-2.0
# gnuplot -e "folder='FOLDER/'; picture='FILE'; usb=0" picture.gnuplot: draws tables as bars, ours in colour.
# usb=0: instructions for a second of audio, on a log scale. usb=1: both directions over USB, what the whole
# board does for a second of sound, and the median latency each way with the largest as a whisker.
set terminal svg noenhanced size 900,(usb ? 620 : 900) font "sans,12" background "white"
set output picture
set datafile separator tab
set datafile missing "NaN"
set multiplot layout 3,1 margins 0.36+0.02*usb,0.96,0.07+0.01*usb,0.95-0.01*usb spacing 0,0.09+0.02*usb
set yrange [*:*] reverse
set offsets 0, 0, 0.5, 0.5
set grid xtics
set tics nomirror
set ytics out
unset key
set style fill solid
ours(name) = name eq "uafd" || name[1:10] eq "usb_f_vexa"
colour(name) = ours(name) ? 0x1f77b4 : name[1:7] eq "minimal" ? 0x9ac29a : 0xb8b8b8
low = 1 - usb # where bars begin

instructions = 'plot table using (low):0:(low):2:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
                     every ::1 with boxxyerror lc rgb variable, \
                 "" using 2:0:(sprintf(" %.2f", $2)) every ::1 with labels left'
latency = 'plot table using (0):0:(0):at:($0-0.38):($0+0.38):(colour(strcol(1))):ytic(1) \
                every ::1::6 with boxxyerror lc rgb variable, \
            "" using at:0:at:at+1 every ::1::6 with xerrorbars pt -1 lc rgb "black"'

if (!usb) {
  set logscale x
  set xrange [1:2000]
  do for [name in "speaker microphone both"] {
    table = folder.name.".tsv"
    set title sprintf("%s: million instructions for a second of audio", name)
    eval instructions
  }
} else {
  table = folder."usb_both.tsv"
  set title "million instructions of the whole board for a second of sound both ways"
  set xrange [0:200]
  eval instructions
  set xrange [0:130]
  do for [at = 6:8:2] {
    set title sprintf("latency from the %s: median and largest, ms", \
      at == 6 ? "host's program to the app" : "app to the host's program")
    eval latency
  }
}
unset multiplot
