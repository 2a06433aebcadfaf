#include "handlers/proxy_head.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/connection.h"
#include "core/log.h"
#include "core/string.h"
#include "handlers/proxy_target.h"
#include "lib/base64.h"
#include "lib/qzstream.h"

namespace {

// What is copied, in this order. Everything else a client sends stays here.
constexpr std::array<std::string_view, 13> proxy_headers = {
    "Content-Length: ",    "Content-Type: ", "Connection: ", "User-Agent: ",
    "If-Modified-Since: ", "Host: ",         "Referer: ",    "Cookie: ",
    "Location: ",          "Status: ",       "Range: ",      "Transfer-Encoding: ",
    "SOAPAction: ",
};

constexpr std::size_t identity_max = 128;   // "user:role"
constexpr std::size_t encoded_bytes = 176;  // what they take as base64, terminated

// The formatting call of the stream ends a text of 1024 bytes one byte early; this one does not.
void write_text(qz_stream* out, std::string_view text) {
    (void)qz_write_stream(out, text.data(), static_cast<std::uint32_t>(text.size()));
}

// Takes the next line off `block`. It ends at the first carriage return: behind a bare one another
// header could hide from this daemon and show itself to the target.
std::string_view next_line(std::string_view* block) {
    const std::size_t end = block->find('\n');
    const std::string_view line = block->substr(0, end);
    block->remove_prefix(end == std::string_view::npos ? block->size() : end + 1);
    return line.substr(0, line.find('\r'));
}

struct header_match {
    std::string_view value;  // of the first line
    int lines = 0;
};

header_match find_header(std::string_view block, std::string_view name) {
    header_match match;
    while (!block.empty()) {
        const std::string_view line = next_line(&block);
        if (starts_with_nocase(line, name) && match.lines++ == 0) {
            match.value = line.substr(name.size());
        }
    }
    return match;
}

// No sign, no list, no blanks: whatever a target reads numbers with, it is the same.
bool is_decimal(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Kept: a caller without a name is "root", one without a recorded role "admin".
bool write_identity(const conn* c, qz_stream* head) {
    std::string identity = c->user_name.empty() ? "root" : c->user_name;
    identity.append(":").append(c->request.recorded_role.empty() ? "admin"
                                                                 : c->request.recorded_role);
    std::array<char, encoded_bytes> encoded{};
    const int length = identity.size() > identity_max
                           ? -1
                           : base64_encode(encoded.data(), static_cast<int>(encoded.size()),
                                           identity.data(), static_cast<int>(identity.size()));
    if (length < 0) {
        elog(elog_info, c, "proxy: the caller's identity is longer than %zu bytes", identity_max);
        return false;
    }
    write_text(head, "Authorization: Basic ");
    write_text(head, {encoded.data(), static_cast<std::size_t>(length)});
    write_text(head, "\r\n");
    return true;
}

}  // namespace

bool has_clear_body(const conn* c) {
    const std::string_view block = c->request.header_block();
    const header_match length = find_header(block, "Content-Length:");
    const header_match coding = find_header(block, "Transfer-Encoding:");
    if (length.lines + coding.lines > 1) {
        return false;
    }
    if (length.lines == 1) {
        return length.value.starts_with(' ') && is_decimal(length.value.substr(1));
    }
    return coding.lines == 0 || equals_nocase(coding.value, " chunked");
}

bool create_proxy_headers(const conn* c, const proxy_target& target, qz_stream* head) {
    for (const std::string_view part : {std::string_view(target.method), std::string_view(" "),
                                        target.path, std::string_view(" HTTP/1.1\r\n")}) {
        write_text(head, part);
    }
    for (const std::string_view name : proxy_headers) {
        const header_match match = find_header(c->request.header_block(), name);
        if (match.lines > 0) {
            write_text(head, name);
            write_text(head, match.value);
            write_text(head, "\r\n");
        }
    }
    if (!write_identity(c, head)) {
        return false;
    }
    // Kept: a client's own Connection line was copied above, and both are sent.
    write_text(head, "Connection: close\r\n\r\n");
    return true;
}

int safe_write_bytes(conn* c, std::string_view bytes) {
    stream& remote = c->remote;
    const std::size_t pending = remote.pending();
    const std::size_t n = bytes.size();
    // Behind the buffer lies room of the same size, reserved for these bytes alone.
    if (n > remote.size || pending > remote.size) {
        return -1;
    }
    std::memmove(remote.buffer + n, remote.buffer + remote.tail, pending);
    std::memcpy(remote.buffer, bytes.data(), n);
    // From here on the bytes count as body: all limits on it move along.
    remote.tail = 0;
    remote.head = pending + n;
    remote.total += n;
    if (remote.content_length > 0) {
        remote.content_length += n;
    }
    if (c->request.body_left != unlimited_body) {
        c->request.body_left += n;
    }
    return 1;
}

int safe_write(conn* c, const qz_stream* bytes) {
    return safe_write_bytes(c, {reinterpret_cast<const char*>(bytes->data), bytes->length});
}
