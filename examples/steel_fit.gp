# Draws what examples/show_spectrum fitted: gnuplot -e "table='...'; picture='...'" steel_fit.gp
set terminal pngcairo size 1000,700
set output picture
set multiplot
set lmargin at screen 0.1
set rmargin at screen 0.97
set grid
set xrange [4.5:9.1]
set bmargin at screen 0.35
set tmargin at screen 0.94
set title "Stainless steel (NIST SRM 1155): K lines of Cr, Fe and Ni"
set format x ""
set ylabel "counts a channel"
set logscale y
set yrange [100:400000]
set label "Cr" at 5.41,120000 center
set label "Fe" at 6.40,280000 center
set label "Ni" at 7.47,110000 center
plot table using 1:2 with points pointtype 7 pointsize 0.4 title "data", \
     table using 1:3 with lines linewidth 2 title "fit"
set bmargin at screen 0.1
set tmargin at screen 0.32
unset title
unset label
unset logscale y
set yrange [*:*]
set format x "%g"
set xlabel "energy, keV"
set ylabel "residual / error"
plot table using 1:4 with impulses notitle
