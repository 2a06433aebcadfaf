// Where a forwarded request goes, as its URI says.
#pragma once

#include <string>
#include <string_view>

#include "core/fwd.h"

// The views point into the request.
struct proxy_target {
    std::string_view scheme;  // "http", "https", "httpu" or "hob"; empty: not a proxy URI
    const char* method = "";
    std::string host;
    int port = 80;
    std::string_view path;  // for "httpu" the URI from its scheme on
};

// Reads the target out of the request's URI. A port above 65535 is given as 65536.
// Kept: only a URI that ends in "//__VS__" names the virtual server; without one it is a host name.
// Kept: "/hob://host/x" means port 80; only a colon without a number means the service's port.
proxy_target parse_target(const conn* c);
