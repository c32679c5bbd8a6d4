// pulsar3/lib/paths: the system table. A path is one card (a leaf) or a node that groups the leaf paths of several
// cards under one channel numbering.
//
// Table and error text are unlocked: the library is called by the command thread. Receive threads touch the histogram
// state of their own channel only.
#pragma once

#include "modules/store/result_module.h"
#include "pulsar3/lib/frames/histogram.h"
#include "pulsar3/lib/frames/mini_readout.h"
#include "pulsar3/lib/frames/udp.h"
#include "pulsar3/lib/paths/dummy.h"
#include "pulsar3/lib/paths/features.h"
#include "pulsar3/lib/paths/roi.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/fem.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <sched.h>

namespace kestrel {

inline constexpr int plr3_max_paths = 34;
inline constexpr int plr3_max_sub_paths = 33;
inline constexpr int plr3_max_cards = 32; // of one system
inline constexpr int plr3_chans_per_card_max = 16;
inline constexpr int plr3_default_bins = 4096;               // energy bins of a spectrum
inline constexpr int plr3_nr_scalers = 9;                    // of a channel and time frame
inline constexpr double plr3_default_clock_period = 1.25e-8; // seconds: 80 MHz

enum PulsarDummy : int {
    PulsarReal = 0,
    PulsarDummy3 = 1,
    PulsarDummy3V7 = 2,
    PulsarDummy3Mini = 3,
    PulsarDummy4 = 4,
};

// What a mini model sends of itself, a bit set.
enum Plr3mReadoutMode : int {
    Plr3mRd_Auto = 0,
    Plr3mRd_SendScalars = 1,
    Plr3mRd_SendHistFrames = 2,
    Plr3mRd_SendHistList = 4,
    Plr3mRd_Passive = 256,
};

enum plr3_run_flag : int {
    plr3_run_playback = 1,
    plr3_run_scope = 2,
    plr3_run_scalers = 4,
    plr3_run_hist = 8,
    plr3_run_diag_hist = 16,
    plr3_run_circular = 0x100,
};

// Dead times of a channel: seconds (rate terms: seconds squared) at no energy, and a unit of energy more.
struct ChannelDTC {
    int flags = 0; // of plr3_dtc_flag
    double processDeadTimeAllEventGradient = 0, processDeadTimeAllEventOffset = 0;
    double processDeadTimeInWindowOffset = 0, processDeadTimeInWindowGradient = 0;
    double processDeadTimeAllEventRateGradient = 0, processDeadTimeAllEventRateOffset = 0;
    double processDeadTimeInWindowRateOffset = 0, processDeadTimeInWindowRateGradient = 0;
};

enum plr3_dtc_flag : int {
    plr3_dtc_omit = 1,           // the channel does not count
    plr3_dtc_use_good_event = 2, // the events above the good threshold are its events
};

// How a card's clocks are set up.
struct ClockSetup {
    int clk_src = 0;                           // of plr3_clock_source
    int flags = 0;                             // of plr3_clock_flag
    int tp_type = 0;                           // shape of the test pulse: 0 none, 1..3
    int adc_clk_delay = 0, fpga_clk_delay = 0; // steps, 0..255
};

struct PLR3Path {
    std::unique_ptr<FemHandle> femHandle; // null for a node and for a dummy
    int type = 0;                         // 1: a node
    int valid = 0;                        // while the path is open
    int debug = 0;                        // 0..2
    std::array<int, plr3_max_sub_paths> sub_path = no_sub_paths();
    int chans_per_card = 0;
    int num_cards = 0;
    int num_chan = 0;     // in use
    int max_num_chan = 0; // there are
    int revision = 0;
    int run_flags = plr3_run_scalers | plr3_run_hist;
    std::uint32_t hist_frames_num_tf = 0;
    std::uint32_t total_scaler_num_tf = 0, scaler_num_tf = 0;
    int startingCard = 0;
    Pulsar3_features features;
    UDPconnection udpsock; // for scope data
    result_module scope_mod, hist_mod, scalers_mod, tf_status_mod, scalar_tf_status_mod, progress_mod,
        run_sheet_mod;
    // Of a card's channels. They end before the modules go that their threads write to.
    std::array<std::unique_ptr<Histogram>, plr3_chans_per_card_max> histogram;
    std::unique_ptr<mini_readout> readout; // of a mini model that sends by itself
    bool run_started = false;              // a run whose end is not known
    // Time frames of the run before, where card 0 did not run when this one was started: they stay until it does.
    std::optional<std::uint32_t> frames_before;
    plr3_clock::time_point start_time{}; // of the last run
    int disable_multi_thread = 0;
    int chan_of_system = 0;                              // the first of this path
    std::array<ChannelDTC, plr3_chans_per_card_max> dtc; // of this card's channels
    double deadtimeEnergy = 0;                           // at which dead times are taken
    int scaler_num_sub_frames = 1;                       // of a time frame
    int mem_layout = 0;
    int sync_mode = 0; // whose run line the cards follow
    ClockSetup clock_setup;
    double clock_period = plr3_default_clock_period;    // seconds a tick
    cpu_set_t scope_cpu_set = no_processors();          // for the threads that receive scope data; none: any
    std::array<roi_table, plr3_chans_per_card_max> roi; // of this card's channels
    Plr3mReadoutMode readout_mode = Plr3mRd_Auto;
    PulsarDummy dummy_system = PulsarReal;
    dummy_registers dummy; // of a dummy card
    int message_to = -1;   // who configured it: see plr3_message

  private:
    static constexpr std::array<int, plr3_max_sub_paths> no_sub_paths() {
        std::array<int, plr3_max_sub_paths> none{};
        none.fill(-1);
        return none;
    }
    static cpu_set_t no_processors() {
        cpu_set_t none;
        CPU_ZERO(&none);
        return none;
    }
};

extern std::array<PLR3Path, plr3_max_paths> Plr3Sys;

// Makes a record new; what it owned is released.
void plr3_reset(PLR3Path &path);

// The open path, or null for a number outside the table and for a closed one.
PLR3Path *plr3_path(int path);
// How many leaves a path has (a leaf: itself), and the number of each: -1 where there is none.
int plr3_leaf(const PLR3Path &top, int path, int card);

// System channel to card: 0, or plr3_out_of_range or plr3_failed. `path` must be open.
int plr3_resolve_path(int path, int chan, int &card_path, int &chan_of_card);
int plr3_resolve_path_chan_card(int path, int chan, int &card_path, int &chan_of_card, int &card);

// The record's fields, or plr3_invalid_path.
int plr3_get_revision(int path);
int plr3_get_num_chan(int path);
int plr3_get_num_cards(int path);
int plr3_get_chans_per_card(int path);
int plr3_get_max_num_chan(int path);
int plr3_get_bins_per_mca(int path);
int plr3_get_num_chan_used(int path);
int plr3_get_first_card(int path);

// Uses the first `channels` channels of the path.
int plr3_set_num_chan(int path, int channels);
int plr3_set_run_flags(int path, int flags);
int plr3_get_run_flags(int path);
// `burst` messages of the receive threads are let through, whatever the level; 0 for none.
int plr3_set_debug(int path, int level, int burst);
int plr3_set_disable_threading(int path, int value);
int plr3_get_disable_threading(int path);

} // namespace kestrel
