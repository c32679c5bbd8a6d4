// instruments/links: the command tables of this room, for a root table to list.
#pragma once

#include "parser/tree.h"

namespace kestrel::links {

extern const PARSE_TREE client_tree[];
extern const PARSE_TREE send_tree[];
extern const PARSE_TREE motor_tree[];
extern const PARSE_TREE imgd_tree[];
extern const PARSE_TREE ftp_tree[];
extern const PARSE_TREE row_remote_open;

} // namespace kestrel::links
