// The list of the `pulsar3` commands: a new command is a file with handler and row, and its name twice in here.
#include "pulsar3/server/commands.h"

namespace kestrel {

extern const PARSE_TREE row_pulsar3_config, row_pulsar3_set_debug, row_pulsar3_set_run_mode,
    row_pulsar3_set_window, row_pulsar3_set_good_thres, row_pulsar3_set_threading, row_pulsar3_close,
    row_pulsar3_set_timing, row_pulsar3_setup_timing, row_pulsar3_start, row_pulsar3_read_scope_data,
    row_pulsar3_format_run, row_pulsar3_open_mca, row_pulsar3_open_scalers, row_pulsar3_check_progress;

extern const PARSE_TREE row_pulsar3_set_alt_ttl_out, row_pulsar3_set_c2c, row_pulsar3_set_chan_cont,
    row_pulsar3_set_reset_corr, row_pulsar3_set_reset_det, row_pulsar3_set_mwd_multiplier,
    row_pulsar3_set_mwd_dc_offset, row_pulsar3_set_diff_baseline, row_pulsar3_enable_diff_baseline,
    row_pulsar3_enable_trigc_magic, row_pulsar3_set_glitch, row_pulsar3_set_glitch_stretch,
    row_pulsar3_set_rst_xtk, row_pulsar3_set_xtk_corr, row_pulsar3_set_ringing, row_pulsar3_set_trigger_b,
    row_pulsar3_set_trigger_c, row_pulsar3_set_servo, row_pulsar3_set_servo2, row_pulsar3_set_scaling,
    row_pulsar3_set_pileup_max_width, row_pulsar3_set_adc_mux, row_pulsar3_set_scope_search,
    row_pulsar3_set_glob_rst_gen, row_pulsar3_set_cal_events, row_pulsar3_setup_diag,
    row_pulsar3_set_user_tsync, row_pulsar3_set_sync_mode, row_pulsar3_init_brams,
    row_pulsar3_init_event_tail, row_pulsar3_set_roi, row_pulsar3_load_event_lead,
    row_pulsar3_load_event_tail, row_pulsar3_load_xtk_shape, row_pulsar3_load_xtk_map,
    row_pulsar3_load_width_time, row_pulsar3_load_servo_tail;

extern const PARSE_TREE row_hist_collect, row_hist_test_pattern, row_hist_read_dropped, row_hist_start,
    row_hist_arm, row_hist_pause, row_hist_continue, row_hist_stop, row_hist_loss, row_hist_list_mode;

extern const PARSE_TREE row_pulsar3_dtc_energy, row_pulsar3_dtc_set_params, row_pulsar3_dtc_from_trigger,
    row_pulsar3_dtc_list, row_pulsar3_dtc_offline_mkmod, row_pulsar3_dtc_offline;

extern const PARSE_TREE row_pulsar3_dma, row_pulsar3_adc_board, row_pulsar3_setup_clocks,
    row_pulsar3_save_settings, row_pulsar3_restore_settings, row_pulsar3_check_settings;

namespace {

constinit const PARSE_TREE hist_table[] = {
    pt_row(row_hist_collect),
    pt_row(row_hist_test_pattern),
    pt_row(row_hist_read_dropped),
    pt_row(row_hist_start),
    pt_row(row_hist_arm),
    pt_row(row_hist_pause),
    pt_row(row_hist_continue),
    pt_row(row_hist_stop),
    pt_row(row_hist_loss),
    pt_row(row_hist_list_mode),
    pt_end(),
};

constinit const PARSE_TREE dtc_table[] = {
    pt_row(row_pulsar3_dtc_energy),
    pt_row(row_pulsar3_dtc_set_params),
    pt_row(row_pulsar3_dtc_from_trigger),
    pt_row(row_pulsar3_dtc_list),
    pt_row(row_pulsar3_dtc_offline_mkmod),
    pt_row(row_pulsar3_dtc_offline),
    pt_end(),
};

constinit const PARSE_TREE pulsar3_table[] = {
    pt_row(row_pulsar3_config),
    pt_row(row_pulsar3_set_debug),
    pt_row(row_pulsar3_setup_clocks),
    pt_row(row_pulsar3_set_run_mode),
    pt_row(row_pulsar3_set_timing),
    pt_row(row_pulsar3_setup_timing),
    pt_row(row_pulsar3_set_alt_ttl_out),
    pt_row(row_pulsar3_set_c2c),
    pt_row(row_pulsar3_set_chan_cont),
    pt_row(row_pulsar3_set_reset_corr),
    pt_row(row_pulsar3_set_reset_det),
    pt_row(row_pulsar3_set_mwd_multiplier),
    pt_row(row_pulsar3_set_mwd_dc_offset),
    pt_row(row_pulsar3_set_diff_baseline),
    pt_row(row_pulsar3_enable_diff_baseline),
    pt_row(row_pulsar3_enable_trigc_magic),
    pt_row(row_pulsar3_set_glitch),
    pt_row(row_pulsar3_set_glitch_stretch),
    pt_row(row_pulsar3_set_rst_xtk),
    pt_row(row_pulsar3_set_xtk_corr),
    pt_row(row_pulsar3_set_ringing),
    pt_row(row_pulsar3_set_trigger_b),
    pt_row(row_pulsar3_set_trigger_c),
    pt_row(row_pulsar3_set_servo),
    pt_row(row_pulsar3_set_servo2),
    pt_row(row_pulsar3_init_brams),
    pt_row(row_pulsar3_init_event_tail),
    pt_row(row_pulsar3_set_scaling),
    pt_row(row_pulsar3_set_roi),
    pt_row(row_pulsar3_set_window),
    pt_row(row_pulsar3_set_good_thres),
    pt_row(row_pulsar3_start),
    pt_row(row_pulsar3_read_scope_data),
    pt_row(row_pulsar3_load_event_lead),
    pt_row(row_pulsar3_load_event_tail),
    pt_row(row_pulsar3_load_xtk_shape),
    pt_row(row_pulsar3_load_xtk_map),
    pt_row(row_pulsar3_load_width_time),
    pt_row(row_pulsar3_load_servo_tail),
    pt_row(row_pulsar3_format_run),
    pt_row(row_pulsar3_set_pileup_max_width),
    pt_row(row_pulsar3_open_mca),
    pt_row(row_pulsar3_open_scalers),
    pt_row(row_pulsar3_set_adc_mux),
    pt_row(row_pulsar3_set_scope_search),
    pt_row(row_pulsar3_save_settings),
    pt_row(row_pulsar3_restore_settings),
    pt_row(row_pulsar3_set_glob_rst_gen),
    pt_row(row_pulsar3_set_cal_events),
    pt_row(row_pulsar3_check_progress),
    pt_row(row_pulsar3_set_threading),
    pt_row(row_pulsar3_check_settings),
    pt_row(row_pulsar3_setup_diag),
    pt_row(row_pulsar3_set_sync_mode),
    pt_row(row_pulsar3_set_user_tsync),
    pt_subtree("hist", hist_table, "prefix for histogramming"),
    pt_subtree("dtc", dtc_table, "prefix for dead-time correction"),
    pt_row(row_pulsar3_dma),
    pt_row(row_pulsar3_adc_board),
    pt_row(row_pulsar3_close),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_pulsar3 = pt_subtree("pulsar3", pulsar3_table, "prefix for PULSAR3 functions");

} // namespace kestrel
