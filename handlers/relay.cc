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

// The status in a status line; 0 when the reply does not begin with one.
int status_of(std::string_view head) {
    if (!head.starts_with("HTTP/") || head.size() < status_offset + status_digits) {
        return 0;
    }
    int status = 0;
    for (const char c : head.substr(status_offset, status_digits)) {
        if (c < '0' || c > '9') {
            return 0;
        }
        status = status * 10 + (c - '0');
    }
    return status;
}

// Whether a length was announced at all: parsed values say 0 for "0" and for none.
bool names_length(std::string_view head) {
    for (std::size_t at = head.find('\n'); at != std::string_view::npos;
         at = head.find('\n', at + 1)) {
        if (starts_with_nocase(head.substr(at + 1), "Content-Length: ")) {
            return true;
        }
    }
    return false;
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
    log_refusal(s->connection, status_of(head), reason, 0);
}

}  // namespace

// Kept: of a longer number the first three digits, of a shorter one blanks in front.
void write_status(char* status_line, std::uint64_t status) {
    std::array<char, 24> text{};
    (void)std::snprintf(text.data(), text.size(), "%3llu", static_cast<unsigned long long>(status));
    std::memcpy(status_line + status_offset, text.data(), status_digits);
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
    const ssize_t block = get_headers_len(s->buffer, s->head);
    if (block < 0 || (block == 0 && s->room() == 0)) {
        return refuse_head(s, rules.own_bytes);
    }
    if (block == 0) {
        s->tail = s->head;  // nothing counts as unsent yet
        return 0;
    }
    s->header_length = static_cast<std::size_t>(block);
    rules.accept(s);
    log_relayed_refusal(s);
    return 0;  // the bytes are counted already
}

reply_end find_reply_end(std::string_view head, const header_values& values, int method) {
    const int status = status_of(head);
    // These have no body whatever length they announce: it is that of the body left out.
    if (method == method_head || status == 204 || status == 304) {
        return reply_end::at_once;
    }
    // A coding outranks a length; the end of one that is not known here is the sender's close.
    if (!values.transfer_encoding.empty()) {
        return equals_nocase(values.transfer_encoding, "chunked") ? reply_end::chunked
                                                                  : reply_end::with_close;
    }
    if (values.content_length > 0) {
        return reply_end::counted;
    }
    return names_length(head) ? reply_end::at_once : reply_end::with_close;
}

relay_scanners* scanners_of(const stream* s) {
    return static_cast<relay_scanners*>(s->channel.state);
}

relay_scanners* obtain_scanners(stream* s) {
    if (s->channel.state == nullptr) {
        s->channel.state = new relay_scanners;
    }
    return scanners_of(s);
}

void release_scanners(stream* s) {
    delete scanners_of(s);
    s->channel.state = nullptr;
}

void watch_request_body(stream* s) {
    if (s->connection->request.body_left == unlimited_body) {
        obtain_scanners(s)->scans_request = true;
    }
}

body_allowance allowed_body(const stream* s, const void* bytes, std::size_t length) {
    const relay_scanners* scanners = scanners_of(s);
    if (scanners == nullptr || !scanners->scans_request) {
        return {.bytes = length, .last = length == s->connection->request.body_left};
    }
    // The same bytes may be offered again after a short write, so a copy looks ahead.
    const std::size_t skip = std::min(scanners->request_skip, length);
    chunk_scanner probe = scanners->request;
    const std::size_t allowed =
        probe.consume({static_cast<const char*>(bytes) + skip, length - skip});
    return {.bytes = skip + allowed, .last = probe.complete() || probe.failed()};
}

void note_body_sent(stream* s, const void* bytes, std::size_t sent) {
    relay_scanners* scanners = scanners_of(s);
    if (scanners == nullptr || !scanners->scans_request) {
        return;
    }
    const std::size_t skip = std::min(scanners->request_skip, sent);
    scanners->request_skip -= skip;
    (void)scanners->request.consume({static_cast<const char*>(bytes) + skip, sent - skip});
}
