# Polls a command until it returns 0, as a measurement that reports what is left.  ~wait_for 'command' 20
#   argument 1: the command
#   argument 2: how many times it is tried, a tenth of a second apart
# Returns 0, or -1 when it never came to an end. ^C ends the wait.
set-int 'left' 0 local
set-int 'tries' 0 local
do
    left=-1
    set-func 'left' %1 local hide
    tries=%tries+1
    if %left!=0 'sleep 0.1'
while %left!=0&&%tries<%2
return %left==0?0:-1
