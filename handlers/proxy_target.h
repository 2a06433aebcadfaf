// Where a forwarded request goes, as its URI says.
//
// Pure reading: nothing is resolved, connected or changed. The forms are "/http://", "http://",
// "/https://", "/httpu://" and "/hob://", case-sensitive.
#pragma once

#include <string>
#include <string_view>

#include "core/fwd.h"

// The views point into the request.
struct proxy_target {
    std::string_view scheme;  // "http", "https", "httpu" or "hob"; empty: not a proxy URI
    const char* method = "";
    std::string host;       // a copy: a name for the daemon's own use may take its place
    int port = 80;          // host byte order; 0: the companion service has none
    std::string_view path;  // for "httpu" the URI from its scheme on
};

// Reads the target out of the request's URI. A port above 65535 is given as 65536.
// Kept: only a URI that ends in "//__VS__" names the virtual server; without one it is a host name.
// Kept: "/hob://host/x" means port 80; only a colon without a number means the service's port.
proxy_target parse_target(const conn* c);
