// app: what this program does when the server core asks.
#pragma once

#include "server/hooks.h"

namespace kestrel {

server_hooks app_hooks();

} // namespace kestrel
