// The table of the `module` commands.
#include "modules/commands.h"

namespace kestrel {

namespace {

constexpr const char *save_help = "save a data module into a local file (see also ftp functions)";

constinit const PARSE_TREE module_table[] = {
    pt_command<module_create>(
        "create", "%s + %d %d %s %s %s header size %d float double num-t %d = %d",
        "create a data module and initialize it if 'header' given",
        "module name/width/height/X label/Y label/T labels if 3d/imgd compatible data module with header/"
        "optional initial size/floating point data/Double prec floating data/Create 3d module with specified "
        "num-t"),
    pt_command<module_clear>("clear", "%s = %d", save_help, "module name"),
    pt_command<module_save>(
        "save",
        "%s + %s os9 ascii asc-col det raw long float double read-quals %s next-file %s comment1 %s comment2 "
        "%s "
        "xh %s save-script %s current-file %s = %d",
        save_help,
        "module name/file name on server (or path name using index numbered files/OS9 module save/"
        "ASCII rows format (default)/ASCII columns format/Tessera/Raw binary data/Raw 32 bit longs/"
        "Raw 32 bit floats/Raw 64 bit doubles/read command qualifiers/"
        "Use Next file index with this filename suffix to make <path_name>/<next_index>_<suffix>/"
        "First comment to add to log file/Second comment to add to log file/"
        "Add automatic comments from XH of given sys name/"
        "Specify the directory to save the calling script into. <save_dir>/<seq_num>_<script_name>/"
        "Use current file index to make name <path_name>/<current_index>_<suffix>"),
    pt_command<module_load>("load", "%s %s open-quals %s long double num-t %d tessera = %d",
                            "Load data module from file using the file open command",
                            "File name/Module name/Overried qualifier to file open (default ascii-id)/"
                            "Force data u_int32 (default float)/Force data double/Specifeid module num-t/"
                            "Open tessera and try to determine data type from the file"),
    pt_command<module_headed>("headed", "%s %d %d + %s %s = %d",
                              "create and initialize a headed module (backwards compatible)",
                              "module name/width/height/X label/Y label"),
    pt_command<module_open>("open", "%s header  = %d",
                            "open a unified read connection to a module currently must be headed",
                            "module name"),
    pt_command<module_close>("close", "%d  = %d", "close a unified read connection to a module",
                             "Unified path number"),
    pt_command<module_get_remote>(
        "get-remote", "%s +%s adc-x adc-y lku-x lku-y corr motor user1 user2 display1d display2d  = %d",
        "Copy a remote module to a local module",
        "Remote module name/Optional different local name/Form ADC X/ADC Y/Lookup X/Lookup Y/Correlator/"
        "Motor Server/User server1/User Server2/Display in image displayer"),
    pt_command<module_set_point>("set-point", "%s %d %d %f t %d = %d ", "Set a data point in a module",
                                 "Module name/X position/Y Position/Value/t coordiante for 3d modules"),
    pt_command<module_get_point>(
        "get-point", "%s %d %d %s local t %d = %d ", "Set a data point in a module",
        "Module name/X position/Y Position/Variable to set/Set local variable/t coordiante for 3d modules"),
    pt_command<module_set_aspect>("set-aspect", "%s %f = %d ",
                                  "Set a data aspect ratio for a headed data module",
                                  "Module name/Aspect Ratio"),
    pt_command<module_copy>(
        "copy",
        "%s %s transpose src-x %d dst-x %d num-x %d src-y %d dst-y %d num-y %d src-t %d dst-t %d num-t %d "
        "max-x %d "
        "max-y %d max-t %d quiet verbose scale %g add = %d ",
        "Copy an 'id' module to another name",
        "Old module name/New module name/swap x y/Source start x (default 0)/Destination Start X (default 0)/"
        "Num X (default=num_x, unless src-x specifed, then 1)/Source Start y (default 0)/"
        "Destination Start y (default 0)/Num y (default=num_y, unless src-y specifed, then 1)/"
        "Source Start t (default 0)/Destination Start t (default 0)/"
        "Num t (default=num_t, unless src-t specifed, then 1)/Dst Module num_x (default dst-x + num-x)/"
        "Dst Module num_y (default dst-y + num-y)/Dst Module num_t (default dst-t + num-t)/Supress Messages/"
        "More messages/Scaling data ebfore copying or adding/Add data to target image"),
    pt_command<module_resize>("resize", "%s %d %d + %d = %d", "Resize data module",
                              "Module name/New num-x/New num-y/New num-t (omit or 1 for 2-d modules)"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_module =
    pt_subtree("module", module_table, "prefix for module-specific functions");

} // namespace kestrel
