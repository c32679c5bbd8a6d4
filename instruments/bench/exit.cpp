// The room's end: loggers stop, connections close. No output is changed by it.
#include "instruments/bench/commands.h"
#include "instruments/bench/iseg.h"
#include "instruments/bench/ke2410.h"
#include "instruments/bench/ke2700.h"

namespace kestrel::bench {

void bench_exit() {
    logger_end(-1, ke2410.log);
    logger_end(-1, ke2700.log);
    line_close(ke2410.wire);
    line_close(ke2700.wire);
    line_close(iseg.wire);
    tti_exit();
}

} // namespace kestrel::bench
