# The squares of 1 to the first argument; returns their sum.  ~squares 3
set-int 'sum' 0 local
for 'i' 1 %1
    printf '%d x %d = %d' %i %i %i*%i direct
    sum=%sum+%i*%i
next
return %sum
