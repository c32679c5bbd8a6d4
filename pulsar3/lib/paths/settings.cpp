#include "pulsar3/lib/paths/settings.h"

#include <algorithm>
#include <vector>

namespace kestrel {

namespace {

// What a command writes of one word. `shared`: other commands have bits in it.
struct word_change {
    int offset;
    std::uint32_t mask, value;
    bool shared;
};

// Words that lie side by side.
using word_run = std::span<const word_change>;

bool is_generation4(int path) {
    return plr3_path(path)->features.generation == PulsarGen4;
}

bool word_is_shared(const register_field &field) {
    return std::ranges::any_of(plr3_register_fields(), [&](const register_field &other) {
        return other.scope == field.scope && other.offset == field.offset &&
               std::string_view(other.command) != field.command;
    });
}

std::vector<word_change> changes_of(std::span<const field_value> values) {
    std::vector<word_change> changes;
    for (const field_value &value : values) {
        const int offset = value.field.offset;
        auto at = std::ranges::find(changes, offset, &word_change::offset);
        if (at == changes.end())
            at = changes.insert(at, {offset, 0, 0, word_is_shared(value.field)});
        at->mask |= plr3_field_mask(value.field);
        at->value |= plr3_field_bits(value);
    }
    std::ranges::sort(changes, {}, &word_change::offset);
    return changes;
}

// Tells what a word becomes, at debug level.
void tell(const char *function, int path, register_scope scope, int unit, int offset, std::uint32_t word) {
    const PLR3Path &p = *plr3_path(path);
    if (p.debug < 1)
        return;
    plr3_message(p.message_to, "%s: %s %d offset %d = 0x%08X %s\n", function,
                 scope == register_scope::channel ? "channel" : "card", unit, offset, word,
                 plr3_describe_word(scope, offset, word).c_str());
}

int write_words(int path, register_scope scope, int unit, int offset, std::span<const std::uint32_t> words) {
    return scope == register_scope::card
               ? plr3_write_card_reg(path, unit, plr3_card_offset(offset, is_generation4(path)), words)
               : plr3_write_reg(path, unit, 0, offset, words);
}

int read_words(int path, register_scope scope, int unit, int offset, std::span<std::uint32_t> words) {
    return scope == register_scope::card
               ? plr3_read_card_reg(path, unit, plr3_card_offset(offset, is_generation4(path)), words)
               : plr3_read_reg(path, unit, 0, offset, words);
}

int write_whole(const char *function, int path, register_scope scope, int unit, word_run run) {
    std::vector<std::uint32_t> words;
    for (const word_change &change : run) {
        words.push_back(change.value);
        tell(function, path, scope, unit, change.offset, change.value);
    }
    return write_words(path, scope, unit, run.front().offset, words);
}

int change_word(const char *function, int path, register_scope scope, int unit, const word_change &change) {
    std::uint32_t result = 0;
    const int status =
        scope == register_scope::card
            ? plr3_rmw_card_reg(path, unit, plr3_card_offset(change.offset, is_generation4(path)),
                                ~change.mask, change.value, result)
            : plr3_rmw_chan_reg(path, unit, change.offset, ~change.mask, change.value, result);
    if (status == 0)
        tell(function, path, scope, unit, change.offset, result);
    return status;
}

int read_and_write(const char *function, int path, register_scope scope, int unit, word_run run) {
    std::vector<std::uint32_t> words(run.size());
    if (const int status = read_words(path, scope, unit, run.front().offset, words); status != 0)
        return status;
    for (std::size_t i = 0; i < run.size(); ++i) {
        words[i] = (words[i] & ~run[i].mask) | run[i].value;
        tell(function, path, scope, unit, run[i].offset, words[i]);
    }
    return write_words(path, scope, unit, run.front().offset, words);
}

// Every channel or card in turn: the status of the last, a failure before it is told.
int read_and_write_all(const char *function, int path, register_scope scope, int unit, word_run run) {
    if (unit != -1)
        return read_and_write(function, path, scope, unit, run);
    const PLR3Path &p = *plr3_path(path);
    const int count = scope == register_scope::card ? p.num_cards : p.num_chan;
    int status = 0;
    for (int each = 0; each < count; ++each) {
        status = read_and_write(function, path, scope, each, run);
        if (status != 0 && plr3_interrupted())
            return status;
        if (each < count - 1)
            plr3_tell_failure(path, status, scope == register_scope::card ? "card" : "channel", each);
    }
    return status;
}

int write_run(const char *function, int path, register_scope scope, int unit, word_run run) {
    if (std::ranges::none_of(run, &word_change::shared))
        return write_whole(function, path, scope, unit, run);
    if (run.size() == 1)
        return change_word(function, path, scope, unit, run.front());
    return read_and_write_all(function, path, scope, unit, run);
}

// The changes cut into runs, up to the first that fails.
int write_changes(const char *function, int path, register_scope scope, int unit, word_run changes) {
    while (!changes.empty()) {
        std::size_t length = 1;
        while (length < changes.size() &&
               changes[length].offset == changes.front().offset + static_cast<int>(length))
            ++length;
        if (const int status = write_run(function, path, scope, unit, changes.first(length)); status != 0)
            return status;
        changes = changes.subspan(length);
    }
    return 0;
}

int check_values(const char *function, int path, std::span<const field_value> values) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    for (const field_value &value : values) {
        if (!plr3_has_field(*p, value.field))
            return plr3_fail(plr3_invalid_path, "%s: cards of this generation have no %s %s", function,
                             value.field.reg, value.field.field);
        if (const int status = plr3_check_field(function, value); status != 0)
            return status;
    }
    return 0;
}

} // namespace

bool plr3_has_field(const PLR3Path &path, const register_field &field) {
    const int generation = path.features.generation;
    return generation >= 0 && (field.generations >> generation & 1) != 0;
}

int plr3_set_register(const char *function, int path, int chan_or_card, std::span<const field_value> values) {
    if (const int status = check_values(function, path, values); status != 0)
        return status;
    return write_whole(function, path, values.front().field.scope, chan_or_card, changes_of(values));
}

int plr3_set_fields(const register_command &command, int path, int chan_or_card,
                    std::span<const int> values) {
    const std::vector<const register_field *> fields = plr3_fields_of(command.name);
    std::vector<field_value> given;
    for (std::size_t i = 0; i < fields.size(); ++i)
        given.push_back({*fields[i], values[i]});
    if (const int status = check_values(command.function, path, given); status != 0)
        return status;
    return write_changes(command.function, path, fields.front()->scope, chan_or_card, changes_of(given));
}

int plr3_change_fields(const char *function, int path, int chan_or_card,
                       std::span<const field_value> values) {
    if (const int status = check_values(function, path, values); status != 0)
        return status;
    return change_word(function, path, values.front().field.scope, chan_or_card, changes_of(values).front());
}

int plr3_set_window(int path, int chan, int window, int low, int high) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_set_window: invalid path %d", path);
    if (window != 0 && window != 1)
        return plr3_fail(plr3_out_of_range, "plr3_set_window: window %d is out of range 0..1", window);
    const char *reg = window == 0 ? "window0" : "window1";
    const field_value values[] = {{plr3_register_field(reg, "low"), low},
                                  {plr3_register_field(reg, "high"), high}};
    return plr3_set_register("plr3_set_window", path, chan, values);
}

int plr3_set_good_thres(int path, int chan, int threshold) {
    const field_value values[] = {{plr3_register_field("good-thres", "threshold"), threshold}};
    return plr3_set_register("plr3_set_good_thres", path, chan, values);
}

int plr3_set_sync_mode(int path, int mode) {
    const field_value values[] = {{plr3_register_field("clock-control", "sync"), mode}};
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "plr3_set_sync_mode: invalid path %d", path);
    for (int card = 0; card < p->num_cards; ++card) // one that fails is not hidden by the next
        if (const int status = plr3_change_fields("plr3_set_sync_mode", path, card, values); status != 0)
            return status;
    plr3_path(path)->sync_mode = mode;
    return 0;
}

int plr3_get_sync_mode(int path, sync_state &state) {
    const PLR3Path *p = plr3_path(path);
    if (!p)
        return plr3_fail(plr3_invalid_path, "plr3_get_sync_mode: invalid path %d", path);
    const register_field &sync = plr3_register_field("clock-control", "sync");
    state = {};
    for (int card = 0; card < p->num_cards; ++card) {
        std::uint32_t word = 0;
        if (const int status = read_words(path, sync.scope, card, sync.offset, {&word, 1}); status != 0)
            return status;
        const int mode = static_cast<int>(plr3_field_value(sync, word));
        state.cards_differ = state.cards_differ || (card > 0 && mode != state.mode);
        state.mode = mode;
    }
    if (state.cards_differ)
        state.mode = p->sync_mode;
    return 0;
}

} // namespace kestrel
