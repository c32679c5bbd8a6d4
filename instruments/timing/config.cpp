// `kairo config` and `get-version`: which unit there is, and that it is driven by another server.
#include "instruments/links/clients.h"
#include "instruments/timing/commands.h"
#include "instruments/timing/forward.h"
#include "instruments/timing/frame_times.h"
#include "instruments/timing/kairo.h"
#include "parser/qualifiers.h"
#include "server/output.h"
#include "unified/handles/handles.h"

#include <optional>
#include <string>

namespace kestrel {

namespace {

using links::link_kairo;

constexpr pt_format config_format("%s kairo2 max-frames %d debug remote server %s port %d mrl-ikairo = %d");
using config_quals = pt_qualifiers<config_format>;

constexpr int tallis_frames = 1024, brecon_frames = 32768, merlot_frames = 65537;
constexpr int default_port = 1972, port_max = 65535;

struct config_plan {
    std::string text; // the remote's command
    int version = rkairo_tallis;
    int max_frames = tallis_frames;
};

int refuse_local(int cn, const config_quals &q) {
    if (q.given("kairo2"))
        sv_printf(cn, "! ERROR: KAIRO2 is not supported under OS9000 (yet?)\n");
    else if (q.given("mrl-ikairo"))
        sv_printf(cn, "! ERROR: MRLHIST IKAIRO is not supported under OS9000 (yet?)\n");
    else
        sv_printf(cn, "! KAIRO 1 not supported\n");
    return -1;
}

std::optional<config_plan> plan_of(int cn, const config_quals &q, const char *device) {
    const auto name = kairo_quoted(cn, device);
    if (!name)
        return std::nullopt;
    if (q.given("max-frames") && q.number("max-frames") < 1) {
        sv_printf(cn, "! ERROR: max-frames should be at least 1, not %d\n", q.number("max-frames"));
        return std::nullopt;
    }
    config_plan plan{"kairo config" + *name};
    if (q.given("kairo2")) {
        plan.version = rkairo_brecon;
        plan.max_frames = q.number("max-frames", brecon_frames);
        plan.text += " kairo2";
        if (q.given("max-frames"))
            plan.text += " max-frames" + kairo_number(plan.max_frames);
    }
    if (q.given("mrl-ikairo")) {
        plan.version = rkairo_merlot;
        plan.max_frames = merlot_frames;
        plan.text += " mrl-ikairo";
    }
    return plan;
}

// The link goes back to the server of before unless keep() says that the new one is configured.
class moved_link {
  public:
    moved_link() : host_(links::clientconfig[link_kairo].host), port_(links::clientconfig[link_kairo].port) {}
    ~moved_link() {
        if (moved_)
            links::client_redefine(cn_, link_kairo, host_.c_str(), port_);
    }
    moved_link(const moved_link &) = delete;
    moved_link &operator=(const moved_link &) = delete;

    int move(int cn, const char *host, int port) {
        cn_ = cn;
        moved_ = true;
        links::client_redefine(cn, link_kairo, host, port);
        return links::client_connect(cn, link_kairo);
    }
    void keep() { moved_ = false; }

  private:
    std::string host_;
    int port_;
    int cn_ = -1;
    bool moved_ = false;
};

int go_to_server(int cn, const config_quals &q, moved_link &link) {
    const int port = q.number("port", default_port);
    if (port < 1 || port > port_max) {
        sv_printf(cn, "! ERROR: port should be 1..%d, not %d\n", port_max, port);
        return -1;
    }
    if (!q.given("server"))
        return 0;
    if (link.move(cn, std::string(q.text("server")).c_str(), port) == 0)
        return 0;
    sv_printf(cn, "! ERROR: Cannot connect to remote KAIRO server\n");
    return -1;
}

void forget_starts() {
    kairo.num_starts = 0;
}

// Until all of it has succeeded, what was configured before stays.
int config(int quals, int cn, const char *device) {
    const config_quals q(quals);
    if (!q.given("remote"))
        return refuse_local(cn, q);
    const std::optional<config_plan> plan = plan_of(cn, q, device);
    if (!plan)
        return -1;
    new_frame_times times(cn);
    if (times.make(plan->max_frames) != 0)
        sv_printf(cn, "# Cannot create kairo_times module, proceeding without\n");
    moved_link link;
    if (go_to_server(cn, q, link) != 0)
        return -1;
    if (kairo_send(cn, plan->text) < 0) {
        sv_printf(cn, "! ERROR sending '%s' to remote KAIRO server\n", plan->text.c_str());
        return -1;
    }
    if (unified_set_clear_callback(cn, forget_starts) != 0 || kairo_fetch_frames(cn) < 0 ||
        unified_set_dtc_module(cn, frame_times_name) != 0)
        return -1;
    link.keep();
    times.keep();
    kairo.kairo_version = kairo_remote;
    kairo.rkairo_version = plan->version;
    kairo.debug = q.given("debug");
    kairo.num_laps = 1;
    kairo.num_starts = 0;
    return 0;
}

struct known_version {
    int version;
    const char *text;
    int result;
};
constexpr known_version local_versions[] = {
    {kairo_brecon, "# LOCAL KAIRO2 Brecon\n", 2},
    {kairo_ikairo, "# LOCAL MERLOT Integrated KAIRO (Ripple Pri Enc)\n", 50}};
constexpr known_version remote_versions[] = {{rkairo_brecon, "# REMOTE KAIRO2 Brecon\n", 102},
                                             {rkairo_merlot, "# REMOTE MERLOT IKAIRO\n", 150},
                                             {rkairo_tallis, "# REMOTE KAIRO1 Tallis\n", 101}};

template <std::size_t N> const known_version *find(const known_version (&table)[N], int version) {
    for (const known_version &known : table) {
        if (known.version == version)
            return &known;
    }
    return nullptr;
}

int get_version(int, int cn) {
    const bool remote = kairo.kairo_version == kairo_remote;
    const known_version *known =
        remote ? find(remote_versions, kairo.rkairo_version) : find(local_versions, kairo.kairo_version);
    if (known) {
        sv_print(cn, known->text);
        return known->result;
    }
    if (remote)
        sv_printf(cn, "! ERROR: Unknown remote KAIRO version number %d\n", kairo.rkairo_version);
    else
        sv_printf(cn, "! ERROR: KAIRO not configured yet. Use get-version after config\n");
    return -1;
}

} // namespace

constinit const PARSE_TREE row_kairo_config = pt_command<config>(
    "config", config_format, "configure KAIRO or KAIRO2",
    "Device name/Enhanced unit KAIRO2/Maximum frames of the kairo_times module/Show what is sent/"
    "Unit of a remote server/Server/Port of the server (default 1972)/MERLOT integrated unit");
constinit const PARSE_TREE row_kairo_get_version =
    pt_command<get_version>("get-version", " = %d", "get the version of the KAIRO", "");

} // namespace kestrel
