#include "server/include_level.h"

#include "server/client_descriptor.h"

namespace kestrel {

int sv_get_include_lvl(int cn) {
    return sv_is_valid(cn) ? client[cn].script.include_lvl : 0;
}

script_file *sv_get_include(int cn) {
    return sv_is_valid(cn) ? client[cn].script.include : nullptr;
}

include_level::include_level(int cn, script_file &file)
    : cn_(cn), outer_(client[cn].script.include), outer_in_(client[cn].in) {
    session_script &script = client[cn].script;
    if (script.include_lvl == 0)
        script.include_top_path = outer_in_;
    client[cn].in = file.fd();
    script.include = &file;
    ++script.include_lvl;
}

include_level::~include_level() {
    if (!sv_is_valid(cn_))
        return;
    session_script &script = client[cn_].script;
    --script.include_lvl;
    script.include = outer_;
    client[cn_].in = outer_in_;
}

} // namespace kestrel
