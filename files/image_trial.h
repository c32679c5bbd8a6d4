// files: a file is tried by a program of its own before this one reads it. The HDF5 library can crash, spin, or ask
// for absurd memory over a corrupt file; then that program ends and not the server. Used by the command thread.
#pragma once

#include <chrono>
#include <string>

namespace kestrel {

// Starts the program with the open file as its standard input, `argument` and, if it is not empty, `second`, and waits for its end, which ^C and the
// limit bring about. It has no descriptors of ours but this one. The cause why it did not end well, in words: the
// first line it wrote to its standard output, if it ended by itself. Empty when all is well.
std::string run_trial(const std::string &program, const std::string &argument, int file,
                      std::chrono::milliseconds limit, const std::string &second = {});

// Whether the HDF5 library opens the file and reads all data of its image, or of the dataset of that name: the cause if
// not, else empty.
std::string try_image(int file, const std::string &dataset);

} // namespace kestrel
