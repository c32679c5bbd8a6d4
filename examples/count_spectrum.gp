# Draws what examples/count_spectrum counted: gnuplot -e "table='...'; picture='...'" count_spectrum.gp
set terminal pngcairo size 1000,700
set output picture
set grid
set xrange [4.8:8.0]
set logscale y
set yrange [100:*]
set title "Steel at 800000 events a second: counted, and corrected for dead time"
set xlabel "energy, keV"
set ylabel "counts in 20 eV"
set label "Cr" at 5.41,graph 0.72 center
set label "Fe" at 6.40,graph 0.97 center
set label "Ni" at 7.47,graph 0.62 center
plot table using 1:2 with steps linewidth 2 title "counted", \
     table using 1:4 with lines linewidth 2 linecolor rgb "gray" title "sent by the sample", \
     table using 1:3 with points pointtype 7 pointsize 0.5 title "corrected"
