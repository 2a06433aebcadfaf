// The head of a request, in pieces and whole: where it ends, what its lines say and what the daemon
// makes of them is what a plain reading of the text says.
#include <strings.h>

#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/request.h"
#include "fuzz/check.h"

namespace {

constexpr int buffer_bytes = 4096;

using text_field = std::pair<std::string_view, std::string_view header_values::*>;
constexpr std::array<text_field, 14> text_fields = {{
    {"Content-Type: ", &header_values::content_type},
    {"Accept-Language: ", &header_values::accept_language},
    {"User-Agent: ", &header_values::user_agent},
    {"Authorization: ", &header_values::authorization},
    {"Referer: ", &header_values::referer},
    {"Cookie: ", &header_values::cookie},
    {"Location: ", &header_values::location},
    {"Range: ", &header_values::range},
    {"Connection: ", &header_values::connection},
    {"Transfer-Encoding: ", &header_values::transfer_encoding},
    {"X-PLX-Namespace: ", &header_values::namespace_name},
    {"X-PLX-OnBehalf-User: ", &header_values::on_behalf_user},
    {"X-PLX-OnBehalf-Ip: ", &header_values::on_behalf_ip},
    {"X-PLX-Operation: ", &header_values::operation},
}};

bool begins(std::string_view line, std::string_view name) {
    return line.size() >= name.size() && strncasecmp(line.data(), name.data(), name.size()) == 0;
}

std::vector<std::string_view> lines_of(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        lines.push_back(text.substr(0, text.find('\n')));
        text.remove_prefix(std::min(lines.back().size() + 1, text.size()));
    }
    return lines;
}

// --- Where the head ends ---

ssize_t plain_length(std::string_view text) {
    const std::size_t end = std::min(text.find("\n\n"), text.find("\n\r\n"));
    std::size_t bad = 0;
    while (bad < text.size() &&
           (text[bad] == '\r' || text[bad] == '\n' ||
            (static_cast<unsigned char>(text[bad]) >= 0x20 && text[bad] != 0x7f))) {
        ++bad;
    }
    if (bad + 1 < text.size() && bad < end) {
        return -1;
    }
    return end == std::string_view::npos ? 0 : static_cast<ssize_t>(text.find('\n', end + 1) + 1);
}

// The same for pieces, each looked at once. Also leaves how many bytes had come by then.
std::pair<ssize_t, std::size_t> length_in_pieces(std::string_view text, std::size_t step) {
    std::size_t scanned = 0;
    for (std::size_t size = std::min(step, text.size());;
         size = std::min(size + step, text.size())) {
        const ssize_t length = get_headers_len(text.data(), size, &scanned);
        check(scanned <= size);
        if (length != 0 || size == text.size()) {
            return {length, size};
        }
    }
}

// --- What its lines say ---

std::uint64_t plain_number(std::string_view text) {
    __extension__ using wide = unsigned __int128;
    wide value = 0;
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    for (; !text.empty() && text[0] >= '0' && text[0] <= '9'; text.remove_prefix(1)) {
        value = std::min<wide>(value * 10 + static_cast<wide>(text[0] - '0'), INT64_MAX);
    }
    return static_cast<std::uint64_t>(value);
}

void check_lines(const std::string& block) {
    header_values values;
    parse_headers(block.data(), block.size(), &values);
    header_values expected;
    for (std::string_view line : lines_of(block)) {
        if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        for (const auto& [name, field] : text_fields) {
            if (begins(line, name)) {
                expected.*field = line.substr(name.size());
            }
        }
        for (const auto& [name, field] :
             {std::pair{std::string_view("Content-Length: "), &header_values::content_length},
              std::pair{std::string_view("Status: "), &header_values::status}}) {
            if (begins(line, name)) {
                expected.*field = plain_number(line.substr(name.size()));
            }
        }
    }
    for (const auto& [name, field] : text_fields) {
        const std::string_view value = values.*field;
        check(value == expected.*field);
        check(value.empty() || (value.data() >= block.data() &&
                                value.data() + value.size() <= block.data() + block.size()));
    }
    check(values.content_length == expected.content_length && values.status == expected.status);
}

// Whether nobody can take the body's end differently.
bool is_plainly_clear(std::string_view block) {
    int announcements = 0;
    bool clear = true;
    for (std::string_view line : lines_of(block)) {
        line = line.substr(0, line.find('\r'));
        if (begins(line, "Content-Length")) {
            ++announcements;
            const std::string_view digits = line.substr(std::min<std::size_t>(16, line.size()));
            clear = clear && line.substr(14, 2) == ": " && !digits.empty() && digits.size() <= 18 &&
                    digits.find_first_not_of("0123456789") == std::string_view::npos;
        } else if (begins(line, "Transfer-Encoding")) {
            ++announcements;
            clear = clear && line.size() == 26 && begins(line.substr(17), ": chunked");
        }
    }
    return clear && announcements < 2;
}

// --- What the daemon makes of it ---

shttpd_ctx* context() {
    static shttpd_ctx* ctx = [] {
        monotonic_seconds = 1000000;
        auto* made = new shttpd_ctx;
        made->io_buf_size = buffer_bytes;
        made->inetd_mode = 1;  // keeps the log of every refusal off standard error
        made->document_root = "/root";
        made->aliases = "/img=/pictures,/end=/pictures/,/a/b=relative";
        return made;
    }();
    return ctx;
}

bool climbs(std::string_view path) {
    for (std::size_t at = path.find_first_of("/\\"); at < path.size();
         at = path.find_first_of("/\\", at + 1)) {
        const std::string_view next = path.substr(at + 1);
        if (next.starts_with("..") && (next.size() == 2 || next[2] == '/' || next[2] == '\\')) {
            return true;
        }
    }
    return false;
}

void check_path(conn* c) {
    split_and_decode_uri(c);
    std::string& uri = c->request.uri;
    check(uri.find('\0') == std::string::npos);
    clean_uri(&uri);
    const std::string cleaned = uri;
    clean_uri(&uri);
    check(uri == cleaned && !climbs(uri));
    const std::string path = map_uri_to_path(c);
    check(path.empty() || !climbs(path));
    check(path.empty() || path.starts_with("/root") || path.starts_with("/pictures") ||
          path.starts_with("relative"));
    for (const bool proxied : {false, true}) {
        get_role_from_uri(c, proxied);
        check(c->request.role.find('/') == std::string::npos);
    }
}

struct request_end {
    parse_result result = parse_result::incomplete;
    std::string uri;
    std::uint64_t body = 0;
    bool closes = false;
    bool operator==(const request_end&) const = default;
};

request_end parse(std::string_view text, std::size_t step) {
    conn* c = new_conn(context());
    check(borrow_buffer(&c->local) && borrow_buffer(&c->remote));
    request_end end;
    while (end.result == parse_result::incomplete && !text.empty() && c->remote.room() > 0) {
        const std::size_t piece = std::min({step, text.size(), c->remote.room()});
        text.copy(c->remote.buffer + c->remote.head, piece);
        c->remote.head += piece;
        text.remove_prefix(piece);
        end.result = parse_request(c);
    }
    end.uri = c->request.uri;
    end.closes = c->close_after;
    if (end.result == parse_result::parsed) {
        const header_values& headers = c->request.headers;
        const bool clear = is_plainly_clear(c->request.header_block());
        check(has_clear_body(c) == clear && (clear || c->close_after));
        check(c->body_left == (headers.transfer_encoding.empty() || headers.content_length > 0
                                   ? headers.content_length
                                   : unlimited_body));
        check(c->request.major <= 1 && !c->request.uri.empty());
        end.body = c->body_left;
        const std::string typed = typed_user(headers.authorization);
        wipe_authorization(&c->request);
        check(c->request.typed_user == typed && c->request.headers.authorization.empty());
        check_path(c);
    }
    stop_stream(&c->local);
    delete_conn(c);
    return end;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_input input(data, size);
    const std::size_t step = 1 + input.byte();
    const std::string_view text = input.rest();
    const auto [length, came] = length_in_pieces(text, step);
    check(length == plain_length(text.substr(0, came)));
    check_lines(std::string(text) + "\n");
    const request_end whole = parse(text, text.size());
    const request_end pieces = parse(text, step);
    // What is refused for one of its bytes, or for its length, may have come with other ones.
    check(whole == pieces || whole.result == parse_result::muted ||
          pieces.result == parse_result::muted);
    return 0;
}
