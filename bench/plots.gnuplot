# Draws the curves that growth.cpp measured; script/bench runs it. `data` is the folder of the .tsv files, `out` that of
# the .svg files: gnuplot -e "data='FOLDER'; out='FOLDER'" plots.gnuplot
set datafile separator '\t'
set terminal svg size 720,420 font 'sans-serif,13' background '#ffffff'
set grid lc rgb '#dddddd'
set key top left
set style data linespoints
set linetype 1 lc rgb '#1f5fa8' pt 7 ps 0.6 lw 2
set linetype 2 lc rgb '#c4501b' pt 5 ps 0.6 lw 2
set linetype 3 lc rgb '#3b7d3b' pt 9 ps 0.6 lw 2
set linetype 4 lc rgb '#7a4b9a' pt 11 ps 0.6 lw 2

set xlabel 'instances'
set logscale x 2
set yrange [0:*]
set output out.'/instances.svg'
set title 'Requests per second over all instances'
set ylabel 'thousand requests per second'
plot data.'/instances.tsv' using 1:($2/1000) title 'a page thread for each', \
     '' using 1:($3/1000) title 'one page thread, in turn'

set output out.'/instance-memory.svg'
set title 'Memory of an instance'
set ylabel 'KiB'
plot data.'/instances.tsv' using 1:4 notitle

set output out.'/subscribers.svg'
set title 'From a change to its last event'
set ylabel 'µs'
plot data.'/subscribers.tsv' using 1:($2/1000) title 'one instance subscribed', \
     '' using 1:($3/1000) title 'all instances subscribed'
unset logscale x

set output out.'/subscriptions.svg'
set title 'From a change to its event'
set xlabel 'subscriptions of the page'
plot data.'/subscriptions.tsv' using 1:($2/1000) notitle

set logscale xy 10
set yrange [*:*]
set output out.'/keys.svg'
set title 'The store as it fills'
set xlabel 'keys'
set ylabel 'µs'
plot data.'/keys.tsv' using 1:($2/1000) title 'warm round trip', \
     '' using 1:($3/1000) title 'look-up of a text', \
     '' using 1:($4/1000) title 'write in memory', \
     '' using 1:($5/1000) title 'change to event'

set output out.'/messages.svg'
set title 'A request and its reply, by size'
set xlabel 'bytes of the request as JSON'
set ylabel 'µs'
plot data.'/messages.tsv' using 1:($2/1000) title 'as variables', \
     '' using 1:($3/1000) title 'from and to JSON, one long text', \
     '' using 1:($4/1000) title 'from and to JSON, many entries'
