// Agents join and leave the domain: /agent/domain/register and /agent/domain/unregister.
#include <algorithm>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/resolver.h"
#include "core/state_writer.h"
#include "domain/domain_file.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"

namespace {

constexpr int register_id_bytes = 64;
constexpr int host_bytes = 256;
constexpr int osname_bytes = 32;
constexpr int osrelease_bytes = 64;
constexpr int cputype_bytes = 16;
// Kept: a longer id than 39 characters can be registered and is cut here, so that the host cannot
// be removed and its unregistration is answered with 404.
constexpr int unregister_id_bytes = 40;

// The values as they were received; what is stored of them is decided by add_host.
struct registration {
    std::string id;
    std::string host;
    std::string remote_host;
    std::string osname;
    std::string osrelease;
    std::string cputype;
};

std::string variable_or_unknown(std::string_view variables, const char* name, int size) {
    std::string value = text_variable(variables, name, size);
    return value.empty() ? "unknown" : value;
}

registration read_registration(std::string_view variables) {
    return {.id = text_variable(variables, "id", register_id_bytes),
            .host = text_variable(variables, "host", host_bytes),
            .remote_host = {},
            .osname = variable_or_unknown(variables, "osname", osname_bytes),
            .osrelease = variable_or_unknown(variables, "osrelease", osrelease_bytes),
            .cputype = variable_or_unknown(variables, "cputype", cputype_bytes)};
}

// Whether the domain file would give back this host as this host.
bool is_storable(const registration& host) {
    return !host.id.empty() && is_storable_id(host.id) && !host.host.empty() &&
           is_storable_hostname(host.host);
}

// In the file a CPU type ends at the first white space too.
std::string storable_cputype(const std::string& text) {
    std::string field = storable_field(text);
    std::replace(field.begin(), field.end(), ' ', '_');
    return field;
}

// A host that is registered already gains the namespace and keeps everything else.
void enrol(shttpd_ctx* ctx, const registration& from, const std::string& namespace_name) {
    agent_host* host = find_host(ctx, from.id.c_str());
    if (host == nullptr) {
        registry_add_host(
            ctx, make_host(copy_text(from.host), copy_text(storable_field(from.remote_host)),
                           copy_text(from.id), copy_text(storable_field(from.osname)),
                           copy_text(storable_field(from.osrelease)),
                           copy_text(storable_cputype(from.cputype)), copy_text(namespace_name)));
    } else if (join_namespace(host, namespace_name)) {
        note_domain_change();
    }
}

// With every value at its longest the reply stays below the smallest reply buffer, 1024 bytes.
// Kept: the body is one JSON member without enclosing braces.
void answer_registration(shttpd_call_arg* arg, const registration& host) {
    (void)shttpd_printf(arg,
                        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n"
                        "\"output\" : {\n\"Status\" : \"Success\",\n\"Hostname\" : \"%s\",\n"
                        "\"id\" : \"%s\",\n\"Remote_Hostname\" : \"%s\",\n\"OsName\" : \"%s\",\n"
                        "\"OsRelease\" : \"%s\",\n\"CpuType\" : \"%s\"\n}\n",
                        host.host.c_str(), host.id.c_str(), host.remote_host.c_str(),
                        host.osname.c_str(), host.osrelease.c_str(), host.cputype.c_str());
}

// False when the request was refused.
bool remove_host(shttpd_call_arg* arg) {
    const conn* c = arg->connection;
    const std::string id = get_variable(request_body(arg), "id", unregister_id_bytes);
    if (id.empty()) {
        show_error(arg, "400", "Error: Host Identifier not specified");
        return false;
    }
    agent_host* host = find_host(c->ctx, id.c_str());
    if (host == nullptr) {
        answer_unknown_host(arg);
        return false;
    }
    // Leaving a namespace that the host was never in is a success too.
    if (leave_namespace(host, c->request.ns->name.c_str())) {
        note_domain_change();
    }
    if (qz_vector_size(host->namespaces) == 0) {
        registry_remove_host(c->ctx, id.c_str());
    }
    sync_allow(c);
    return true;
}

}  // namespace

void domain_register(shttpd_call_arg* arg) {
    conn* c = arg->connection;
    registration host = read_registration(request_body(arg));
    if (!is_storable(host) || !is_storable_namespace(c->request.ns->name)) {
        show_error(arg, "400", "Error: Missing information");
        return;
    }
    const name_answer* peer = peer_name(c);
    if (peer == nullptr) {
        not_yet(arg, nullptr);
        return;
    }
    host.remote_host = peer->name;  // empty when there is none: that is no refusal
    if (kept_wait(arg) == nullptr) {
        enrol(c->ctx, host, c->request.ns->name);
        sync_allow(c);
    }
    if (files_stand(arg)) {
        answer_registration(arg, host);
    }
}

void domain_unregister(shttpd_call_arg* arg) {
    const bool changed = kept_wait(arg) != nullptr || remove_host(arg);
    if (changed && files_stand(arg)) {
        show_success(arg);
    }
}
