#include "handlers/uri_handlers.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/paths.h"
#include "core/resolver.h"
#include "core/shttpd.h"
#include "core/v6socket.h"
#include "handlers/osuuid.h"
#include "handlers/sysinfo.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"

namespace {

constexpr const char* unknown = "UNKNOWN";

// Consulted in this order.
// Kept: LANG wins over LC_ALL.
constexpr std::array<const char*, 3> locale_variables = {"LANG", "LC_ALL", "LC_CTYPE"};

// One line of the document. Null prints as "UNKNOWN". Values are not escaped: they come from the
// system and from the administrator's files.
void print_field(shttpd_call_arg* arg, const char* name, const char* value) {
    shttpd_printf(arg, "\"%s\" : \"%s\",\n", name, value != nullptr ? value : unknown);
}

// One end of the connection, `side` being LOCAL or PEER. Only a look-up that says that there is no
// name prints "UNKNOWN"; after any other failure, and for a socket without a name, it is empty.
void print_side(shttpd_call_arg* arg, const char* side, const name_answer& host,
                const sockaddr_storage& address) {
    const char* name = host.code == EAI_NONAME ? unknown : host.name.c_str();
    std::array<char, INET6_ADDRSTRLEN> text{};
    const char* shown =
        v6inet_ntop(reinterpret_cast<const sockaddr*>(&address), text.data(), text.size());
    shttpd_printf(arg, "\"%s_NAME\" : \"%s\",\n\"%s_ADDR\" : \"%s\",\n", side, name, side,
                  shown != nullptr ? shown : "");
}

void print_local_side(shttpd_call_arg* arg, const name_answer& host) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    (void)getsockname(arg->connection->remote.channel.fd, reinterpret_cast<sockaddr*>(&address),
                      &length);
    print_side(arg, "LOCAL", host, address);
}

void print_peer_side(shttpd_call_arg* arg, const name_answer& host) {
    const conn* c = arg->connection;
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getpeername(c->remote.channel.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        address = c->peer;  // the peer has left; who it was is still known
    }
    print_side(arg, "PEER", host, address);
}

const char* locale_name() {
    for (const char* variable : locale_variables) {
        if (const char* value = std::getenv(variable); value != nullptr) {
            return value;
        }
    }
    return nullptr;
}

void print_system(shttpd_call_arg* arg) {
    qz_sysinfo system{};
    const bool known = get_qzsysinfo(&system) == 0;
    print_field(arg, "OSNAME", known ? system.os_name.data() : unknown);
    print_field(arg, "OSRELEASE", known ? system.release.data() : unknown);
    print_field(arg, "CPUTYPE", known ? system.machine.data() : unknown);
}

qz_owned<char> get_value(parse_handle* store, const char* section, const char* key) {
    char* value = nullptr;
    (void)parse_get(store, section, key, &value);  // absent stays null
    return qz_owned<char>(value);
}

void print_domain(shttpd_call_arg* arg, parse_handle* store, const char* name, bool is_last) {
    const qz_owned<char> broker = get_value(store, name, "primary_broker");
    const qz_owned<char> admin_url = get_value(store, name, "admin_url");
    shttpd_printf(arg, "    \"%s\" : {\n", name);
    if (admin_url != nullptr) {
        shttpd_printf(arg, "        \"admin_url\" : \"%s\",\n", admin_url.get());
    }
    shttpd_printf(arg, "        \"primary_broker\" : \"%s\"\n",
                  broker != nullptr ? broker.get() : unknown);
    shttpd_printf(arg, "        }%s\n", is_last ? "" : ",");
}

// The domains of the resolver file, read anew for every request. A file that is missing or cannot
// be parsed has none.
void print_domains(shttpd_call_arg* arg) {
    struct stat st {};
    parse_handle* opened = nullptr;
    if (my_stat(paths.resolver_file, &st) != 0 ||
        parse_open(paths.resolver_file, nullptr, &opened) != 0) {
        return;
    }
    const parse_ptr store(opened);
    qz_vector* listed = nullptr;
    if (parse_enum_domains(store.get(), &listed) != 0) {
        return;
    }
    const vector_ptr names(listed);
    const std::int32_t count = qz_vector_size(names.get());
    for (std::int32_t i = 0; i < count; i++) {
        print_domain(arg, store.get(), qz_as<const char>(qz_vector_at(names.get(), i)),
                     i == count - 1);
    }
}

}  // namespace

void init_world_uris(shttpd_ctx* ctx) {
    static constexpr std::array<endpoint, 2> endpoints = {{
        {"/world/getvitals", endpoint_method::any, endpoint_body::ignored, vitals_call},
        {"/world/ping", endpoint_method::any, endpoint_body::ignored, ping_call},
    }};
    register_endpoints(ctx, endpoints);
}

void ping_call(shttpd_call_arg* arg) {
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n");
}

void vitals_call(shttpd_call_arg* arg) {
    const name_answer* own = own_name(arg->connection);
    const name_answer* peer = peer_name(arg->connection);
    if (own == nullptr || peer == nullptr) {
        not_yet(arg, nullptr);
        return;
    }
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n{\n");
    // Kept: two blanks follow the first colon, and one follows every other.
    shttpd_printf(arg, "\"DOVMAD_VERSION\" :  \"%s\",\n", daemon_version);
    print_local_side(arg, *own);
    print_peer_side(arg, *peer);
    shttpd_printf(arg, "\"LOCAL_TIME\" : \"%ld\",\n", static_cast<long>(std::time(nullptr)));
    print_field(arg, "LOCALE", locale_name());
    print_field(arg, "DOMAIN_MODE", arg->connection->ctx->domain_file.empty() ? "FALSE" : "TRUE");
    print_system(arg);
    print_field(arg, "OSUUID", get_osuuid());
    forget_osuuid();  // so that every request sees the file as it is now
    shttpd_printf(arg, "\"DOMAINS\" : {\n");
    print_domains(arg);
    shttpd_printf(arg, "    }\n}\n");
}
