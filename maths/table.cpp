// The table of the `maths` commands.
#include "maths/commands.h"

namespace kestrel {

namespace {

const PARSE_TREE maths_table[] = {
    pt_command<umaths_accumulate>("accumulate", "%d %d %d %d %d %d %d = %g",
                                  "integrate all (counts) in volume", "Unified handle/x1/y1/t1/x2/y2/t2"),
    pt_command<umaths_measure_peak>(
        "measure-peak", "%d %d %d %d %d %d %d + %s x y t threshold %g = %g", "Measure Peak positionin volume",
        "Unified handle/x1/y1/t1/x2/y2/t2/Optional variable to save results/Measure X position/Measure Y "
        "position/Measure T position/Threshold"),
    pt_command<umaths_measure_flood>(
        "measure-flood", "%d %d %d %d %d %d %d + %s mask %d quiet = %g", "Measure flood DNL in volume",
        "Unified handle/x1/y1/t1/x2/y2/t2/Optional variable to save "
        "results/Mask to AND with integer data, particualrly scope mode data/No messages"),
    pt_command<umaths_search_outliers>("search-outliers",
                                       "%d %d %d %d %d %d %d %s mask %d quiet append below %g above %g = %d",
                                       "Search for outlieing values in volume",
                                       "Unified handle/x1/y1/t1/x2/y2/t2/File name/Mask to AND with integer "
                                       "data, particualrly scope mode data/No messages/Append to "
                                       "file/List values below this/List values above this"),
    pt_command<umaths_integrate>(
        "integrate",
        "%d %d %d %d %d %d %d x y t xy xt yt no-clear average min-last %g module %s tessera %s carafe mem0 "
        "start-x %d start-y %d start-t %d  = %d",
        "Integrate counts from volume to plane or line",
        "Unified handle/x1/y1/t1/x2/y2/t2/Project on to X axis/Project on to Y axis/Project on to T "
        "axis/Project on to XY plane/Project on to XT plane/Project on to YT plane/Accumulate data over "
        "current contents/Divide by number of elements summed/With y and average, count elements of the last "
        "row above this/To Module <name>/To Tessera <name>/To carafe/To mem0/start point for x/start point "
        "for y/start point for t"),
    pt_command<umaths_weighted_sum>(
        "weighted-sum",
        "%d %d %d %d %d %d %d x y t module %s tessera %s carafe mem0 start-x %d start-y %d start-t %d  = %d",
        "Weighted sum counts from volume to plane or line",
        "Unified handle/x1/y1/t1/x2/y2/t2/Weight along X axis/Weight along Y axis/Weight along T axis/To "
        "Module <name>/To Tessera <name>/To carafe/To mem0/start point for x/start point for y/start point "
        "for t"),
    pt_command<umaths_bin_op>(
        "binary-op",
        "%d %d + %d %d %d %d %d %d %d %d %d %d %d %d add sub mult div threshold %g scale %g module %s "
        "tessera %s carafe mem0 start-x %d start-y %d start-t %d  = %d",
        "Perform binary operation (add/sub/mult div)",
        "Unified handle A/Unified handle B/x1 or nt [ny] or t1 [y1]/y1 or         t2 "
        "[y2]/t1/x2/y2/t2/x1_b/y1_b/t1_b/x2_b/y2_b/t2_b/Calculate A+B/Calculate A-B/Calculate A*B/Calculate "
        "A div B/Threshold for division/Scaling factor/To Module <name>/To Tessera <name>/To carafe/To "
        "mem0/start point for x/start point for y/start point for t"),
    pt_command<umaths_centroid_old>(
        "centroid-old",
        "%d %d %d %d %d %d %d x y t module %s tessera %s carafe mem0 start-x %d start-y %d start-t %d  = %d",
        "Form Centroid from volume/plane to plane/line",
        "Unified handle/x1/y1/t1/x2/y2/t2/Centroid along X axis/Centroid along Y axis/Centroid along T "
        "axis/To Module <name>/To Tessera <name>/To carafe/To mem0/start point for x/start point for y/start "
        "point for t"),
    pt_command<umaths_centroid>(
        "centroid",
        "%d %d %d %d %d %d %d x y t threshold %g module %s tessera %s carafe mem0 start-x %d start-y %d "
        "start-t %d  = %d",
        "Form Centroid from volume/plane to plane/line",
        "Unified handle/x1/y1/t1/x2/y2/t2/Centroid along X axis/Centroid along Y axis/Centroid along T "
        "axis/Threshold as fraction of max/To Module <name>/To Tessera <name>/To carafe/To mem0/start point "
        "for x/start point for y/start point for t"),
    pt_command<umaths_rebin>(
        "re-bin",
        "%d %d %d %d %d %d %d x %d y %d t %d module %s tessera %s carafe mem0 start-x %d start-y %d start-t "
        "%d  = %d",
        "Rebin counts to lower resolution",
        "Unified handle/x1/y1/t1/x2/y2/t2/Factor for X/Factor for Y/Factor for T/To Module <name>/To Tessera "
        "<name>/To carafe/To mem0/start point for x/start point for y/start point for t"),
    pt_command<leastsqr_fit_command>(
        "leastsqr-fit", "%s %d %d %d + %s errors %d fit %d extrapolate x-row %d const-zero cross-x0 %g = %d",
        "Perform a least squares fit of points in data module",
        "Module name/First point/Last point/Row number/Optional variable to save results/Module row to store "
        "residuals/Module row to store the fitted line/Fill whole row with the fit and its error/Take x from "
        "this row/Force the intercept to 0/Force the line through (x0, 0)"),
    pt_command<umaths_stability>("stability",
                                 "%d %d %d %d %d %d %d x y t signed skip %d module %s tessera %s carafe mem0 "
                                 "start-x %d start-y %d start-t "
                                 "%d  = %d",
                                 "Measure 'DC' signal aver, Stdev, min and max as 1 dimension varies",
                                 "Unified handle/x1/y1/t1/x2/y2/t2/As X varies/As Y varies/As T varies/Long "
                                 "data are signed/Leave out this "
                                 "many elements at the start/To Module <name>/To Tessera <name>/To carafe/To "
                                 "mem0/start point for x/start "
                                 "point for y/start point for t"),
    pt_command<umaths_measure_mask>("measure-mask", "%d x y = %d",
                                    "Measure integral non-linearity from mask image",
                                    "Unified handle/Along X axis/Along Y axis"),
    pt_command<umaths_smooth>("smooth", "%s %d %d %d %d %d wrapped = %d", "Smooth 1 row data in data module",
                              "Module name/First point/Last point/Row number/Destination row/Width in points "
                              "(odd)/Treat first to last as a circle"),
    pt_command<umaths_smooth2d>("smooth2d", "%s %s %d = %d", "Smooth Entire 2D data module",
                                "Source module/Destination module/Width in points (odd)"),
    pt_command<umaths_mark_contour>("mark-contour", "%s %s %d %d clear cumulative = %d",
                                    "Find contour on source module and draw it onto a destination module",
                                    "Source module/Destination module/Level/Value to draw/Clear destination "
                                    "module/Add value to destination "
                                    "module"),
    pt_command<umaths_histogram>(
        "histogram",
        " %s %s x-row %d y-row %d num %d hist-x %d hist-y %d min-x %g max-x %g min-y %g max-y %g = %d",
        "Histogram list of X-Y values from data mod to data mod",
        "Source module/Destination module/Row with X values/Row with Y values/Number of points/Number of "
        "bins in "
        "X/Number of bins in Y/Lower end of X/Upper end of X/Lower end of Y/Upper end of Y"),
    pt_end(),
};

} // namespace

const PARSE_TREE row_maths =
    pt_subtree("maths", maths_table, "Functions to perform maths on unified data objects");

} // namespace kestrel
