#include "stream/publication.h"

#include <algorithm>

namespace kestrel::stream {

frame_account publication::total(const published_run &run) const {
    frame_account sum;
    for (const run_lane &lane : run.lanes)
        if (lane.card >= 0)
            sum += ring.account(lane.number);
    return sum;
}

bool publication::is_told(const published_run &run) const {
    return std::ranges::all_of(
        run.lanes, [this](const run_lane &lane) { return ring.account(lane.number).waiting() == 0; });
}

frame_account publication::total() const {
    frame_account sum = before;
    for (const auto &run : runs)
        sum += total(*run);
    return sum;
}

} // namespace kestrel::stream
