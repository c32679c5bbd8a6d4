// pulsar3/lib/frames: receiving a run of frames (scope data) over the data link, asking again for what was lost.
#pragma once

#include "pulsar3/lib/frames/run_receiver.h"
#include "pulsar3/lib/frames/udp.h"

#include <functional>

namespace kestrel {

struct run_request {
    run_shape shape;
    bool farm_mode = false; // the card's feature: packets may be padded
    int debug = 0;
    // Asks the card for frames again, under the numbers that they had: 0, or a status with its text. May be empty.
    std::function<int(std::uint32_t first_frame, std::uint32_t num_frames)> resend;
};

// Receives until every frame has ended. The first packet is waited for as long as the connection's time-out says, the
// ones after it come close behind each other. 0 when all frames are whole; else a status with its text, and what has
// arrived is in the buffer. ^C ends it. What is wrong is said through plr3_message.
int plr3_read_data_10g_receive(UDPconnection &connection, const run_request &run, run_result &result);

} // namespace kestrel
