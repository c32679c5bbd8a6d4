// `pulsar3 hist list-mode`: a mini model's events into a file, while they are histogrammed.
#include "pulsar3/lib/counts/list_mode.h"
#include "parser/call.h"
#include "parser/qualifiers.h"
#include "pulsar3/server/commands.h"
#include "server/output.h"

#include <cstring>

namespace kestrel {

namespace {

constexpr pt_format list_mode_format("%d + %s = %d");

// False when the file ends before its run did.
bool tell(int cn, const list_mode_account &account) {
    sv_printf(cn, "# List-mode file %s: %llu events in %llu records\n", account.name.c_str(),
              account.events + 0ULL, account.records + 0ULL);
    if (account.error != 0)
        sv_printf(cn, "! ERROR: List-mode file %s ended early: %s\n", account.name.c_str(),
                  std::strerror(account.error));
    return account.error == 0;
}

int hist_list_mode(int, int cn, int path, const char *file) {
    pulsar3_say();
    std::vector<list_mode_account> ended;
    const bool starts = OptionalArgumentCount > 0;
    const int status = starts ? plr3_list_mode_start(path, file, ended) : plr3_list_mode_stop(path, ended);
    if (status != 0)
        return pulsar3_status(cn, status);
    bool whole = true;
    for (const list_mode_account &account : ended)
        whole = tell(cn, account) && whole;
    return whole || starts ? 0 : plr3_failed;
}

} // namespace

extern constinit const PARSE_TREE row_hist_list_mode = pt_command<hist_list_mode>(
    "list-mode", list_mode_format, "Write a mini model's events to a new file, or end that without a name",
    "Path/File");

} // namespace kestrel
