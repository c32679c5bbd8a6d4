// sim/card: the command line, and the cards that it asks for.
#pragma once

namespace kestrel {

// Takes the options of the cards out of argv and makes the cards; the rest is the server's. Ends the process, with the
// usage, at an option that nobody knows or a value that makes no sense. Returns the text port.
int card_take_options(int &argc, char **argv);

} // namespace kestrel
