#include "handlers/proxy.h"

#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/paths.h"
#include "core/request.h"
#include "core/route.h"
#include "core/string.h"
#include "core/v6socket.h"
#include "handlers/cgi_service.h"
#include "handlers/io_proxy.h"
#include "handlers/proxy_head.h"
#include "handlers/proxy_target.h"
#include "handlers/relay.h"
#include "handlers/service_exchange.h"
#include "handlers/target.h"
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

std::string_view leading_digits(std::string_view text) {
    return text.substr(0, text.find_first_not_of("0123456789"));
}

// Kept: four digits decide, so 18080 and 18081 are the same port here. What they don't decide, the
// numbers do: a zero in front changes no port.
bool is_same_port(std::string_view one, std::string_view other) {
    constexpr std::size_t compared = 4;
    const auto without_zeros = [](std::string_view digits) {
        return digits.substr(std::min(digits.find_first_not_of('0'), digits.size()));
    };
    return one.substr(0, compared) == other.substr(0, compared) ||
           without_zeros(one) == without_zeros(other);
}

bool is_own_port(const shttpd_ctx* ctx, std::string_view port) {
    const std::string_view digits = leading_digits(port);
    std::string_view ports = ctx->listen_ports;
    for (std::string_view entry = next_list_entry(ports); !entry.empty() && !digits.empty();
         entry = next_list_entry(ports)) {
        if (is_same_port(leading_digits(entry), digits)) {
            return true;
        }
    }
    return false;
}

// An address is this host's own when a socket can be bound to it.
bool is_own_address(const host_address& address) {
    const unique_fd fd(socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd && bind(fd.get(), &address.any, address.length()) == 0;
}

// --- Forwarding ---

// The moment at which the request's target must be ready.
std::int64_t deadline_of(conn* c) {
    std::int64_t& deadline = c->request.target_deadline_ms;
    if (deadline == 0) {
        deadline = monotonic_ms() + target_limit_ms;
    }
    return deadline;
}

bool is_for_service(const conn* c) {
    return c->request.uri.starts_with("/hob://");
}

// The Unix-domain socket that the caller's recorded role stands for, or null.
const char* local_service_socket(const conn* c) {
    const std::string& role = c->request.recorded_role;
    if (role.starts_with("admin")) {
        return paths.tuvo_admin_socket;
    }
    return role.starts_with("pub") ? paths.tuvo_query_socket : nullptr;
}

// A service that answers one request a connection may close while the next one goes out to it. A
// body that has arrived whole is kept until the answer begins, to be sent once more.
void keep_for_repeating(conn* c) {
    if (c->target->reused && c->remote.pending() >= c->body_left) {
        c->forward_head.assign(c->remote.buffer + c->remote.tail, c->body_left);
        c->remote.consume(c->body_left);
        c->body_left = 0;
        relay_of(&c->local)->repeatable = true;
    }
}

void begin_exchange(conn* c) {
    relay_with_target(c);
    if (is_for_service(c)) {
        keep_for_repeating(c);
        return;
    }
    const stream_ptr head(new_qz_stream(initial_head_bytes));
    if (!create_proxy_headers(c, parse_target(c), head.get()) || safe_write(c, head.get()) < 0) {
        send_server_error(c, 500, no_head);
    }
}

void go_on_connecting(conn* c) {
    switch (c->target->advance()) {
        case target_state::ready:
            begin_exchange(c);
            break;
        case target_state::failed: {
            const std::string why = std::move(c->target->failure);
            send_server_error(c, is_for_service(c) ? 500 : 404,
                              is_for_service(c) ? no_service : no_target, why);
            break;
        }
        default:
            c->held = true;  // the target has the connection visited
            break;
    }
}

// The companion service gets a request's bare body over TCP, or its bare path on its input.
void forward_to_service(conn* c, proxy_target* target) {
    const std::string& role = c->request.recorded_role;
    if (!role.empty() && !role.starts_with("admin")) {
        send_server_error(c, 403, "Forbidden.");
    } else if (c->request.headers.content_length == 0) {
        join_service_exchange(c);
    } else {
        target->host = isipv4() != 0 ? "127.0.0.1" : "::1";
        connect_unsecure(c, *target, false);
        go_on_connecting(c);
    }
}

void forward_to_socket(conn* c) {
    const char* path = local_service_socket(c);
    if (path == nullptr) {
        send_server_error(c, 404, no_target, "the caller's role has no local service");
        return;
    }
    c->target.reset(new target(c, path, deadline_of(c)));
    go_on_connecting(c);
}

void begin_forwarding(conn* c) {
    relay_of(&c->local)->step = relay_step::connecting;
    proxy_target target = parse_target(c);
    const bool to_service = target.scheme == "hob";
    // The service's standard input can't carry a body, and its length decides which way to go.
    const bool unclear = !has_clear_body(c) || (to_service && c->body_left == unlimited_body);
    if (target.scheme.empty() || unclear) {
        send_server_error(c, 400, "Bad headers");
    } else if (to_service) {
        forward_to_service(c, &target);
    } else if (target.scheme == "httpu") {
        forward_to_socket(c);
    } else {
        connect_unsecure(c, target, target.scheme == "https");
        go_on_connecting(c);
    }
}

// The name that had to be looked up is the daemon's own: nobody has to be connected to.
void serve_here(conn* c, std::string path) {
    stop_stream(&c->local);
    c->local.reset();
    c->held = false;
    serve_locally(c, std::move(path));
    visit_soon(c);
}

}  // namespace

bool is_proxy(const conn* c) {
    return !parse_target(c).scheme.empty();
}

bool is_loopback(conn* c, std::string* path) {
    const authority named = authority_of(c->request.uri);
    if (!is_own_port(c->ctx, named.port)) {
        return false;
    }
    lookup_ptr& lookup = c->request.target_lookup;
    if (lookup == nullptr) {
        lookup.reset(look_up_addresses(named.host, c));
        (void)deadline_of(c);
    }
    const name_answer* answer = lookup_answer(lookup.get());
    if (answer == nullptr) {
        return false;
    }
    const bool own =
        std::any_of(answer->addresses.begin(), answer->addresses.end(), is_own_address);
    lookup.reset();
    if (!own) {
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
    go_on_forwarding(c);
}

void go_on_forwarding(conn* c) {
    if (relay_of(&c->local)->step == relay_step::connecting) {
        go_on_connecting(c);
        return;
    }
    if (c->request.target_lookup != nullptr) {
        std::string path;
        if (is_loopback(c, &path)) {
            serve_here(c, std::move(path));
            return;
        }
        if (c->request.target_lookup != nullptr && monotonic_ms() < deadline_of(c)) {
            visit_at(c, deadline_of(c));
            c->held = true;
            return;
        }
        c->request.target_lookup.reset();
    }
    begin_forwarding(c);
}

bool repeat_request(conn* c) {
    relay_record* relay = relay_of(&c->local);
    if (!relay->repeatable) {
        return false;
    }
    relay->repeatable = false;
    c->head_sent = 0;
    const target& ended = *c->target;
    auto* anew =
        new target(c, ended.host, ended.port, ended.secure, monotonic_ms() + target_limit_ms);
    leave_target(&c->local);
    c->target.reset(anew);
    wait_for_target(&c->local);
    go_on_connecting(c);
    return true;
}

void connect_unsecure(conn* c, const proxy_target& wanted, bool secure) {
    if (c->target != nullptr && c->target->serves(wanted.host, wanted.port, secure)) {
        c->target->reuse();
    } else {
        c->target.reset();  // its slot is free for the next one
        c->target.reset(new target(c, wanted.host, wanted.port, secure, deadline_of(c)));
    }
}
