#include "handlers/proxy_head.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include "core/connection.h"
#include "core/log.h"
#include "core/request.h"
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

// The value of the first line with this name.
std::optional<std::string_view> find_header(std::string_view block, std::string_view name) {
    while (!block.empty()) {
        const std::string_view line = next_header_line(&block);
        if (starts_with_nocase(line, name)) {
            return line.substr(name.size());
        }
    }
    return std::nullopt;
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

bool create_proxy_headers(const conn* c, const proxy_target& target, qz_stream* head) {
    for (const std::string_view part : {std::string_view(target.method), std::string_view(" "),
                                        target.path, std::string_view(" HTTP/1.1\r\n")}) {
        write_text(head, part);
    }
    for (const std::string_view name : proxy_headers) {
        if (const auto value = find_header(c->request.header_block(), name)) {
            write_text(head, name);
            write_text(head, *value);
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
    if (bytes.size() > c->remote.size) {
        return -1;
    }
    c->forward_head.append(bytes);
    return 1;
}

int safe_write(conn* c, const qz_stream* bytes) {
    return safe_write_bytes(c, {reinterpret_cast<const char*>(bytes->data), bytes->length});
}
