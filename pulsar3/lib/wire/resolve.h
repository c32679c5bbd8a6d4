// pulsar3/lib/wire: a host's Internet address. A numeric one is taken as it is, a name is looked up.
#pragma once

#include <netinet/in.h>
#include <optional>

namespace kestrel {

std::optional<in_addr> plr3_resolve(const char *host);

} // namespace kestrel
