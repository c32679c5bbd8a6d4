// stream/fits: what a peak fit does that names a site of workers: sends blocks, fetches results, and waits, with progress
// and ^C, whatever becomes of the broker and the workers. Prints to the session.
#pragma once

namespace kestrel::stream {

// Fills peak_fit_far.
void fit_far_init();

} // namespace kestrel::stream
