# SPDX-License-Identifier: BSD-2-Clause
# Draws docs/images from the figures in build/benchmarks; compare.sh runs it in the root.
set datafile separator ","
set terminal pngcairo size 900,420 font "sans,9" background "white"
set style fill solid 0.85 border -1
set grid ytics lc rgb "#cccccc"
work = "build/benchmarks/"

set output "docs/images/race.png"
set title "Frames a second, 1920x1080, one encoder thread"
set style data histogram
set style histogram clustered gap 1
set yrange [0:*]
set key outside right top
racer(name) = sprintf("< grep ',%s,' %smedians.csv", name, work)
plot racer("service") using 3:xtic(1) title "service" lc rgb "#3465a4", \
     racer("skipping") using 3 title "service, unchanged skipped" lc rgb "#8ab4e8", \
     racer("in-process") using 3 title "in-process" lc rgb "#73a946", \
     racer("x264") using 3 title "x264 program" lc rgb "#d9a520", \
     racer("ffmpeg") using 3 title "ffmpeg" lc rgb "#c0504d"

set output "docs/images/frames.png"
set terminal pngcairo size 900,560
set yrange [0:*]
set style data lines
set multiplot layout 3,1
do for [clip in "typing scrolling dragging"] {
  set title clip.": round trip less the encoder's own time, microseconds, frame by frame"
  plot work."frames-".clip.".csv" every ::2 using 1:5 title "two bare pipes" lc rgb "#73a946", \
       "" every ::2 using 1:($2-$3) title "service" lc rgb "#3465a4"
}
unset multiplot

set output "docs/images/growth.png"
set terminal pngcairo size 1000,900
set style data linespoints
set key inside left top
set yrange [0:*]
figure(name) = sprintf("< grep '^%s,' %sgrowth.csv", name, work)
set multiplot layout 3,3
do for [row in "rectangles_us|rectangles|microseconds,_scripted_encoder|echo reply_bytes_us|reply_bytes|microseconds,_scripted_encoder|echo picture_ms|megapixels|ms_a_frame,_1_%_changed|in-process changed_percent_ms|%_of_macroblocks_changed|ms_a_frame,_1920x1080|in-process streams_ms|streams_of_640x480|ms_for_all|in-process threads_ms|encoder_threads|ms_a_frame,_1920x1080,_all_changed|in-process first_reply_ms|megapixels|ms_to_the_first_reply|in-process picture_mib|megapixels|private_MiB|in-process streams_mib|streams_of_640x480|private_MiB|in-process"] {
  name = system("echo '".row."' | cut -d '|' -f 1")
  x = system("echo '".row."' | cut -d '|' -f 2 | tr _ ' '")
  y = system("echo '".row."' | cut -d '|' -f 3 | tr _ ' '")
  floor_name = system("echo '".row."' | cut -d '|' -f 4")
  if (name eq "rectangles_us" || name eq "reply_bytes_us") {
    set logscale xy; set yrange [*:*]
  } else {
    unset logscale; set yrange [0:*]
  }
  if (name eq "changed_percent_ms") { set logscale x }
  if (name eq "threads_ms") { set xtics 1 } else { set xtics autofreq }
  set xlabel x
  set title y
  plot figure(name) using ($2 == 0 ? 0.1 : $2):4 title floor_name lc rgb "#73a946" pt 7 ps 0.7, \
       figure(name) using ($2 == 0 ? 0.1 : $2):3 title "service" lc rgb "#3465a4" pt 6
}
unset multiplot
