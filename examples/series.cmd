# A series of measurements, noted in a file.  ~series.cmd 'log.txt' 2
#   argument 1: the file that takes a line for each measurement
#   argument 2: how often each sample is measured
if %nargs!=2 "echo 'usage: ~series.cmd file count'"
if %nargs!=2 'return -1'
printf '# sample pass' file %1
for-each 'sample' 'steel' 'brass' 'glass'
    for 'pass' 1 %2
        printf '%s %d' %sample %pass file %1 append
    next
next
