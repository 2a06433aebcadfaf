#include "handlers/proxy.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/request.h"
#include "core/route.h"
#include "core/string.h"
#include "core/v6socket.h"
#include "handlers/cgi_service.h"
#include "handlers/io_proxy.h"
#include "handlers/proxy_connect.h"
#include "handlers/proxy_head.h"
#include "handlers/proxy_target.h"
#include "handlers/relay.h"
#include "handlers/service_exchange.h"
#include "lib/qzstream.h"
#include "lib/unique_fd.h"

namespace {

constexpr const char* no_target = "Not Found. Could not connect to proxy target";
constexpr const char* no_service = "Internal server error. Could not connect to hob server.";
constexpr const char* no_head = "Internal error while connecting to proxy.";
constexpr std::uint32_t initial_head_bytes = 1024;

// --- The daemon's own addresses ---

struct authority {
    std::string_view host;
    std::string_view port;  // the digits behind the colon and what follows them
};

// Host and port of any of the forms; both empty when the URI names none.
authority authority_of(std::string_view uri) {
    const std::size_t mark = uri.find("://");
    if (mark == std::string_view::npos) {
        return {};
    }
    const std::string_view rest = uri.substr(mark + 3);
    const std::string_view host = rest.substr(0, rest.find_first_of(":/"));
    const std::string_view behind = rest.substr(host.size());
    return {host, behind.starts_with(':') ? behind.substr(1) : std::string_view()};
}

// As much of a port as is compared.
std::string_view port_digits(std::string_view text) {
    constexpr std::size_t compared = 4;
    return text.substr(0, text.find_first_not_of("0123456789")).substr(0, compared);
}

// Kept: four digits decide, so 18080 and 18081 are the same port here.
bool is_own_port(const shttpd_ctx* ctx, std::string_view port) {
    const std::string_view digits = port_digits(port);
    std::string_view ports = ctx->listen_ports;
    for (std::string_view entry = next_list_entry(ports); !entry.empty() && !digits.empty();
         entry = next_list_entry(ports)) {
        if (port_digits(entry) == digits) {
            return true;
        }
    }
    return false;
}

// An address is this host's own when a socket can be bound to it.
bool is_own_host(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), "0", &hints, &found) != 0) {
        return false;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, freeaddrinfo);
    for (const addrinfo* address = list.get(); address != nullptr; address = address->ai_next) {
        const unique_fd fd(socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (fd && bind(fd.get(), address->ai_addr, address->ai_addrlen) == 0) {
            return true;
        }
    }
    return false;
}

// --- Forwarding ---

void forward_head(conn* c, const proxy_target& target) {
    const stream_ptr head(new_qz_stream(initial_head_bytes));
    if (!create_proxy_headers(c, target, head.get()) || safe_write(c, head.get()) < 0) {
        send_server_error(c, 500, no_head);
        return;
    }
    watch_request_body(&c->local);
}

void forward(conn* c, const proxy_target& target) {
    int fd = -1;
    if (target.scheme == "httpu") {
        fd = connect_local_service(c);
    } else {
        fd = connect_unsecure(c, target, target.scheme == "https");
    }
    if (fd < 0) {
        send_server_error(c, 404, no_target);
        return;
    }
    forward_head(c, target);
}

// The companion service gets a request's bare body over TCP, or its bare path on its input.
void forward_to_service(conn* c, proxy_target* target) {
    const std::string& role = c->request.recorded_role;
    if (!role.empty() && !role.starts_with("admin")) {
        send_server_error(c, 403, "Forbidden.");
        return;
    }
    if (c->request.headers.content_length == 0) {
        join_service_exchange(c);
        return;
    }
    target->host = isipv4() != 0 ? "127.0.0.1" : "::1";
    if (connect_unsecure(c, *target, false) < 0) {
        send_server_error(c, 500, no_service);
    } else if (c->proxy->reused && c->remote.pending() >= c->body_left) {
        obtain_scanners(&c->local)->repeatable.assign(c->remote.buffer + c->remote.tail,
                                                      c->body_left);
    }
}

}  // namespace

bool is_proxy(const conn* c) {
    return !parse_target(c).scheme.empty();
}

bool is_loopback(conn* c, std::string* path) {
    const authority own = authority_of(c->request.uri);
    if (!is_own_port(c->ctx, own.port) || !is_own_host(std::string(own.host))) {
        return false;
    }
    // The caller was admitted for the role that the proxied form showed. Decoding can't turn it
    // into another one: a segment with an escape in it was no known role.
    adjust_uri(c);
    split_and_decode_uri(c);
    clean_uri(&c->request.uri);
    get_role_from_uri(c, false);
    *path = request_root(c);
    path->append(c->request.uri);
    return true;
}

void adjust_uri(conn* c) {
    std::string& uri = c->request.uri;
    const std::size_t mark = uri.find("://");
    const std::size_t slash = mark == std::string::npos ? mark : uri.find('/', mark + 3);
    if (slash == std::string::npos) {
        uri = "/";
    } else {
        uri.erase(0, slash);
    }
}

void do_proxy(conn* c) {
    start_proxy_relay(c);
    proxy_target target = parse_target(c);
    const bool to_service = target.scheme == "hob";
    // The service's standard input can't carry a body, and its length decides which way to go.
    const bool unclear = !has_clear_body(c) || (to_service && c->body_left == unlimited_body);
    if (target.scheme.empty() || unclear) {
        send_server_error(c, 400, "Bad headers");
    } else if (to_service) {
        forward_to_service(c, &target);
    } else {
        forward(c, target);
    }
}

bool repeat_request(conn* c) {
    relay_scanners* scanners = scanners_of(&c->local);
    if (scanners == nullptr || scanners->repeatable.empty()) {
        return false;
    }
    const std::string body = std::move(scanners->repeatable);
    scanners->repeatable.clear();
    const auto unsent = std::min<std::uint64_t>(c->remote.pending(), c->body_left);
    c->remote.consume(static_cast<std::size_t>(unsent));
    c->body_left -= unsent;
    proxy_target target = parse_target(c);
    target.host = c->proxy->host;
    proxy_release(c);
    c->local.poll_index = -1;
    c->local.channel.fd = -1;
    if (connect_unsecure(c, target, false) < 0 || safe_write_bytes(c, body) < 0) {
        send_server_error(c, 500, no_service);
    } else {
        c->local.flags = sf_readable | sf_writable;
    }
    return true;
}
