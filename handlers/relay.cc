#include "handlers/relay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/log.h"
#include "core/request.h"
#include "core/route.h"
#include "core/string.h"

namespace {

constexpr std::size_t status_offset = 9;  // behind "HTTP/1.1 "
constexpr std::size_t status_digits = 3;
constexpr std::uint32_t waiting_flags = sf_readable | sf_always_ready | sf_keep_open;

std::string_view trimmed(std::string_view text) {
    const std::size_t start = std::min(text.find_first_not_of(' '), text.size());
    text.remove_prefix(start);
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

struct header_line {
    std::string_view name;
    std::string_view value;
    bool plain = false;  // a colon right behind the name
};

header_line split_line(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    const std::string_view name = line.substr(0, colon);
    return {.name = trimmed(name),
            .value = trimmed(line.substr(colon + 1)),
            .plain = !name.ends_with(' ')};
}

// The number at the start of the value; absurd ones stay absurd instead of wrapping.
std::uint64_t leading_number(std::string_view value) {
    std::uint64_t number = 0;
    for (const char c : value) {
        if (c < '0' || c > '9') {
            break;
        }
        const auto digit = static_cast<std::uint64_t>(c - '0');
        number = number > (INT64_MAX - digit) / 10 ? INT64_MAX : number * 10 + digit;
    }
    return number;
}

bool consists_of(std::string_view text, std::string_view characters) {
    return !text.empty() && text.find_first_not_of(characters) == std::string_view::npos;
}

bool is_plain_length(std::string_view value) {
    constexpr std::size_t digits_max = 18;  // what every counter holds
    return consists_of(value, "0123456789") && value.size() <= digits_max;
}

// Logs before the error reply takes the buffer over.
// Kept: the headers of a proxy target are logged as those of a CGI script, too.
ssize_t refuse_head(stream* s, std::size_t own_bytes) {
    elog(elog_info, s->connection, "CGI script sent invalid headers: [%.*s]",
         static_cast<int>(s->head - own_bytes), s->buffer + own_bytes);
    s->flags &= ~static_cast<std::uint32_t>(sf_keep_open);
    send_server_error(s->connection, 500, "Bad headers sent");
    return 0;
}

// Programs and targets refuse requests, too. What they say stands in a Status line, or else in the
// first one.
void log_relayed_refusal(stream* s) {
    const std::string_view head(s->buffer, s->header_length);
    std::string_view reason = head.substr(
        std::min(status_offset + status_digits, std::min(head.find('\n'), head.size())));
    std::string_view rest = head;
    while (!rest.empty()) {
        constexpr std::string_view name = "Status: ";
        const std::string_view line = next_header_line(&rest);
        if (starts_with_nocase(line, name) && line.size() > name.size() + status_digits) {
            reason = line.substr(name.size() + status_digits);
        }
    }
    reason.remove_prefix(std::min(reason.find_first_not_of(' '), reason.size()));
    log_refusal(s->connection, static_cast<int>(reply_status(head)), reason, 0);
}

}  // namespace

// Kept: of a longer number the first three digits, of a shorter one blanks in front.
void write_status(char* status_line, std::uint64_t status) {
    std::array<char, 24> text{};
    (void)std::snprintf(text.data(), text.size(), "%3llu", static_cast<unsigned long long>(status));
    std::memcpy(status_line + status_offset, text.data(), status_digits);
}

std::uint64_t reply_status(std::string_view head) {
    if (!head.starts_with("HTTP/") || head.size() < status_offset + status_digits) {
        return 0;
    }
    std::uint64_t status = 0;
    for (const char c : head.substr(status_offset, status_digits)) {
        if (c < '0' || c > '9') {
            return 0;
        }
        status = status * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return status;
}

ssize_t take_reply_head(stream* s, ssize_t n, const reply_head_rules& rules) {
    if (n < 1) {
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            send_server_error(s->connection, 500, rules.failure);
        }
        return n;
    }
    s->flags |= sf_keep_open;
    s->head += static_cast<std::size_t>(n);
    s->total += static_cast<std::uint64_t>(n);
    for (;;) {
        const ssize_t block = get_headers_len(s->buffer, s->head);
        if (block < 0 || (block == 0 && s->room() == 0)) {
            return refuse_head(s, rules.own_bytes);
        }
        if (block == 0) {
            s->tail = s->head;  // nothing counts as unsent yet
            return 0;
        }
        const auto length = static_cast<std::size_t>(block);
        if (!is_interim({s->buffer + rules.own_bytes, length - rules.own_bytes})) {
            s->header_length = length;
            rules.accept(s);
            log_relayed_refusal(s);
            return 0;  // the bytes are counted already
        }
        std::memmove(s->buffer + rules.own_bytes, s->buffer + length, s->head - length);
        s->head -= length - rules.own_bytes;
        s->total -= length - rules.own_bytes;
    }
}

bool is_interim(std::string_view head) {
    std::uint64_t status = reply_status(head);
    if (status == 0) {
        header_values values;
        parse_headers(head.data(), head.size(), &values);
        status = values.status;
    }
    return status >= 100 && status < 200 && status != 101;
}

bool is_bodyless(std::uint64_t status) {
    return (status >= 100 && status < 200) || status == 204 || status == 304;
}

reply_framing frame_reply(std::string_view head, int method) {
    reply_framing framing;
    int announcements = 0;
    bool zeros = true;
    std::string_view coding;
    for (std::string_view rest = head; !rest.empty();) {
        const header_line line = split_line(next_header_line(&rest));
        if (equals_nocase(line.name, "Content-Length")) {
            ++announcements;
            framing.clear = framing.clear && line.plain && is_plain_length(line.value);
            framing.length = leading_number(line.value);
            zeros = zeros && consists_of(line.value, "0");
        } else if (equals_nocase(line.name, "Transfer-Encoding")) {
            coding = trimmed(line.value.substr(line.value.rfind(',') + 1));
            framing.clear = framing.clear && line.plain;
        }
    }
    const bool named_zero = announcements > 0 && zeros;
    const bool coded = !coding.empty() && !equals_nocase(coding, "identity");
    framing.chunked = coded && equals_nocase(coding, "chunked");
    framing.clear = framing.clear && announcements + (coded ? 1 : 0) <= 1;
    const std::uint64_t status = reply_status(head);
    const bool bodyless = method == method_head || status == 204 || status == 304;
    if (bodyless || (named_zero && !coded)) {
        framing.end = reply_end::at_once;
    } else if (coded) {
        // A coding outranks a length; the end of one that is not known here is the sender's close.
        framing.end = framing.chunked ? reply_end::chunked : reply_end::with_close;
    } else if (framing.length > 0) {
        framing.end = reply_end::counted;
    }
    return framing;
}

bool blurs_next_reply(const reply_framing& framing, std::uint64_t status) {
    const bool announces_body = framing.chunked || framing.length > 0;
    return !framing.clear || (is_bodyless(status) && announces_body);
}

void install_relay(stream* s, const io_class* io, int fd, relay_step step) {
    auto* record = new relay_record;
    // A body without announced length is delivered up to its last chunk and no further.
    record->scans_request = s->connection->body_left == unlimited_body;
    record->step = step;
    install_class(s, io, fd, waiting_flags);
    s->channel.relay = record;
    if (step == relay_step::relaying) {
        begin_relaying(s);
    }
}

void wait_for_target(stream* s) {
    relay_of(s)->step = relay_step::connecting;
    s->flags = waiting_flags;
}

void begin_relaying(stream* s) {
    relay_of(s)->step = relay_step::relaying;
    s->flags = sf_readable | sf_writable;
    s->connection->held = false;
}

relay_record* relay_of(const stream* s) {
    return s->channel.relay;
}

void release_relay(stream* s) {
    delete relay_of(s);
    s->channel.relay = nullptr;
}

namespace {

// Only the trailer stays behind: nobody may be told by it who the caller is.
ssize_t relay_chunks(stream* s, std::string_view bytes, const body_receiver& receiver) {
    chunk_scanner& scanner = relay_of(s)->request;
    chunk_scanner probe = scanner;
    (void)probe.consume(bytes);
    if (probe.failed() || probe.claims_identity()) {
        send_server_error(s->connection, 400, "Bad headers");
        return 0;
    }
    std::size_t taken = 0;
    while (taken < bytes.size() && !scanner.complete()) {
        // The same bytes may be offered again after a short write, so a copy looks ahead.
        chunk_scanner ahead = scanner;
        const chunk_scanner::run run = ahead.next_run(bytes.substr(taken));
        const ssize_t n = run.trailer ? static_cast<ssize_t>(run.length)
                                      : receiver.deliver(s, bytes.data() + taken, run.length);
        if (n < 0) {
            return taken > 0 ? static_cast<ssize_t>(taken) : n;
        }
        (void)scanner.consume(bytes.substr(taken, static_cast<std::size_t>(n)));
        taken += static_cast<std::size_t>(n);
        if (static_cast<std::size_t>(n) < run.length) {
            break;
        }
    }
    if (scanner.complete()) {
        receiver.finish(s);
    }
    return static_cast<ssize_t>(taken);
}

}  // namespace

ssize_t relay_body(stream* s, const void* bytes, std::size_t length,
                   const body_receiver& receiver) {
    conn* c = s->connection;
    const bool is_head = !c->head_left().empty();
    if (relay_of(s)->scans_request && !is_head) {
        return relay_chunks(s, {static_cast<const char*>(bytes), length}, receiver);
    }
    const ssize_t n = receiver.deliver(s, bytes, length);
    const bool all = n >= 0 && static_cast<std::size_t>(n) == length;
    if (all && c->body_left == (is_head ? 0 : length)) {
        receiver.finish(s);
    }
    return n;
}

bool body_is_cut(const stream* s) {
    const relay_record* record = relay_of(s);
    return record->scans_request && !record->request.complete();
}
