# The provider over a virtual token beside the system's software provider: gnuplot -e "data='...'; picture='...'" bench.gnuplot
set terminal svg size 1100,420 font "DejaVu Sans,12" background "white"
set output picture
set multiplot layout 1,2
set style data histogram
set style histogram clustered gap 1
set style fill solid noborder
set boxwidth 0.9
set logscale y 10
set grid ytics lc rgb "#d5d8dc"
set border 3
set tics nomirror scale 0
set xtics
set key top left reverse Left
set format y "%.0f"
number(x) = x < 100 ? sprintf("%.1f", x) : x < 1000 ? sprintf("%.0f", x) : sprintf(x < 10000 ? "%.1fk" : "%.0fk", x / 1000)
operation(name) = name[1:strstrt(name . ":", ":") - 1]
piece(name) = name[strstrt(name, "of ") + 3:*]

set title "Operations a second"
set yrange [1:1e7]
plot data index 0 using 2:xtic(operation(strcol(1))) title "Talvik, virtual token" lc rgb "#1f5fa8", \
     "" index 0 using 3 title "system's software provider" lc rgb "#d97b20", \
     "" index 0 using ($0 - 0.2):2:(number($2)) with labels offset 0,0.6 font ",9" notitle, \
     "" index 0 using ($0 + 0.2):3:(number($3)) with labels offset 0,0.6 font ",9" notitle
set title "SHA-256, megabytes a second by size of piece"
set yrange [1:1e5]
plot data index 1 using 2:xtic(piece(strcol(1))) title "Talvik, virtual token" lc rgb "#1f5fa8", \
     "" index 1 using 3 title "system's software provider" lc rgb "#d97b20", \
     "" index 1 using ($0 - 0.2):2:(number($2)) with labels offset 0,0.6 font ",9" notitle, \
     "" index 1 using ($0 + 0.2):3:(number($3)) with labels offset 0,0.6 font ",9" notitle
unset multiplot
