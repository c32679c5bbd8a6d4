// server: names of peers. A name server may take its time or never answer, so a thread of its own asks it and
// the command thread waits for a bounded time only; an answer that comes later is kept for the next question.
#include "server/host_names.h"

#include "server/client_descriptor.h"
#include "server/output.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <map>
#include <mutex>
#include <netdb.h>
#include <new>
#include <set>
#include <thread>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds name_wait{2}; // for all the names of one command
constexpr std::chrono::minutes name_life{10};

struct known_name {
    std::string name;
    steady::time_point since;
};

struct name_table {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<in_addr_t, known_name> known;
    std::set<in_addr_t> wanted;
    bool asking = false;
};

// Never destroyed: a question may still be out when the process ends.
name_table &names() {
    static name_table &table = *new name_table;
    return table;
}

std::string dotted(in_addr_t address) {
    char text[INET_ADDRSTRLEN] = "";
    const in_addr in{address};
    ::inet_ntop(AF_INET, &in, text, sizeof text);
    return text;
}

std::string ask_name_server(in_addr_t address) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = address;
    char host[NI_MAXHOST];
    const int error = ::getnameinfo(reinterpret_cast<const sockaddr *>(&peer), sizeof peer, host, sizeof host,
                                    nullptr, 0, NI_NAMEREQD);
    return error == 0 ? host : dotted(address);
}

void ask_for_all_wanted(name_table &table) {
    std::unique_lock lock(table.mutex);
    while (!table.wanted.empty()) {
        const in_addr_t address = *table.wanted.begin();
        lock.unlock();
        std::string name = ask_name_server(address);
        lock.lock();
        table.wanted.erase(address);
        table.known[address] = {std::move(name), steady::now()};
        table.changed.notify_all();
    }
    table.asking = false;
}

// The thread's own: without memory the names that are still wanted stay dotted addresses.
void ask_names() {
    name_table &table = names();
    try {
        ask_for_all_wanted(table);
    } catch (const std::bad_alloc &) {
        const std::lock_guard lock(table.mutex);
        table.wanted.clear();
        table.asking = false;
        table.changed.notify_all();
    }
}

// The table's mutex is held. The thread leaves signals to the command thread.
void start_asking(name_table &table) {
    if (table.asking)
        return;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread(ask_names).detach();
        table.asking = true;
    } catch (const std::exception &) {
        table.wanted.clear(); // no thread to be had: dotted addresses it is
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The names of these addresses, as far as they come in time; else the dotted address.
std::map<in_addr_t, std::string> host_names(const std::set<in_addr_t> &addresses) {
    name_table &table = names();
    std::unique_lock lock(table.mutex);
    const auto now = steady::now();
    std::erase_if(table.known, [&](const auto &entry) { return now - entry.second.since > name_life; });
    for (const in_addr_t address : addresses) {
        if (!table.known.contains(address))
            table.wanted.insert(address);
    }
    if (!table.wanted.empty())
        start_asking(table);
    table.changed.wait_until(lock, now + name_wait, [&] {
        return std::none_of(addresses.begin(), addresses.end(),
                            [&](in_addr_t address) { return table.wanted.contains(address); });
    });
    std::map<in_addr_t, std::string> result;
    for (const in_addr_t address : addresses) {
        const auto found = table.known.find(address);
        result[address] = found != table.known.end() ? found->second.name : dotted(address);
    }
    return result;
}

} // namespace

std::string sv_get_address(int cn) {
    return sv_is_valid(cn) ? dotted(client[cn].addr.sin_addr.s_addr) : std::string();
}

std::string sv_get_hostname(int cn) {
    if (!sv_is_valid(cn))
        return {};
    const in_addr_t address = client[cn].addr.sin_addr.s_addr;
    sv_flush_all(cn);
    return host_names({address})[address];
}

void sv_display_server_status(int cn) {
    if (!use_network) {
        sv_printf(cn, "# Not connected to the network.\n");
        return;
    }
    std::set<in_addr_t> addresses;
    for (const client_descriptor &c : client) {
        if (c.valid)
            addresses.insert(c.addr.sin_addr.s_addr);
    }
    sv_flush_all(cn);
    const std::map<in_addr_t, std::string> name = host_names(addresses);
    sv_printf(cn, "# Connection status:\n");
    for (int slot = 0; slot < sv_max_clients; ++slot) {
        const client_descriptor &c = client[slot];
        if (c.valid)
            sv_printf(cn, "#\t%d\tOpen\t%s:%d\n", slot, name.at(c.addr.sin_addr.s_addr).c_str(),
                      ntohs(c.addr.sin_port));
        else
            sv_printf(cn, "#\t%d\tClosed\n", slot);
    }
}

} // namespace kestrel
