// `module get-remote`: another server's module copied here, and the display told of modules that are new.
#include "instruments/links/clients.h"
#include "instruments/links/imgd.h"
#include "instruments/links/remote_module.h"
#include "modules/commands.h"
#include "modules/store/result_module.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <cstddef>
#include <new>
#include <optional>
#include <string>

namespace kestrel {

using namespace links;

namespace {

constexpr pt_format
    remote_format("%s +%s adc-x adc-y lku-x lku-y corr motor user1 user2 display1d display2d  = %d");
using remote_quals = pt_qualifiers<remote_format>;

constexpr remote_quals::choice<int> remote_links[] = {
    {"adc-x", link_adcx}, {"adc-y", link_adcy},   {"lku-x", link_lux},   {"lku-y", link_luy},
    {"corr", link_corr},  {"motor", link_motors}, {"user1", link_user1}, {"user2", link_user2}};

int no_info(int cn) {
    sv_printf(cn, "! Error getting info on remote module\n");
    return -1;
}

int read_into(int cn, int link, const remote_module &remote, int nx, int ny, int type, std::byte *data) {
    if (remote.read(nx, ny, type, data) == 0)
        return 0;
    if (connected_to(link))
        sv_printf(cn, "read returned error from client when transfering data\n");
    else
        sv_printf(cn, "read returned error from client\n");
    return -1;
}

// Everything between the remote open and the remote close.
int fetch(int cn, int link, const remote_module &remote, const char *local) {
    const int nx = remote.ask("unif-get-nx");
    const int ny = nx < 0 ? -1 : remote.ask("unif-get-ny");
    const int type = ny < 0 ? -1 : remote.ask("unif-get-type");
    if (type < 0)
        return no_info(cn);
    const auto element = mod_element_of_handle_type(type);
    if (!element) {
        sv_printf(cn, "! ERROR: Unknow remote data module type %d\n", type);
        return -1;
    }
    result_module module;
    if (module.make(cn, local, {*element, nx, ny}) != 0) {
        sv_printf(cn, "! Cannot make local module\n");
        return -1;
    }
    const module_view &view = module.view();
    if (view.num_x != nx || view.num_y != ny || view.element_size != mod_element_size(*element)) {
        sv_printf(cn, "! Cannot link to data module, but I don't know why!\n");
        return -1;
    }
    if (read_into(cn, link, remote, nx, ny, type, view.data()) != 0)
        return -1;
    module.keep();
    return 0;
}

void show(int cn, const char *dimensions, const char *local) {
    if (imgd_display_enabled())
        send_wait(cn, link_imgd, std::string("module open '") + local + "' display" + dimensions);
}

int module_get_remote(int quals, int cn, const char *remote, const char *local) {
    const remote_quals q(quals);
    const std::optional<int> link = q.only(remote_links);
    if (!link) {
        sv_printf(cn, "! Must Supply one of adc-x adc-y lku-x lku-y corr motors user1 user2\n");
        return -1;
    }
    const int displays = q.count({"display1d", "display2d"});
    const char *dimensions = q.given("display1d") ? "1d" : "2d";
    if (displays > 1)
        sv_printf(cn, "! Cannot display module as both 1D and 2D\n");
    if (!local)
        local = remote;
    remote_module there(cn, *link, remote);
    if (!there) {
        sv_printf(cn, "! Cannot open handle to module\n");
        return -1;
    }
    const int fetched = fetch(cn, *link, there, local);
    const int closed = there.close();
    if (fetched != 0 || closed != 0)
        return -1;
    module_announce(cn, local);
    if (displays == 1)
        show(cn, dimensions, local);
    return 0;
}

} // namespace

void module_announce(int cn, const char *name) try {
    const module_link held{name};
    module_view view;
    if (held && mod_look(held.head(), view) == nullptr)
        imgd_module_new(cn, name, view.num_x, view.num_y, view.num_t);
} catch (const std::bad_alloc &) {
    imgd_not_told(cn, name);
}

constinit const PARSE_TREE row_module_get_remote = pt_command<module_get_remote>(
    "get-remote", remote_format, "Copy a remote module to a local module",
    "Remote module name/Optional different local name/Form ADC X/ADC Y/Lookup X/Lookup Y/Correlator/"
    "Motor Server/User server1/User Server2/Display in image displayer");

} // namespace kestrel
