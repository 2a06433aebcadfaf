#include "handlers/proxy_target.h"

#include <algorithm>
#include <array>

#include "core/connection.h"
#include "core/context.h"
#include "core/request.h"
#include "handlers/cgi_service.h"

namespace {

constexpr int default_port = 80;
constexpr int port_limit = 65536;  // stands for every number that is no port

struct uri_form {
    std::string_view prefix;
    std::string_view scheme;
};

// What a client may write in front of a host; the second is how it speaks to a proxy.
constexpr std::array<uri_form, 5> uri_forms = {{
    {"/http://", "http"},
    {"http://", "http"},
    {"/https://", "https"},
    {"/httpu://", "httpu"},
    {"/hob://", "hob"},
}};

// The decimal number at the start, 0 without one, at most port_limit.
int leading_number(std::string_view text) {
    int number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        number = std::min(port_limit, number * 10 + (c - '0'));
    }
    return number;
}

// Host, port and path behind "://". Kept: everything up to ":" or "/" is the host, a "?" included.
void read_authority(const conn* c, std::string_view rest, proxy_target* target) {
    target->host = rest.substr(0, rest.find_first_of(":/"));
    const std::string_view behind = rest.substr(target->host.size());
    if (behind.empty() && target->host == "__VS__" && !c->ctx->virtual_server.empty()) {
        target->host = c->ctx->virtual_server;
    }
    if (behind.starts_with(':')) {
        target->port = leading_number(behind.substr(1));
        if (target->port == 0) {
            target->port = target->scheme == "hob" ? gethobport() : default_port;
        }
    }
    const std::size_t slash = behind.find('/');
    target->path = slash == std::string_view::npos ? "/" : behind.substr(slash);
}

}  // namespace

proxy_target parse_target(const conn* c) {
    const std::string_view uri = c->request.uri;
    proxy_target target;
    const auto* form = std::find_if(uri_forms.begin(), uri_forms.end(), [&](const uri_form& row) {
        return uri.starts_with(row.prefix);
    });
    if (form == uri_forms.end()) {
        return target;
    }
    target.scheme = form->scheme;
    target.method = c->request.method_name();
    const std::string_view rest = uri.substr(form->prefix.size());
    if (target.scheme == "httpu") {
        // The service sees the absolute form; the host only tells the role (see get_role_from_uri).
        target.host = rest.substr(0, rest.find(':'));
        target.path = uri.substr(1);
    } else {
        read_authority(c, rest, &target);
    }
    return target;
}
