// The list of the `pulsar3 dma` commands: a new command is a file with handler and row, and its name twice in here.
#include "pulsar3/server/commands.h"

namespace kestrel {

extern const PARSE_TREE row_pulsar3_dma_reset, row_pulsar3_dma_build_test_pat, row_pulsar3_dma_print_data,
    row_pulsar3_dma_print_scope, row_pulsar3_dma_print_desc, row_pulsar3_dma_read_status,
    row_pulsar3_dma_read_status_block, row_pulsar3_dma_read_glob_reg, row_pulsar3_dma_write_glob_reg,
    row_pulsar3_dma_read_chan_reg, row_pulsar3_dma_mdio_set_conn, row_pulsar3_dma_read_mdio,
    row_pulsar3_dma_write_mdio, row_pulsar3_dma_read_time_stat_a, row_pulsar3_dma_check_desc,
    row_pulsar3_dma_get_desc_status, row_pulsar3_dma_set_trigger_regs_b, row_pulsar3_dma_set_trigger_regs_c,
    row_pulsar3_dma_set_reset_reg, row_pulsar3_dma_set_glitch_reg, row_pulsar3_dma_set_servo_regs,
    row_pulsar3_dma_set_ppc_debuglevel, row_pulsar3_dma_read_adc_temp, row_pulsar3_dma_read_mid_plane_temp,
    row_pulsar3_dma_read_fpga_temp, row_pulsar3_dma_read_lm82_regs, row_pulsar3_dma_set_adc_temp,
    row_pulsar3_dma_read_fem_config, row_pulsar3_dma_set_fem_config, row_pulsar3_dma_get_revision,
    row_pulsar3_dma_get_features, row_pulsar3_dma_set_int_pack_gap, row_pulsar3_dma_setup_b2b_loopback,
    row_pulsar3_dma_show_b2b_status, row_pulsar3_dma_set_b2b_ecc, row_pulsar3_dma_init_xtk_map,
    row_pulsar3_dma_read_adc_clk, row_pulsar3_dma_setup_adc_mmcm, row_pulsar3_dma_reset_adc_mmcm,
    row_pulsar3_dma_measure_freq, row_pulsar3_dma_get_clock_period, row_pulsar3_dma_set_udp_buffers,
    row_pulsar3_dma_get_udp_buffers, row_pulsar3_dma_ethernet_status, row_pulsar3_dma_toggle_enb,
    row_pulsar3_dma_write_chan_reg, row_pulsar3_dma_print_regs, row_pulsar3_dma_list_fields;

namespace {

constinit const PARSE_TREE dma_table[] = {
    pt_row(row_pulsar3_dma_reset),
    pt_row(row_pulsar3_dma_build_test_pat),
    pt_row(row_pulsar3_dma_print_data),
    pt_row(row_pulsar3_dma_print_scope),
    pt_row(row_pulsar3_dma_print_desc),
    pt_row(row_pulsar3_dma_read_status),
    pt_row(row_pulsar3_dma_read_status_block),
    pt_row(row_pulsar3_dma_read_glob_reg),
    pt_row(row_pulsar3_dma_write_glob_reg),
    pt_row(row_pulsar3_dma_read_chan_reg),
    pt_row(row_pulsar3_dma_mdio_set_conn),
    pt_row(row_pulsar3_dma_read_mdio),
    pt_row(row_pulsar3_dma_write_mdio),
    pt_row(row_pulsar3_dma_read_time_stat_a),
    pt_row(row_pulsar3_dma_check_desc),
    pt_row(row_pulsar3_dma_get_desc_status),
    pt_row(row_pulsar3_dma_set_trigger_regs_b),
    pt_row(row_pulsar3_dma_set_trigger_regs_c),
    pt_row(row_pulsar3_dma_set_reset_reg),
    pt_row(row_pulsar3_dma_set_glitch_reg),
    pt_row(row_pulsar3_dma_set_servo_regs),
    pt_row(row_pulsar3_dma_set_ppc_debuglevel),
    pt_row(row_pulsar3_dma_read_adc_temp),
    pt_row(row_pulsar3_dma_read_mid_plane_temp),
    pt_row(row_pulsar3_dma_read_fpga_temp),
    pt_row(row_pulsar3_dma_read_lm82_regs),
    pt_row(row_pulsar3_dma_set_adc_temp),
    pt_row(row_pulsar3_dma_read_fem_config),
    pt_row(row_pulsar3_dma_set_fem_config),
    pt_row(row_pulsar3_dma_get_revision),
    pt_row(row_pulsar3_dma_get_features),
    pt_row(row_pulsar3_dma_set_int_pack_gap),
    pt_row(row_pulsar3_dma_setup_b2b_loopback),
    pt_row(row_pulsar3_dma_show_b2b_status),
    pt_row(row_pulsar3_dma_set_b2b_ecc),
    pt_row(row_pulsar3_dma_init_xtk_map),
    pt_row(row_pulsar3_dma_read_adc_clk),
    pt_row(row_pulsar3_dma_setup_adc_mmcm),
    pt_row(row_pulsar3_dma_reset_adc_mmcm),
    pt_row(row_pulsar3_dma_measure_freq),
    pt_row(row_pulsar3_dma_get_clock_period),
    pt_row(row_pulsar3_dma_set_udp_buffers),
    pt_row(row_pulsar3_dma_get_udp_buffers),
    pt_row(row_pulsar3_dma_ethernet_status),
    pt_row(row_pulsar3_dma_toggle_enb),
    pt_row(row_pulsar3_dma_write_chan_reg),
    pt_row(row_pulsar3_dma_print_regs),
    pt_row(row_pulsar3_dma_list_fields),
    pt_end(),
};

} // namespace

extern constinit const PARSE_TREE row_pulsar3_dma =
    pt_subtree("dma", dma_table, "prefix for low-level access to the cards");

} // namespace kestrel
