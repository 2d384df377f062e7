# Plots qvbench's CSV (section,name,value,unit,floor_or_peer): each figure as a bar beside its
# floor or peer where the row has one. Log scale, since the rows mix units and sizes.
#   gnuplot -e "csv='build/bench/qvbench.csv'; png='build/bench/qvbench.png'" bench/qvbench.gp
if (!exists("csv")) csv = 'build/bench/qvbench.csv'
if (!exists("png")) png = 'build/bench/qvbench.png'
set terminal pngcairo size 1400,700 font ",9"
set output png
set datafile separator comma
set title "qvbench: each figure beside its floor or peer (same unit)"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set logscale y
set grid ytics
set xtics rotate by 35 right noenhanced
set key top left
set lmargin 10
set bmargin 12
plot csv skip 1 using ($3 > 0 ? $3 : NaN):xtic(strcol(1).": ".strcol(2)." (".strcol(4).")") title "figure", \
     '' skip 1 using ($5 > 0 ? $5 : NaN) title "floor or peer"
