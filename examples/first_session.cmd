# A first session, line by line.  ./run.sh types it to a server and prints what comes back.
# Each line is a command; the line that begins with a star is its result.
eval int 1 2 add
# Items are expressions, written without blanks; a line may be nothing but one.
(7/2+0.5)*2
log2(8)
'ab'+'cd'
# Variables: global ones are everybody's.
set-int 'n' 5
n=%n*2
set-string 'sample' 'steel'
echo 'measuring '+sample+' '+(string)n+' times'
# Results in another radix.
radix 16
%n*25
radix 10
# What may stand here?
eval ?
set-int ?
# A script with its arguments, found on the search path.
~squares 3
set-func 'sum' "~squares 4"
printf 'the sum is %d' %sum direct
# Errors show their place.
set-int 'n' 'five'
