# Plots qvbench's CSV (section,name,value,unit,floor_or_peer): every figure that has a floor or
# a peer as its ratio to it, one unit for all, lower is better and 1.0 is the floor or peer.
# Rates (sets/s) are turned round so that lower stays better. Each bar is labelled with its
# absolute figure; rows without a floor or peer are left out (they are in the CSV).
#   gnuplot -e "csv='build/bench/qvbench.csv'; png='build/bench/qvbench.png'" bench/qvbench.gp
if (!exists("csv")) csv = 'build/bench/qvbench.csv'
if (!exists("png")) png = 'build/bench/qvbench.png'
set terminal pngcairo size 1400,700 font ",9"
set output png
set datafile separator comma
set title "qvbench: each figure as its ratio to its floor or peer (lower is better)"
set style fill solid 0.8 border -1
set boxwidth 0.7
set logscale y
set grid ytics
set ylabel "ratio to floor or peer"
set xtics rotate by 35 right noenhanced
set lmargin 10
set bmargin 14
rate(u) = strstrt(u, "/s") > 0 && strstrt(u, "ms/") == 0
ratio(v, r, u) = (r > 0 && v > 0) ? (rate(u) ? r / v : v / r) : NaN
label(v, u) = sprintf("%.3g %s", v, u)
plot csv skip 1 using (ratio($3, $5, strcol(4))):xtic(strcol(1).": ".strcol(2)) \
       with boxes lc rgb "#4477aa" notitle, \
     '' skip 1 using 0:(ratio($3, $5, strcol(4))):(label($3, strcol(4))) \
       with labels offset 0,0.7 font ",7" noenhanced notitle, \
     1.0 with lines lc rgb "#cc3311" dt 2 title "floor or peer"
