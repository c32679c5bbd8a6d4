#include "pulsar3/lib/config/config.h"

#include "pulsar3/lib/config/config_steps.h"
#include "pulsar3/lib/counts/progress.h"
#include "pulsar3/lib/counts/shape.h"

#include <algorithm>

namespace kestrel {

namespace {

constexpr int last_card = 62; // of an installation

// Closes a path that a failing step leaves behind.
class opened_path {
  public:
    explicit opened_path(int path) : path_(path) {}
    opened_path(const opened_path &) = delete;
    opened_path &operator=(const opened_path &) = delete;
    ~opened_path() {
        if (path_ >= 0)
            plr3_discard(path_);
    }
    int keep() {
        const int path = path_;
        path_ = -1;
        return path;
    }

  private:
    int path_;
};

int check_request(const plr3_request &r) {
    if (r.num_tf < 1)
        return plr3_fail(plr3_failed, "plr3_config: number of time frames %d should be at least 1", r.num_tf);
    if (r.basePort > plr3_highest_port)
        return plr3_fail(plr3_failed, "plr3_config: base port %d is out of range 1 to %d", r.basePort,
                         plr3_highest_port);
    const long long end = static_cast<long long>(r.card_index) + r.ncards;
    if (r.card_index < 0 || end > last_card + 1)
        return plr3_fail(plr3_failed, "plr3_config: starting card %d + ncards %d is out of range 0 to %d",
                         r.card_index, r.ncards, last_card);
    return 0;
}

config_plan make_plan(const plr3_request &r) {
    config_plan plan;
    plan.asked = r;
    plan.fem_port1 = r.basePort < 1 ? plr3_default_port : r.basePort;
    plan.fem_port2 = plan.fem_port1 + 1;
    const char *ip = r.baseIPaddress.empty() ? plr3_default_ip : r.baseIPaddress.c_str();
    const char *mac = r.baseMACaddress.empty() ? plr3_default_mac : r.baseMACaddress.c_str();
    const plr3_mac base = plr3_mac_base(mac);
    plan.data_link = std::ranges::any_of(base, [](std::uint8_t byte) { return byte != 0; });
    for (int card = 0; card < r.ncards; ++card)
        plan.cards.push_back(plr3_card_addresses(ip, mac, r.card_index, card));
    return plan;
}

void tell_plan(const config_plan &plan) {
    const plr3_request &r = plan.asked;
    const int to = r.message_to;
    if (r.debug) {
        for (std::size_t i = 0; i < plan.cards.size(); ++i) {
            const card_addresses &a = plan.cards[i];
            plr3_message(to, "pulsar3_config: Card %d\n", static_cast<int>(i));
            plr3_message(to, "pulsar3_config: host10GigeIPaddress %s\n", a.host10GigeIPaddress.c_str());
            plr3_message(to, "pulsar3_config: femIPaddress %s\n", a.femIPaddress.c_str());
            plr3_message(to, "pulsar3_config: fem10GigeIPaddress %s\n", a.fem10GigeIPaddress.c_str());
            plr3_message(to, "pulsar3_config: femMACaddress %s\n", a.femMACaddress.c_str());
        }
        plr3_message(to, "pulsar3_config: 1GigePort %d\n", plan.fem_port1);
        plr3_message(to, "pulsar3_config: 10GigePort %d\n", plan.fem_port2);
        plr3_message(to, "pulsar3_config: nchan %d\n", r.num_chan);
        plr3_message(to, "pulsar3_config: scope module name %s\n", r.modname.c_str());
    }
    if (!plan.data_link)
        plr3_message(to, "Warning omitting UDP (or Pulsar3mini active readout TCP) setup\n");
}

// step(card's record) for each card of the path.
template <class F> int for_cards(int path, F step) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = 0; card < top.num_cards; ++card)
        if (const int status = step(*plr3_path(plr3_leaf(top, path, card))); status != 0)
            return status;
    return 0;
}

void make_channels(int path) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = 0; card < top.num_cards; ++card) {
        const int leaf = plr3_leaf(top, path, card);
        plr3_make_channels(*plr3_path(leaf), leaf, card);
    }
}

int wrapped(int status) {
    return plr3_fail(status, "plr3_config: %s", plr3_get_error_message());
}

int set_up(int path, const config_plan &plan) {
    const plr3_request &r = plan.asked;
    int status = for_cards(path, plr3_check_frames);
    if (status == 0)
        status = plr3_write_frames(path, r.num_tf);
    if (status == 0)
        status = for_cards(path, [&r](PLR3Path &card) { return plr3_settle_readout_mode(card, r); });
    make_channels(path);
    if (status == 0)
        status = for_cards(path, plr3_make_data_areas);
    if (status == 0)
        status = plr3_make_scope_module(*plr3_path(path), r);
    if (status == 0 && plan.data_link)
        status = plr3_set_up_data_link(path, plan);
    if (status != 0)
        return status;
    if (r.do_init)
        status = plr3_write_defaults(path);
    if (status == 0)
        status = plr3_follow_formats(path);
    if (status == 0)
        status = plr3_make_progress(path);
    return status == 0 ? 0 : wrapped(status);
}

} // namespace

int plr3_config_init(const plr3_request &request) {
    plr3_request r = request;
    if (r.ncards < 1)
        return plr3_fail(plr3_failed, "plr3_config: invalid number of ncards=%d", r.ncards);
    if (r.card_index == -1)
        r.card_index = 0;
    if (const std::optional<int> known = plr3_saved_path(r))
        return *known;
    if (const int status = check_request(r); status != 0)
        return status;
    const plr3_request as_asked = r;
    if (r.modname.empty())
        r.modname = "plr3_scope" + std::to_string(r.card_index);
    const config_plan plan = make_plan(r);
    tell_plan(plan);
    const int path = plr3_open_cards(plan);
    if (path < 0)
        return path;
    opened_path guard(path);
    if (const int status = set_up(path, plan); status != 0)
        return status;
    plr3_keep_data_areas(*plr3_path(path));
    for_cards(path, [](PLR3Path &card) {
        plr3_keep_data_areas(card);
        return 0;
    });
    plr3_save_config(as_asked, path);
    if (r.debug > 1)
        plr3_message(r.message_to, "Returning path %d\n", path);
    return guard.keep();
}

int plr3_config(plr3_request request) {
    request.do_init = 1;
    request.readout_mode = Plr3mRd_Auto;
    request.dummy_system = PulsarReal;
    return plr3_config_init(request);
}

} // namespace kestrel
