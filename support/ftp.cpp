#include "support/ftp.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>

namespace kestrel {

namespace {

constexpr long connect_seconds = 10;
constexpr long idle_seconds = 30;
constexpr long removal_seconds = 5; // of a file that is only half there

struct easy_deleter {
    void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
};
using easy_handle = std::unique_ptr<CURL, easy_deleter>;

bool start_library() {
    static const bool started = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    return started;
}

bool printable(std::string_view text) {
    return std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; });
}

// What the callbacks of one transfer look at.
struct dialogue {
    ftp_options options;
    bool stored = false; // the server was asked to store a file, and has not refused
    char error[CURL_ERROR_SIZE] = "";
};

// "ftp://machine/path" with the path's bytes escaped, or nothing for names that cannot be sent in an FTP
// line.
std::string make_url(const ftp_account &account, std::string_view path) {
    const auto host_char = [](unsigned char c) {
        return std::isalnum(c) != 0 || c == '.' || c == '-' || c == ':' || c == '_' || c == '[' || c == ']';
    };
    if (account.machine.empty() || path.empty() || !printable(path) || !printable(account.user) ||
        !printable(account.password) ||
        !std::all_of(account.machine.begin(), account.machine.end(), host_char))
        return {};
    std::string url = "ftp://" + account.machine + "/";
    for (std::size_t i = 0; i < path.size(); ++i) {
        const auto c = static_cast<unsigned char>(path[i]);
        const bool plain = std::isalnum(c) != 0 || std::strchr("-._~", c) != nullptr || (c == '/' && i > 0);
        char escaped[4];
        std::snprintf(escaped, sizeof escaped, "%%%02X", c);
        url += plain ? std::string(1, static_cast<char>(c)) : std::string(escaped);
    }
    return url;
}

ftp_result failure(CURLcode code, const char *detail) {
    if (code == CURLE_OK)
        return {};
    ftp_result result{ftp_stage::data,
                      detail != nullptr && *detail != '\0' ? detail : curl_easy_strerror(code)};
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_URL_MALFORMAT:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_FTP_ACCEPT_TIMEOUT:
        result.failed = ftp_stage::open;
        break;
    case CURLE_LOGIN_DENIED:
    case CURLE_FTP_WEIRD_PASS_REPLY:
        result.failed = ftp_stage::login;
        break;
    case CURLE_FTP_COULDNT_SET_TYPE:
        result.failed = ftp_stage::type;
        break;
    case CURLE_REMOTE_FILE_NOT_FOUND:
        result.failed = ftp_stage::missing;
        break;
    case CURLE_ABORTED_BY_CALLBACK:
        result.text = "Interrupted";
        break;
    default:
        break;
    }
    return result;
}

ftp_result refused(const char *text) {
    return {ftp_stage::open, text};
}

int on_progress(void *user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const auto &stop = static_cast<const dialogue *>(user)->options.stop;
    return stop && stop() ? 1 : 0;
}

// Writes the dialogue without the line that carries the password.
void print_dialogue(const ftp_trace &trace, curl_infotype kind, const char *data, std::size_t size) {
    const std::string_view text(data, size);
    const int length = static_cast<int>(size);
    if (kind == CURLINFO_HEADER_OUT && text.starts_with("PASS"))
        std::fprintf(trace.to, "ftp> PASS *\n");
    else if (kind == CURLINFO_HEADER_OUT)
        std::fprintf(trace.to, "ftp> %.*s", length, data);
    else if (kind == CURLINFO_HEADER_IN)
        std::fprintf(trace.to, "ftp< %.*s", length, data);
    else if (kind == CURLINFO_TEXT && trace.level > 1)
        std::fprintf(trace.to, "ftp: %.*s", length, data);
    else if (trace.level > 2 && (kind == CURLINFO_DATA_IN || kind == CURLINFO_DATA_OUT))
        std::fprintf(trace.to, "ftp: %zu bytes %s\n", size, kind == CURLINFO_DATA_IN ? "received" : "sent");
    std::fflush(trace.to);
}

// Follows the dialogue: only what was stored may be taken back.
int on_debug(CURL *, curl_infotype kind, char *data, std::size_t size, void *user) {
    auto &talk = *static_cast<dialogue *>(user);
    const std::string_view text(data, size);
    if (kind == CURLINFO_HEADER_OUT && (text.starts_with("STOR ") || text.starts_with("APPE ")))
        talk.stored = true;
    else if (kind == CURLINFO_HEADER_IN && (text.starts_with('4') || text.starts_with('5')))
        talk.stored = false;
    if (talk.options.trace != nullptr && talk.options.trace->level > 0)
        print_dialogue(*talk.options.trace, kind, data, size);
    return 0;
}

void set_common(CURL *easy, const ftp_account &account, const std::string &url, dialogue &talk) {
    const ftp_options &options = talk.options;
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "ftp");
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
    curl_easy_setopt(easy, CURLOPT_USERNAME, account.user.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, account.password.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connect_seconds);
    curl_easy_setopt(easy, CURLOPT_SERVER_RESPONSE_TIMEOUT, idle_seconds);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, idle_seconds);
    curl_easy_setopt(easy, CURLOPT_TRANSFERTEXT, options.ascii ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_APPEND, options.append ? 1L : 0L);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, talk.error);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &talk);
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(easy, CURLOPT_DEBUGDATA, &talk);
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, on_debug);
}

} // namespace

// ---- get

namespace {

struct get_context {
    const std::function<bool(std::span<const std::byte>)> *sink = nullptr;
    bool refused = false;
};

std::size_t on_received(char *data, std::size_t size, std::size_t count, void *user) {
    auto *context = static_cast<get_context *>(user);
    if ((*context->sink)({reinterpret_cast<const std::byte *>(data), size * count}))
        return size * count;
    context->refused = true;
    return 0;
}

} // namespace

namespace {

enum class getting { file, names };

ftp_result get(const ftp_account &account, const std::string &url, getting what,
               const std::function<bool(std::span<const std::byte>)> &sink, const ftp_options &options) {
    if (url.empty())
        return refused("Bad machine or file name");
    const easy_handle easy(start_library() ? curl_easy_init() : nullptr);
    if (!easy)
        return refused("Cannot start an FTP client");
    dialogue talk{options};
    get_context context{&sink};
    set_common(easy.get(), account, url, talk);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, on_received);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &context);
    curl_easy_setopt(easy.get(), CURLOPT_DIRLISTONLY, what == getting::names ? 1L : 0L);
    const CURLcode code = curl_easy_perform(easy.get());
    if (context.refused)
        return {ftp_stage::data, "Cannot store what was received"};
    return failure(code, talk.error);
}

constexpr std::size_t listing_max = std::size_t{16} << 20; // bytes

} // namespace

ftp_result ftp_get(const ftp_account &account, std::string_view path,
                   const std::function<bool(std::span<const std::byte>)> &sink, const ftp_options &options) {
    return get(account, make_url(account, path), getting::file, sink, options);
}

ftp_result ftp_names(const ftp_account &account, std::string_view folder, std::vector<std::string> &names,
                     const ftp_options &options) {
    std::string listing;
    const auto sink = [&listing](std::span<const std::byte> bytes) {
        listing.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        return listing.size() <= listing_max;
    };
    std::string url = make_url(account, std::string(folder) + "x"); // what stands in it is not looked at
    url.resize(url.empty() ? 0 : url.size() - 1);
    const ftp_result result = get(account, url, getting::names, sink, options);
    for (std::size_t at = 0; at < listing.size();) {
        const std::size_t end = std::min(listing.find_first_of("\r\n", at), listing.size());
        if (end > at)
            names.push_back(listing.substr(at, end - at));
        at = end + 1;
    }
    return result;
}

ftp_result ftp_rename(const ftp_account &account, std::string_view from, std::string_view to,
                      const ftp_options &options) {
    const std::string url = make_url(account, from);
    if (url.empty() || make_url(account, to).empty())
        return refused("Bad machine or file name");
    const easy_handle easy(start_library() ? curl_easy_init() : nullptr);
    if (!easy)
        return refused("Cannot start an FTP client");
    dialogue talk{options};
    set_common(easy.get(), account, url.substr(0, url.find('/', sizeof "ftp://") + 1), talk);
    curl_slist *commands = curl_slist_append(nullptr, ("RNFR " + std::string(from)).c_str());
    commands = curl_slist_append(commands, ("RNTO " + std::string(to)).c_str());
    curl_easy_setopt(easy.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(easy.get(), CURLOPT_QUOTE, commands);
    const CURLcode code = curl_easy_perform(easy.get());
    curl_slist_free_all(commands);
    return failure(code, talk.error);
}

// ---- put

struct ftp_upload::state {
    ftp_account account;
    std::string path;
    std::string url;
    dialogue talk;
    CURLM *multi = nullptr;
    CURL *easy = nullptr;
    std::span<const std::byte> rest; // of the write that runs
    bool last = false;               // nothing follows what is left
    bool paused = false;             // the library waits for more
    bool given = false;              // the server takes bytes: there is a remote file
    bool started = false;            // the upload itself, after the log-in
    bool running = false;
    ftp_result result;

    ~state() {
        if (easy != nullptr) {
            curl_multi_remove_handle(multi, easy);
            curl_easy_cleanup(easy);
        }
        if (multi != nullptr)
            curl_multi_cleanup(multi);
    }

    // The library asks for bytes; without any, and more to come, it is put on hold.
    static std::size_t on_give(char *to, std::size_t size, std::size_t items, void *user) {
        auto *s = static_cast<state *>(user);
        s->given = true;
        const std::size_t count = std::min(size * items, s->rest.size());
        if (count == 0 && !s->last) {
            s->paused = true;
            return CURL_READFUNC_PAUSE;
        }
        if (count > 0)
            std::memcpy(to, s->rest.data(), count);
        s->rest = s->rest.subspan(count);
        return count;
    }

    ftp_result log_in();
    ftp_result start();
    ftp_result launch();
    ftp_result pump();
    void remove_remote();
};

ftp_result ftp_upload::state::launch() {
    if (curl_multi_add_handle(multi, easy) != CURLM_OK)
        return result = refused("Cannot start an FTP client");
    running = true;
    return pump();
}

// Into the file's folder, and no further: nothing is touched there before there are data.
ftp_result ftp_upload::state::log_in() {
    set_common(easy, account, url.substr(0, url.rfind('/') + 1), talk);
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    last = true;
    const ftp_result done = launch();
    last = false;
    return done;
}

// The upload itself, over the same connection, until the library asks for bytes and is without any.
ftp_result ftp_upload::state::start() {
    if (started || !result)
        return result;
    started = true;
    curl_multi_remove_handle(multi, easy);
    curl_easy_reset(easy);
    set_common(easy, account, url, talk);
    curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, on_give);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    return launch();
}

// Runs the transfer until the bytes at hand are taken (or, at the last, until it is over).
ftp_result ftp_upload::state::pump() {
    if (paused) {
        paused = false;
        curl_easy_pause(easy, CURLPAUSE_CONT);
    }
    while (running && result) {
        int active = 0;
        if (curl_multi_perform(multi, &active) != CURLM_OK)
            result = {ftp_stage::data, "Transfer failed"};
        int queued = 0;
        while (const CURLMsg *message = curl_multi_info_read(multi, &queued)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            running = false;
            result = failure(message->data.result, talk.error);
            if (result && (!last || !rest.empty()))
                result = {ftp_stage::data, "The server ended the transfer"};
        }
        if (!running || (paused && rest.empty() && !last))
            break;
        curl_multi_poll(multi, nullptr, 0, 200, nullptr);
    }
    return result;
}

// Best effort: a file that is only half there would be taken for a whole one. What stopped the upload does
// not stop this, so its time is short.
void ftp_upload::state::remove_remote() {
    if ((!given && !talk.stored) || talk.options.append)
        return;
    const easy_handle cleaner(curl_easy_init());
    const std::size_t slash = url.find('/', sizeof "ftp://");
    if (!cleaner || slash == std::string::npos)
        return;
    dialogue removal;
    removal.options.trace = talk.options.trace;
    const std::string root = url.substr(0, slash + 1);
    curl_slist *commands = curl_slist_append(nullptr, ("DELE " + path).c_str());
    set_common(cleaner.get(), account, root, removal);
    curl_easy_setopt(cleaner.get(), CURLOPT_TIMEOUT, removal_seconds);
    curl_easy_setopt(cleaner.get(), CURLOPT_NOBODY, 1L);
    curl_easy_setopt(cleaner.get(), CURLOPT_QUOTE, commands);
    curl_easy_perform(cleaner.get());
    curl_slist_free_all(commands);
}

ftp_upload::ftp_upload() = default;

ftp_upload::~ftp_upload() {
    if (!state_)
        return;
    const bool unfinished = state_->running || !state_->result;
    if (state_->easy != nullptr) {
        curl_multi_remove_handle(state_->multi, state_->easy);
        curl_easy_cleanup(state_->easy);
        state_->easy = nullptr;
    }
    if (unfinished)
        state_->remove_remote();
}

ftp_result ftp_upload::begin(const ftp_account &account, std::string_view path, const ftp_options &options) {
    auto s = std::make_unique<state>();
    s->account = account;
    s->path = path;
    s->talk.options = options;
    s->url = make_url(account, path);
    if (s->url.empty() || path.ends_with('/'))
        return refused("Bad machine or file name");
    if (!start_library() || (s->multi = curl_multi_init()) == nullptr ||
        (s->easy = curl_easy_init()) == nullptr)
        return refused("Cannot start an FTP client");
    state_ = std::move(s);
    return state_->log_in();
}

ftp_result ftp_upload::write(std::span<const std::byte> bytes) {
    if (!state_)
        return refused("No transfer is open");
    if (bytes.empty())
        return state_->result;
    if (ftp_result r = state_->start(); !r)
        return r;
    state_->rest = bytes;
    return state_->pump();
}

ftp_result ftp_upload::finish() {
    if (!state_)
        return refused("No transfer is open");
    if (ftp_result r = state_->start(); !r)
        return r;
    state_->last = true;
    return state_->pump();
}

ftp_result ftp_put(const ftp_account &account, std::string_view path, std::span<const std::byte> bytes,
                   const ftp_options &options) {
    ftp_upload upload;
    if (ftp_result r = upload.begin(account, path, options); !r)
        return r;
    if (ftp_result r = upload.write(bytes); !r)
        return r;
    return upload.finish();
}

} // namespace kestrel
