#include "parser/command_counts.h"

#include "support/metrics_text.h"

#include <atomic>
#include <cstdint>

namespace kestrel {

namespace {

std::atomic<const PARSE_TREE *> running{nullptr}; // the innermost command

// A command's compiled format, which has its counts; null before its first use.
const _pt_args *used(const PARSE_TREE &command) {
    return std::atomic_ref(command.args).load(std::memory_order_acquire);
}

// One thread counts: it needs no locked addition.
void count(std::atomic<std::uint64_t> &number) {
    number.store(number.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// Calls f(words, command) for each command of the table and those below it.
template <class Function>
void for_each_command(const PARSE_TREE *table, const std::string &before, const Function &f) {
    for (const PARSE_TREE &row : pt_rows(table)) {
        const std::string words = before.empty() ? row.name : before + " " + row.name;
        if (row.type == PT_TYPE_SUBTREE)
            for_each_command(row.subtree, words, f);
        else if (row.type == PT_TYPE_COMMAND)
            f(words, row);
    }
}

void write_counts(std::string &out, const char *name, std::atomic<std::uint64_t> _pt_args::*count) {
    for_each_command(pt_root(), "", [&](const std::string &words, const PARSE_TREE &command) {
        if (const _pt_args *args = used(command))
            metric_sample(out, name, "command=" + metric_quoted(words), std::to_string(args->*count));
    });
}

} // namespace

counted_command::counted_command(const PARSE_TREE &command)
    : command_(command), outer_(running.load(std::memory_order_relaxed)) {
    running.store(&command, std::memory_order_relaxed);
}

counted_command::~counted_command() {
    running.store(outer_, std::memory_order_relaxed);
    if (!command_.args)
        return;
    count(command_.args->runs);
    if (failed_)
        count(command_.args->failures);
}

void pt_commands_status(std::string &out) {
    const PARSE_TREE *now = running.load(std::memory_order_relaxed);
    if (!now)
        return;
    for_each_command(pt_root(), "", [&](const std::string &words, const PARSE_TREE &command) {
        if (&command == now)
            out += "command " + words + "\n";
    });
}

void pt_commands_metrics(std::string &out) {
    metric_family(out, "kestrel_commands_total", "counter", "Commands that were run, those of scripts too.");
    write_counts(out, "kestrel_commands_total", &_pt_args::runs);
    metric_family(out, "kestrel_command_failures_total", "counter", "Commands that ended in an error.");
    write_counts(out, "kestrel_command_failures_total", &_pt_args::failures);
}

} // namespace kestrel
