#include "instruments/links/remote_module.h"

#include "instruments/links/clients.h"
#include "server/output.h"
#include "support/byte_order.h"
#include "support/element.h"

#include <utility>

namespace kestrel::links {

remote_module::remote_module(int cn, int link, const std::string &name)
    : cn_(cn), link_(link), handle_(send_wait(cn, link, "module open '" + name + "' header")),
      generation_(client_generation(link)) {}

remote_module::~remote_module() {
    close();
}

int remote_module::ask(const char *question) const {
    return send_same_connection(cn_, link_, generation_,
                                std::string(question) + " " + std::to_string(handle_));
}

int remote_module::read(int nx, int ny, int type, std::byte *data) const {
    const std::string command = "read 0 0 0 " + std::to_string(nx) + " " + std::to_string(ny) + " 1 from " +
                                std::to_string(handle_) + " " + element_names[type] +
                                (machine_is_intel ? " intel" : " motorola");
    const std::size_t elements = static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny);
    const std::size_t bytes = elements * static_cast<std::size_t>(element_size(type));
    return clients_get_data(cn_, link_, generation_, command, data, bytes) >= 0 ? 0 : -1;
}

int remote_module::close() {
    const int handle = std::exchange(handle_, -1);
    if (handle < 0)
        return 0;
    if (!connected_to(link_) || client_generation(link_) != generation_)
        return -1; // the remote closed it with the connection
    if (send_same_connection(cn_, link_, generation_, "module close " + std::to_string(handle)) >= 0)
        return 0;
    sv_printf(cn_, "! close returned error\n");
    return -1;
}

} // namespace kestrel::links
