#include "core/request.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <variant>

#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/route.h"
#include "core/string.h"
#include "lib/base64.h"

namespace {

// Shorter blocks can't hold a request: "GET / HTTP/1.1" alone has 14 bytes.
constexpr std::size_t header_bytes_min = 16;

// The kind of a header's value is the kind of the member that receives it.
using header_target = std::variant<std::uint64_t header_values::*,
                                   std::string_view header_values::*, std::time_t header_values::*>;

struct header_row {
    std::string_view name;  // with its colon and one blank
    header_target target;
};

// In matching order.
constexpr std::array<header_row, 17> http_headers = {{
    {"Content-Length: ", &header_values::content_length},
    {"Content-Type: ", &header_values::content_type},
    {"Accept-Language: ", &header_values::accept_language},
    {"User-Agent: ", &header_values::user_agent},
    {"If-Modified-Since: ", &header_values::if_modified_since},
    {"Authorization: ", &header_values::authorization},
    {"Referer: ", &header_values::referer},
    {"Cookie: ", &header_values::cookie},
    {"Location: ", &header_values::location},
    {"Status: ", &header_values::status},
    {"Range: ", &header_values::range},
    {"Connection: ", &header_values::connection},
    {"Transfer-Encoding: ", &header_values::transfer_encoding},
    {"X-PLX-Namespace: ", &header_values::namespace_name},
    {"X-PLX-OnBehalf-User: ", &header_values::on_behalf_user},
    {"X-PLX-OnBehalf-Ip: ", &header_values::on_behalf_ip},
    {"X-PLX-Operation: ", &header_values::operation},
}};

// By code, not by isprint(): the locale must not decide which bytes a request may have. Bytes from
// 0x80 are let through, since names in UTF-8 reach URIs unescaped; tabs are not.
constexpr bool allowed_in_headers(unsigned char c) {
    return (c >= 0x20 && c <= 0x7e) || c == '\r' || c == '\n' || c >= 0x80;
}

constexpr std::array<bool, 256> make_header_alphabet() {
    std::array<bool, 256> table{};
    for (unsigned i = 0; i < table.size(); ++i) {
        table[i] = allowed_in_headers(static_cast<unsigned char>(i));
    }
    return table;
}

constexpr std::array<bool, 256> header_alphabet = make_header_alphabet();

// What ends a URI in the request line; like isspace(), in every locale.
constexpr bool is_white_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// A number that stands behind several blanks counts, as everywhere else: a body whose length was
// overlooked would be taken for the next request.
std::uint64_t parse_number(std::string_view text) {
    std::uint64_t value = 0;
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        const auto digit = static_cast<std::uint64_t>(c - '0');
        // Absurd lengths stay absurd instead of wrapping into sensible ones.
        value = value > (INT64_MAX - digit) / 10 ? INT64_MAX : value * 10 + digit;
    }
    return value;
}

// A value without sign, list or further blanks, and small enough for every counter: whatever reads
// numbers from it, reads the same.
bool is_plain_number(std::string_view colon_and_value) {
    constexpr std::size_t digits_max = 18;
    return colon_and_value.starts_with(": ") && colon_and_value.size() > 2 &&
           colon_and_value.size() <= 2 + digits_max &&
           colon_and_value.find_first_not_of("0123456789", 2) == std::string_view::npos;
}

// Kept: the case of a month's name counts, unlike that of every other name in a header.
int month_index(const char* name) {
    constexpr std::array<std::string_view, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const auto* found = std::find(months.begin(), months.end(), std::string_view(name));
    return found == months.end() ? -1 : static_cast<int>(found - months.begin());
}

// Kept: dates count as local time, and one that can't be read is the last midnight of 1999.
std::time_t parse_date(std::string_view text) {
    constexpr std::array<const char*, 4> patterns = {"%d/%3s/%d %d:%d:%d", "%d %3s %d %d:%d:%d",
                                                     "%*3s, %d %3s %d %d:%d:%d",
                                                     "%d-%3s-%d %d:%d:%d"};
    const std::string value(text);
    std::tm date{};
    for (const char* pattern : patterns) {
        std::tm t{};
        char month[4] = "";
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int converted = std::sscanf(value.c_str(), pattern, &t.tm_mday, month, &t.tm_year,
                                          &t.tm_hour, &t.tm_min, &t.tm_sec);
#pragma GCC diagnostic pop
        if (converted == 6) {
            t.tm_mon = month_index(month);
            if (t.tm_mon >= 0) {
                date = t;
            }
            break;
        }
    }
    // Two-digit years below 70 belong to this century, as do the zeros of an unreadable date.
    if (date.tm_year > 1900) {
        date.tm_year -= 1900;
    } else if (date.tm_year < 70) {
        date.tm_year += 100;
    }
    std::tm now{};
    date.tm_isdst = localtime_r(&current_time, &now) != nullptr ? now.tm_isdst : 0;
    return std::mktime(&date);
}

// Whether the line begins with the name, a letter first. Every line of every request meets every
// name, and few share its first letter.
bool begins_with(std::string_view line, std::string_view name) {
    constexpr int small_letter = 0x20;
    return !line.empty() && (line.front() | small_letter) == (name.front() | small_letter) &&
           starts_with_nocase(line, name);
}

// Texts are views into the block, so they are valid as long as the request keeps it.
void store_header(const header_row& row, std::string_view value, header_values* values) {
    if (const auto* number = std::get_if<std::uint64_t header_values::*>(&row.target)) {
        values->** number = parse_number(value);
    } else if (const auto* text = std::get_if<std::string_view header_values::*>(&row.target)) {
        values->** text = value;
    } else if (const auto* date = std::get_if<std::time_t header_values::*>(&row.target)) {
        values->** date = parse_date(value);
    }
}

int find_method(std::string_view block) {
    for (std::size_t i = 0; i < known_http_methods.size(); ++i) {
        if (block.starts_with(known_http_methods[i])) {
            return static_cast<int>(i);  // Kept: "GETX" counts as "GET"
        }
    }
    return -1;
}

// Why no answer is possible. Clients that begin with a TLS handshake are many and deserve a word.
const char* unreadable_header(std::string_view input) {
    constexpr char tls_handshake = 0x16;
    return input.front() == tls_handshake ? "TLS handshake on a plain port"
                                          : "forbidden byte in the header block";
}

// Takes the header block out of the remote buffer.
void consume_block(conn* c, std::size_t length) {
    stream& remote = c->remote;
    c->request.text.assign(remote.buffer + remote.tail, length);
    explicit_bzero(remote.buffer + remote.tail, length);  // a login may be in it
    remote.consume(length);
    remote.header_length = length;
    remote.total = remote.pending();
    remote.set(sf_parsed);
}

parse_result mute(const conn* c, const char* reason) {
    log_muted(c, reason);
    return parse_result::muted;
}

// "HTTP/x.y", and nothing behind it. What nearly everybody says needs no scanning.
bool read_version(const char* text, request_data* request) {
    constexpr std::string_view usual = "HTTP/1.";
    const std::string_view version(text);
    if (version == "HTTP/1.1" || version == "HTTP/1.0") {
        request->major = 1;
        request->minor = static_cast<unsigned long>(version[usual.size()] - '0');
        return true;
    }
    // "%n" is reached only when both numbers were there.
    int used = 0;
    return std::sscanf(text, "HTTP/%lu.%lu%n", &request->major, &request->minor, &used) == 2 &&
           text[used] == '\0';
}

// "METHOD URI HTTP/x.y"; returns false after an error reply.
bool parse_request_line(conn* c) {
    request_data& request = c->request;
    // The block has a line feed, or its length would not be known.
    const std::size_t line_end = request.text.find('\n');
    const std::size_t cut =
        line_end > 0 && request.text[line_end - 1] == '\r' ? line_end - 1 : line_end;
    request.text[cut] = '\0';
    request.headers_start = line_end + 1;

    const char* p = request.text.c_str();
    p += std::strcspn(p, " ");
    p += std::strspn(p, " ");
    const char* uri = p;
    while (*p != '\0' && !is_white_space(*p)) {
        ++p;
    }
    const std::string_view uri_text(uri, static_cast<std::size_t>(p - uri));
    p += std::strspn(p, " ");
    if (!read_version(p, &request)) {
        send_server_error(c, 400, "Bad HTTP version");
        return false;
    }
    if (request.major > 1) {
        send_server_error(c, 505, "HTTP version not supported");
        return false;
    }
    if (uri_text.empty()) {
        send_server_error(c, 400, "Bad URI");
        return false;
    }
    request.uri.assign(uri_text);
    return true;
}

// An alias' target and what stands behind its prefix. Cleaning removes only dots behind a slash: at
// the joint "img../x" would become "/images/../x". Names with a leading dot are out of reach there
// as they are elsewhere.
std::string join_alias(std::string_view target, std::string_view rest) {
    const bool at_start = target.empty() || target.ends_with('/');
    std::string path(target);
    path.append(rest);
    const std::size_t start = path.rfind('/', target.size()) + 1;
    const std::string_view joint =
        std::string_view(path).substr(start, path.find('/', start) - start);
    const bool climbs = rest.starts_with('.') && (at_start || joint == "..");
    return climbs ? std::string() : path;
}

// What the headers decide about the connection and the body.
void apply_headers(conn* c) {
    request_data& request = c->request;
    const std::string_view lines = request.header_block();
    parse_headers(lines.data(), lines.size(), &request.headers);
    request.is_last = starts_with_nocase(request.headers.connection, "close") ||
                      request.major == 0 || request.minor == 0;
    c->close_after = c->close_after || request.is_last;
    // With both a length and a coding the length counts, and nothing behind the body is trusted to
    // be a request: the sender may have meant another end.
    const std::uint64_t length = request.headers.content_length;
    const bool coded = !request.headers.transfer_encoding.empty();
    c->remote.content_length = length;
    c->body_left = coded && length == 0 ? unlimited_body : length;
    c->close_after = c->close_after || !has_clear_body(c);
}

}  // namespace

const char* request_data::method_name() const {
    return known_http_methods[static_cast<std::size_t>(method)].data();
}

ssize_t get_headers_len(const char* buffer, std::size_t length) {
    std::size_t scanned = 0;
    return get_headers_len(buffer, length, &scanned);
}

ssize_t get_headers_len(const char* buffer, std::size_t length, std::size_t* scanned) {
    constexpr std::size_t ending_max = 3;  // what came so far may be the beginning of "\n\r\n"
    const std::size_t start = *scanned;
    *scanned = std::max(start, length - std::min(length, ending_max));
    for (std::size_t i = start; i + 1 < length; ++i) {
        const char c = buffer[i];
        if (!header_alphabet[static_cast<unsigned char>(c)]) {
            return -1;
        }
        if (c != '\n') {
            continue;
        }
        if (buffer[i + 1] == '\n') {
            return static_cast<ssize_t>(i + 2);
        }
        if (buffer[i + 1] == '\r' && i + 2 < length && buffer[i + 2] == '\n') {
            return static_cast<ssize_t>(i + 3);
        }
    }
    return 0;
}

void parse_headers(const char* start, std::size_t length, header_values* values) {
    std::string_view rest(start, length);
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        for (const header_row& row : http_headers) {
            if (row.name.size() < rest.size() && begins_with(rest, row.name)) {
                std::string_view value = rest.substr(0, end);
                value.remove_prefix(std::min(row.name.size(), value.size()));
                if (!value.empty() && value.back() == '\r') {
                    value.remove_suffix(1);
                }
                store_header(row, value, values);
                break;
            }
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
}

std::string_view next_header_line(std::string_view* block) {
    const std::size_t end = block->find('\n');
    const std::string_view line = block->substr(0, end);
    block->remove_prefix(end == std::string_view::npos ? block->size() : end + 1);
    return line.substr(0, line.find('\r'));
}

bool has_clear_body(const conn* c) {
    constexpr std::string_view length = "Content-Length";
    constexpr std::string_view coding = "Transfer-Encoding";
    std::string_view block = c->request.header_block();
    int announcements = 0;
    bool clear = true;
    while (!block.empty()) {
        const std::string_view line = next_header_line(&block);
        if (begins_with(line, length)) {
            ++announcements;
            clear = clear && is_plain_number(line.substr(length.size()));
        } else if (begins_with(line, coding)) {
            ++announcements;
            clear = clear && equals_nocase(line.substr(coding.size()), ": chunked");
        }
    }
    return clear && announcements <= 1;
}

void clean_uri(std::string* uri) {
    std::string& text = *uri;
    std::size_t out = 0;
    std::size_t in = 0;
    while (in < text.size()) {
        const char c = text[in++];
        text[out++] = c;
        if (c != '/' && c != '\\') {
            continue;
        }
        // The run is dropped, its slash stays. Only a run that begins with a dot is one: "//" must
        // survive, since the URIs of proxied requests contain it.
        while (in < text.size() && text[in] == '.') {
            while (in < text.size() && (text[in] == '.' || text[in] == '/')) {
                ++in;
            }
            if (in == text.size() || text[in] != '\\') {
                break;
            }
            ++in;
        }
    }
    text.resize(out);
}

void get_role_from_uri(conn* c, bool is_proxied) {
    const std::string_view uri = c->request.uri;
    // A URI of another shape, such as the empty one behind a namespace, has no role.
    std::size_t start = uri.starts_with('/') ? 1 : std::string_view::npos;
    if (is_proxied) {
        const std::size_t authority = uri.find("://");
        const char delimiter = uri.starts_with("/httpu") ? ':' : '/';
        const std::size_t found =
            authority == std::string_view::npos ? authority : uri.find(delimiter, authority + 3);
        start = found == std::string_view::npos ? found : found + 1;
    }
    if (start == std::string_view::npos) {
        c->request.role.clear();
        return;
    }
    const std::string_view rest = uri.substr(start);
    c->request.role.assign(rest.substr(0, rest.find('/')));
}

void wipe_authorization(request_data* request) {
    constexpr std::string_view name = "Authorization:";
    if (request->typed_user.empty()) {
        request->typed_user = typed_user(request->headers.authorization);
    }
    request->headers.authorization = {};
    std::string_view rest = request->header_block();
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        if (begins_with(line, name)) {
            const auto at = static_cast<std::size_t>(line.data() - request->text.data());
            explicit_bzero(request->text.data() + at + name.size(),
                           line.size() - name.size() - (line.ends_with('\r') ? 1 : 0));
        }
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    }
}

std::string typed_user(std::string_view authorization) {
    constexpr std::string_view scheme = "Basic ";
    constexpr std::size_t longest = 1024;
    if (!starts_with_nocase(authorization, scheme) || authorization.size() > longest) {
        return {};
    }
    authorization.remove_prefix(scheme.size());
    std::array<char, longest> login{};
    const int length = base64_decode(login.data(), static_cast<int>(login.size()),
                                     authorization.data(), static_cast<int>(authorization.size()));
    std::string user;
    if (length > 0) {
        const std::string_view text(login.data(), static_cast<std::size_t>(length));
        user = text.substr(0, std::min(text.find(':'), text.size()));
    }
    explicit_bzero(login.data(), login.size());
    return user;
}

void split_and_decode_uri(conn* c) {
    request_data& request = c->request;
    // The query is split off before the path is decoded: an escaped "?" belongs to the path.
    const std::size_t mark = request.uri.find('?');
    if (mark != std::string::npos) {
        request.query.assign(request.uri, mark + 1);
        request.has_query = true;
        request.uri.resize(mark);
    }
    const std::size_t length = url_decode(request.uri.data(), request.uri.size(),
                                          request.uri.data(), request.uri.size() + 1);
    request.uri.resize(length);
    request.uri.resize(std::strlen(request.uri.c_str()));  // "%00" ends the URI
}

const std::string& request_root(const conn* c) {
    return c->request.ns ? c->request.ns->root : c->ctx->document_root;
}

std::string map_uri_to_path(const conn* c) {
    const std::string& uri = c->request.uri;
    std::string_view aliases = c->ctx->aliases;
    for (std::string_view entry = next_list_entry(aliases); !entry.empty();
         entry = next_list_entry(aliases)) {
        const std::size_t equals = entry.find('=');
        if (equals == std::string_view::npos) {
            continue;
        }
        const std::string_view prefix = entry.substr(0, equals);
        // Kept: the prefix need not end at a slash, so "/i" also stands for "/index".
        if (uri.starts_with(prefix)) {
            return join_alias(entry.substr(equals + 1),
                              std::string_view(uri).substr(prefix.size()));
        }
    }
    std::string path;
    const std::string& root = request_root(c);
    path.reserve(root.size() + uri.size());
    path.append(root).append(uri);
    return path;
}

parse_result parse_request(conn* c) {
    stream& remote = c->remote;
    const std::string_view input(remote.buffer + remote.tail, remote.pending());
    const ssize_t length = get_headers_len(input.data(), input.size(), &c->request.headers_scanned);
    if (length == 0) {
        // A block that can never become complete gets no answer, like every other early error.
        return remote.pending() >= remote.size ? mute(c, "no header block")
                                               : parse_result::incomplete;
    }
    if (length < 0) {
        return mute(c, unreadable_header(input));
    }
    if (length < static_cast<ssize_t>(header_bytes_min)) {
        return mute(c, "header block too short");
    }
    const int method = find_method(input);
    if (method < 0) {
        return mute(c, "unknown method");
    }
    // From here on errors are answered: the request is known to be one.
    c->request.method = method;
    consume_block(c, static_cast<std::size_t>(length));
    if (!parse_request_line(c)) {
        return parse_result::failed;
    }
    apply_headers(c);
    return parse_result::parsed;
}
