// stream/fits: what the keys of fits at a broker are called, and how long each stands when nobody looks after it.
#pragma once

#include "stream/broker.h"
#include "stream/fits/message.h"

namespace kestrel::stream {

inline constexpr const char *fit_group = "workers";       // of consumers of the stream
inline constexpr const char *fit_job_life = "60000";      // ms
inline constexpr const char *fit_stream_life = "3600000"; // ms

struct fit_keys {
    std::string job, results, done;
};

// The stream of blocks, for programs that give the same bits.
inline std::string fit_stream_key(const broker_site &site) {
    return site.key("fits:" + fit_id_text(fit_fingerprint()));
}

// Who works on it: a sorted set of names by the broker's own time, in ms, when each last said so.
inline std::string fit_workers_key(const broker_site &site) {
    return fit_stream_key(site) + ":workers";
}

// The broker's time in ms; 0 when it does not tell.
inline long long fit_broker_time(broker &connection) {
    const broker_reply time = connection.command({"TIME"});
    return time.at(0).integer().value_or(0) * 1000 + time.at(1).integer().value_or(0) / 1000;
}

// Of one job: its message (a string), results by block numbers (a hash), numbers of blocks that are done (a list).
inline fit_keys fit_keys_of(const broker_site &site, std::uint64_t id) {
    const std::string front = site.key("fit:" + fit_id_text(id));
    return {front + ":job", front + ":results", front + ":done"};
}

} // namespace kestrel::stream
