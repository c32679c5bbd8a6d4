# A scan of a motor: one time frame at each position, then a header and its data files.
#   ~scan.cmd first last step seconds motor handle 'folder'
#   arguments 1 to 3: positions from the first to the last; 4: live time of a frame; 5: number of the motor
#   argument 6: the handle of the memory that counts the frames; 7: the folder of the files
# Before: kairo config, and the handle opened. Sets scan_header, and scan.saxs and scan.time, to the names of the files.
if %nargs!=7 "echo 'usage: ~scan.cmd first last step seconds motor handle folder'"
if %nargs!=7 'return -1'
kairo scan motor %1 %2 %3 %4 %5 mem %6
set-func 'scan_nx' "unif-get-nx %6" hide
set-func 'scan_header' "file write-kiln-header %7 %num_tf 'motor scan' saxs-x %scan_nx first 'S' var 'scan'" hide
read 0 0 0 %scan_nx 1 %num_tf from %6 float motorola to-local-file %7+'/'+%scan.saxs
file kiln-data %7+'/'+%scan_header %num_tf
