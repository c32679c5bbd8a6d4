// sim/instruments: the command line.
#pragma once

namespace kestrel {

// Takes the options of the instruments out of argv; the rest is the server's. Ends the process, with the usage, at a
// value that makes no sense. Returns the text port.
int bench_take_options(int &argc, char **argv);

} // namespace kestrel
