// What lies at a broker: any bytes are a message that can be worked on, or refused; what is taken comes out as it went in.
#include "maths/peak_fit/results.h"
#include "stream/fits/message.h"

#include <cstdlib>

using namespace kestrel;
using namespace kestrel::stream;

namespace {

constexpr std::uint64_t id = 1;

void check(bool good) {
    if (!good)
        std::abort();
}

// Touches every spectrum, as a worker does.
void look_at(const fit_block &block) {
    std::vector<double> spectrum;
    for (int s = 0; s < block.spectra.ns; ++s)
        for (int q = 0; q < block.spectra.nq; ++q)
            block.spectra.get(q, s, spectrum);
    check(block.q1 >= 0 && block.q2 < block.spectra.nq);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    std::string cause;
    if (const auto job = fit_decode_job(bytes, id, cause))
        check(fit_encode_job(*job).size() == size && job->request.last < job->channels);
    for (const int type : {el_float, el_long}) { // the second is packed
        const fit_job job{id, {}, 4, type};
        std::vector<std::uint32_t> counts;
        if (const auto block = fit_decode_block(bytes, job, counts, cause))
            look_at(*block);
    }
    if (const auto result = fit_decode_result(bytes, id, 0, 2, 3, cause))
        check(result->points.size() == 2 && result->points[1].values.size() == 3);
    return 0;
}
