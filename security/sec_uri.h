// Security URIs: texts that name an identity or an endpoint of the authentication service.
//
//     PREFIX HOST:PORT/SEGMENT1/SEGMENT2/SEGMENT3     PREFIX = kpr:// (1), https:// (2), plx:// (3)
//     os://NAME or NAME                               a plain operating-system name (0)
//
// Parsed records own nothing: their texts are slices of the URI (not terminated) and live as long
// as it does. New texts are freed with qzfree. Hosts end at the first ':', so IPv6 literals do not
// fit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/text_form.h"

enum qz_uri_kind : std::int32_t {
    qz_uri_os = 0,
    qz_uri_kpr = 1,
    qz_uri_https = 2,
    qz_uri_plx = 3,
};

// A slice; text is null when the part does not appear in the URI.
struct qz_text {
    const char* text;
    std::size_t length;
};

struct qz_security {
    const char* uri;
    std::int32_t kind;
    qz_text segment1;
    std::uint32_t reserved;
    qz_text host;
    std::uint16_t port;
    qz_text segment2;
    qz_text segment3;
};

struct qz_domain {
    const char* uri;
    const char* host;
    std::size_t host_length;
    std::uint16_t port;
    const char* scheme;
    std::size_t scheme_length;
};

// Fills `record` from `uri` and returns it; null (record untouched) for a null URI. A host that
// begins with "localhost" gets port 0; ports are taken modulo 65536. At most one '/' is skipped
// between segments, so empty segments keep their place; anything after the third is ignored.
qz_security* qz_uri_to_security(const char* uri, qz_security* record) noexcept;

// Fills `record` with scheme, host and port; null (record untouched) when the URI is null or has no
// "://" after its scheme.
qz_domain* qz_uri_to_domain(const char* uri, qz_domain* record) noexcept;

// Returns a new text. Kind 1 prints the authority (a null host, or one that begins with
// "localhost", is left out; so is port 0) and "/segment" for each segment that is not null; any
// other kind prints segment1 alone (nothing when null).
[[nodiscard]] char* qz_security_to_uri(int kind, const char* host, std::uint16_t port,
                                       const char* segment1, const char* segment2,
                                       const char* segment3) noexcept;

// 1 when equal, else 0. One address equals itself, null equals nothing else.
// Flag bit 0: scheme "os://" is optional; two kpr URIs compare host and path without ports.
// Kept: hosts are compared over the shorter length, so "host" equals "hosta" and an empty host
// equals every host. Without the flag only the path counts. Kept: both sides lose six characters
// and all up to the next
// '/', so any two texts of six or more characters without a later '/' are equal, and an https URI
// keeps its authority in the comparison. Not for authorization.
int qz_isequal_sec_uri(const char* a, const char* b, std::uint32_t flags) noexcept;

// Returns a new text: the components of `b`, gaps filled from `a`. When b is of kind 1 the result
// is, too, and a's segments fill gaps only for a remote host. Null counts as an empty text. Kept:
// any prefix of "localhost" (also an empty host) counts as local and loses its port.
[[nodiscard]] char* qz_sec_overlay(const char* a, const char* b) noexcept;

// The domain list that counts when nobody names another. This layer knows no fixed places, so the
// daemon sets it once at its start; null until then: no list.
extern const char* qz_resolver_file;

// Returns a new text with the primary broker of the domain list `file` (null: the file named by the
// environment variable PLX_RESOLV, else qz_resolver_file), or null when there is none. The last
// primary domain that names a broker wins. Reads the file through the INI store.
[[nodiscard]] char* get_default_user(const char* file) noexcept;
