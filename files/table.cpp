// The table of the `file` commands.
#include "files/commands.h"

namespace kestrel {

namespace {

constinit const PARSE_TREE file_table[] = {
    pt_command<file_open>(
        "open",
        "%s ascii ascii-id raw tessera nx %d ny %d nt %d byte short long float double int48 int64 intel "
        "motorola "
        "skip %d = %d",
        "Open a unified path to a data file",
        "File name/Rows of numbers/Rows of numbers after an identification row/Binary data of given size and "
        "type/"
        "Detector image file, or any HDF5 file/Width (raw)/Height (raw, default 1)/"
        "Frames (raw, ascii; default 1)/8-bit data/16-bit data/32-bit data/floating point data/"
        "Double prec floating data/48-bit data/64-bit data/Low byte first (raw)/High byte first (raw)/"
        "Bytes before the data (raw)"),
    pt_command<file_close>("close", "%d = %d", "Close a unified path to a data file", "Unified handle"),
    pt_command<file_get_next_index>(
        "get-next-index",
        "%s + %s %s xh %s file-suffix %s get-fname %s script-name save-script %s append = %d",
        "Number the next data file of a folder and note it in the folder's log",
        "Folder/First comment for the log/Second comment for the log/Name of an XH system for the log/"
        "What follows the number in the file name/Variable to set to the file name/"
        "Name the calling script in the log/Folder to keep a copy of the calling script in/"
        "Use the number that was last given"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_file = pt_subtree("file", file_table, "Open/Close unified path to files");

} // namespace kestrel
