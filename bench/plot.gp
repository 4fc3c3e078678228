# Draws plot.tsv (a tree a row, then a ratio for each rival) as plot.svg.
set terminal svg size 900,420 font "sans,13" background "white"
set output "plot.svg"
set datafile separator "\t"
set datafile missing "none"  # a rival that this tree is not set beside
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set ylabel "the worker's time / the other's"
set yrange [0:*]
set grid y
set key top right
set arrow from graph 0, first 1 to graph 1, first 1 nohead dashtype 2 front
plot for [column = 2:5] "plot.tsv" using column:xtic(1) title columnheader(column)
