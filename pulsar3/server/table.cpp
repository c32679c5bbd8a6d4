// The list of the `pulsar3` commands: a new command is a file with handler and row, and its name twice in here.
#include "pulsar3/server/commands.h"

namespace kestrel {

extern const PARSE_TREE row_pulsar3_config, row_pulsar3_set_debug, row_pulsar3_set_run_mode,
    row_pulsar3_set_window, row_pulsar3_set_good_thres, row_pulsar3_set_threading, row_pulsar3_close,
    row_pulsar3_set_timing, row_pulsar3_setup_timing, row_pulsar3_start, row_pulsar3_read_scope_data,
    row_pulsar3_format_run, row_pulsar3_open_mca, row_pulsar3_open_scalers, row_pulsar3_check_progress;

extern const PARSE_TREE row_hist_collect, row_hist_test_pattern, row_hist_read_dropped, row_hist_start,
    row_hist_arm, row_hist_pause, row_hist_continue, row_hist_stop, row_hist_loss;

extern const PARSE_TREE row_pulsar3_dtc_energy, row_pulsar3_dtc_set_params, row_pulsar3_dtc_list,
    row_pulsar3_dtc_offline_mkmod, row_pulsar3_dtc_offline;

extern const PARSE_TREE row_pulsar3_dma_read_glob_reg, row_pulsar3_dma_write_glob_reg,
    row_pulsar3_dma_read_chan_reg, row_pulsar3_dma_read_adc_temp, row_pulsar3_dma_read_mid_plane_temp,
    row_pulsar3_dma_read_fpga_temp, row_pulsar3_dma_read_fem_config, row_pulsar3_dma_set_fem_config,
    row_pulsar3_dma_get_revision, row_pulsar3_dma_get_features, row_pulsar3_dma_write_chan_reg,
    row_pulsar3_dma_set_udp_buffers, row_pulsar3_dma_get_udp_buffers;

namespace {

constinit const PARSE_TREE hist_table[] = {
    pt_row(row_hist_collect),      pt_row(row_hist_test_pattern),
    pt_row(row_hist_read_dropped), pt_row(row_hist_start),
    pt_row(row_hist_arm),          pt_row(row_hist_pause),
    pt_row(row_hist_continue),     pt_row(row_hist_stop),
    pt_row(row_hist_loss),         pt_end(),
};

constinit const PARSE_TREE dtc_table[] = {
    pt_row(row_pulsar3_dtc_energy),        pt_row(row_pulsar3_dtc_set_params), pt_row(row_pulsar3_dtc_list),
    pt_row(row_pulsar3_dtc_offline_mkmod), pt_row(row_pulsar3_dtc_offline),    pt_end(),
};

constinit const PARSE_TREE dma_table[] = {
    pt_row(row_pulsar3_dma_read_glob_reg),       pt_row(row_pulsar3_dma_write_glob_reg),
    pt_row(row_pulsar3_dma_read_chan_reg),       pt_row(row_pulsar3_dma_read_adc_temp),
    pt_row(row_pulsar3_dma_read_mid_plane_temp), pt_row(row_pulsar3_dma_read_fpga_temp),
    pt_row(row_pulsar3_dma_read_fem_config),     pt_row(row_pulsar3_dma_set_fem_config),
    pt_row(row_pulsar3_dma_get_revision),        pt_row(row_pulsar3_dma_get_features),
    pt_row(row_pulsar3_dma_set_udp_buffers),     pt_row(row_pulsar3_dma_get_udp_buffers),
    pt_row(row_pulsar3_dma_write_chan_reg),      pt_end(),
};

constinit const PARSE_TREE pulsar3_table[] = {
    pt_row(row_pulsar3_config),
    pt_row(row_pulsar3_set_debug),
    pt_row(row_pulsar3_set_run_mode),
    pt_row(row_pulsar3_set_timing),
    pt_row(row_pulsar3_setup_timing),
    pt_row(row_pulsar3_set_window),
    pt_row(row_pulsar3_set_good_thres),
    pt_row(row_pulsar3_start),
    pt_row(row_pulsar3_read_scope_data),
    pt_row(row_pulsar3_format_run),
    pt_row(row_pulsar3_open_mca),
    pt_row(row_pulsar3_open_scalers),
    pt_row(row_pulsar3_check_progress),
    pt_row(row_pulsar3_set_threading),
    pt_subtree("hist", hist_table, "prefix for histogramming"),
    pt_subtree("dtc", dtc_table, "prefix for dead-time correction"),
    pt_subtree("dma", dma_table, "prefix for low-level access to the cards"),
    pt_row(row_pulsar3_close),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_pulsar3 = pt_subtree("pulsar3", pulsar3_table, "prefix for PULSAR3 functions");

} // namespace kestrel
