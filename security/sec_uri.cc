#include "security/sec_uri.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "lib/plat.h"

namespace {

constexpr std::string_view os_prefix = "os://";
constexpr std::string_view kpr_prefix = "kpr://";
constexpr std::string_view localhost = "localhost";

struct prefix_row {
    std::string_view prefix;
    qz_uri_kind kind;
};

constexpr std::array<prefix_row, 3> prefixes = {{
    {kpr_prefix, qz_uri_kpr},
    {"https://", qz_uri_https},
    {"plx://", qz_uri_plx},
}};

std::string_view view_of(const qz_text& part) {
    return {part.text, part.length};
}

qz_text slice(std::string_view text) {
    return {text.data(), text.size()};
}

// The parsers below take one piece after the other off the front of a view of the URI, so nothing
// is copied and no index can leave the text.
//
// Takes the characters before the first of `stops` (all when there is none) off the front.
std::string_view take_until(std::string_view* rest, std::string_view stops) {
    const std::string_view taken = rest->substr(0, rest->find_first_of(stops));
    rest->remove_prefix(taken.size());
    return taken;
}

bool skip(std::string_view* rest, char c) {
    if (rest->empty() || rest->front() != c) {
        return false;
    }
    rest->remove_prefix(1);
    return true;
}

// Takes ":PORT" off the front, up to the next '/'; 0 when there is none. Text after the digits is
// dropped.
std::uint16_t take_port(std::string_view* rest) {
    std::uint16_t port = 0;
    if (skip(rest, ':')) {
        for (const char c : take_until(rest, "/")) {
            if (c < '0' || c > '9') {
                break;
            }
            port = static_cast<std::uint16_t>(port * 10 + (c - '0'));
        }
    }
    return port;
}

// A host that is never printed: it begins with "localhost".
bool prints_as_local(std::string_view host) {
    return host.starts_with(localhost);
}

// A host that an overlay takes for this machine: "localhost" or the beginning of it.
bool overlays_as_local(std::string_view host) {
    return localhost.starts_with(host);
}

std::string_view or_else(std::string_view text, std::string_view other) {
    return text.empty() ? other : text;
}

bool same_kpr(std::string_view a, std::string_view b) {
    a.remove_prefix(kpr_prefix.size());
    b.remove_prefix(kpr_prefix.size());
    const std::string_view host_a = take_until(&a, ":/");
    const std::string_view host_b = take_until(&b, ":/");
    // Kept: over the shorter length, so "host" equals "hosta" and no host equals every host.
    const std::size_t shorter = std::min(host_a.size(), host_b.size());
    if (host_a.substr(0, shorter) != host_b.substr(0, shorter)) {
        return false;
    }
    (void)take_port(&a);
    (void)take_port(&b);
    return a == b;
}

std::string_view without_os_prefix(std::string_view uri) {
    if (uri.starts_with(os_prefix)) {
        uri.remove_prefix(os_prefix.size());
    }
    return uri;
}

// Kept: six characters of any text are taken for a prefix, so texts without a later '/' are all
// alike, and "https://host/x" keeps "//host/x".
bool same_path(std::string_view a, std::string_view b) {
    if (a.size() < kpr_prefix.size() || b.size() < kpr_prefix.size()) {
        return a == b;
    }
    a.remove_prefix(kpr_prefix.size());
    b.remove_prefix(kpr_prefix.size());
    (void)take_until(&a, "/");
    (void)take_until(&b, "/");
    return a == b;
}

}  // namespace

qz_security* qz_uri_to_security(const char* uri, qz_security* record) noexcept {
    if (uri == nullptr) {
        return nullptr;
    }
    *record = {};
    record->uri = uri;
    std::string_view rest = uri;
    for (const prefix_row& row : prefixes) {
        if (rest.starts_with(row.prefix)) {
            record->kind = row.kind;
            rest.remove_prefix(row.prefix.size());
            break;
        }
    }
    if (record->kind == qz_uri_os) {  // no prefix is a kind, too: a plain name
        record->segment1 = slice(without_os_prefix(rest));
        return record;
    }
    if (!rest.empty() && rest.front() != '/') {
        record->host = slice(take_until(&rest, ":/"));
        record->port = take_port(&rest);
    }
    for (qz_text* segment : {&record->segment1, &record->segment2, &record->segment3}) {
        if (!skip(&rest, '/')) {
            break;
        }
        *segment = slice(take_until(&rest, "/"));
    }
    if (prints_as_local(view_of(record->host))) {
        record->port = 0;
    }
    return record;
}

qz_domain* qz_uri_to_domain(const char* uri, qz_domain* record) noexcept {
    if (uri == nullptr) {
        return nullptr;
    }
    std::string_view rest = uri;
    const std::string_view scheme = take_until(&rest, ":");
    if (!rest.starts_with("://")) {
        return nullptr;
    }
    rest.remove_prefix(3);
    *record = {};
    record->uri = uri;
    record->host = rest.data();
    record->host_length = take_until(&rest, ":/").size();
    record->port = take_port(&rest);
    record->scheme = uri;
    record->scheme_length = scheme.size();
    return record;
}

char* qz_security_to_uri(int kind, const char* host, std::uint16_t port, const char* segment1,
                         const char* segment2, const char* segment3) noexcept {
    if (kind != qz_uri_kpr) {  // Kept: also for https and plx, whose prefix and host get lost
        return qzstrdup(segment1 == nullptr ? "" : segment1);
    }
    std::string uri(kpr_prefix);
    if (host != nullptr && !prints_as_local(host)) {
        uri += host;
        if (port != 0) {
            uri += ':' + std::to_string(port);
        }
    }
    for (const char* segment : {segment1, segment2, segment3}) {
        if (segment != nullptr) {
            uri += '/';
            uri += segment;
        }
    }
    return qzstrdup(uri.c_str());
}

int qz_isequal_sec_uri(const char* a, const char* b, std::uint32_t flags) noexcept {
    if (a == b) {
        return 1;
    }
    if (a == nullptr || b == nullptr) {
        return 0;
    }
    const std::string_view left = a;
    const std::string_view right = b;
    if ((flags & 1) == 0) {
        return same_path(left, right);
    }
    if (left.starts_with(kpr_prefix) && right.starts_with(kpr_prefix)) {
        return same_kpr(left, right);
    }
    return without_os_prefix(left) == without_os_prefix(right);
}

char* qz_sec_overlay(const char* a, const char* b) noexcept {
    qz_security under = {};
    qz_security over = {};
    (void)qz_uri_to_security(a == nullptr ? "" : a, &under);
    (void)qz_uri_to_security(b == nullptr ? "" : b, &over);
    if (over.kind != qz_uri_kpr) {
        return qzstrdup(
            std::string(or_else(view_of(over.segment1), view_of(under.segment1))).c_str());
    }
    const std::string_view host = or_else(view_of(over.host), view_of(under.host));
    // Kept: without a host nothing remote is meant, so a's segments do not fill the gaps of b.
    const bool local = overlays_as_local(host);
    std::string uri(kpr_prefix);
    uri += host;
    // Kept: the port comes from a also when the host comes from b.
    const std::uint16_t port = over.port != 0 ? over.port : under.port;
    if (!local && port != 0) {
        uri += ':' + std::to_string(port);
    }
    for (qz_text qz_security::*segment :
         {&qz_security::segment1, &qz_security::segment2, &qz_security::segment3}) {
        const std::string_view fill = local ? std::string_view() : view_of(under.*segment);
        uri += '/';
        uri += or_else(view_of(over.*segment), fill);
    }
    return qzstrdup(uri.c_str());
}
