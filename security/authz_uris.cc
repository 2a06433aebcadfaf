#include "security/authz_uris.h"

#include <array>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "core/compat_unix.h"
#include "core/config.h"
#include "core/connection.h"
#include "core/endpoint.h"
#include "core/log.h"
#include "core/shttpd.h"
#include "core/state_writer.h"
#include "core/string.h"
#include "lib/plat.h"
#include "lib/qz_iterator.h"
#include "lib/rbtree.h"
#include "security/authz.h"

namespace {

constexpr int namespace_bytes = 256;
constexpr int document_root_bytes = 1024;
constexpr int sec_uri_bytes = 1024;
constexpr std::size_t longest_namespaces = 4091;

// --- Grant and deny ---

template <std::size_t Size>
void store_variable(std::string_view variables, const char* name, std::array<char, Size>* field) {
    my_strlcpy(field->data(), get_variable(variables, name, static_cast<int>(Size)).c_str(), Size);
}

// Kept: the answer is the same when a file could not be written. That is logged, and the change is
// written by a later grant, deny or check.
void succeed_when_written(shttpd_call_arg* arg) {
    if (files_stand(arg)) {
        show_success(arg);
    }
}

void az_grant(shttpd_call_arg* arg) {
    if (kept_wait(arg) != nullptr) {
        succeed_when_written(arg);
        return;
    }
    az_params params;
    if (get_az_params(arg, &params) != 0) {
        return;
    }
    const int kind = get_principal_kind(params.type.data());
    if (kind < 0) {
        show_error(arg, "400", "Error: Unknown principal type");
        return;
    }
    if (is_bad_principal(params.user.data())) {
        show_error(arg, "400", "Bad params");
        return;
    }
    // Kept: a name that begins with "root", and one that holds the role already, changes nothing.
    grant_az(arg->connection, params.role.data(), params.user.data(), kind);
    succeed_when_written(arg);
}

void az_deny(shttpd_call_arg* arg) {
    if (kept_wait(arg) != nullptr) {
        succeed_when_written(arg);
        return;
    }
    az_params params;
    if (get_az_params(arg, &params) != 0) {
        return;
    }
    const char* error = "Bad params";
    if (deny_az(arg->connection, &params, &error) != 0) {
        show_error(arg, "400", error);
        return;
    }
    succeed_when_written(arg);
}

// --- Namespaces ---

bool is_default_namespace(const std::string& name) {
    return default_namespace.substr(0, name.size()) == name;
}

// Kept: the last character of the configured name takes no part, so "abd" matches "abc", and a
// configured name of one character matches everything.
bool is_same_namespace(std::string_view configured, std::string_view name) {
    if (configured.empty()) {
        return false;
    }
    configured.remove_suffix(1);
    return name.substr(0, configured.size()) == configured;
}

bool is_configured(const shttpd_ctx* ctx, const std::string& name) {
    std::string_view rest = ctx->namespaces;
    for (namespace_entry entry; next_namespace_entry(&rest, &entry);) {
        if (entry.has_path && is_same_namespace(entry.name, name)) {
            return true;
        }
    }
    return false;
}

// The option text without the entries of a name; *found tells whether there were any.
std::string namespaces_without(const shttpd_ctx* ctx, const std::string& name, bool* found) {
    std::string text;
    std::string_view rest = ctx->namespaces;
    *found = false;
    for (namespace_entry entry; next_namespace_entry(&rest, &entry);) {
        if (entry.has_path && is_same_namespace(entry.name, name)) {
            *found = true;
            continue;
        }
        text.append(text.empty() ? "" : ",").append(entry.text);
    }
    return text;
}

// Kept: a longer text is cut, and the namespace that was added last is then served but not listed.
void set_namespaces(shttpd_ctx* ctx, const std::string& text) {
    ctx->namespaces = text.substr(0, longest_namespaces);
    ctx->has_namespaces = true;
}

void add_namespace(shttpd_call_arg* arg) {
    shttpd_ctx* ctx = arg->connection->ctx;
    const std::string_view body = request_body(arg);
    const std::string name = get_variable(body, "namespace", namespace_bytes);
    const std::string root = get_variable(body, "document_root", document_root_bytes);
    if (name.empty() || root.empty()) {
        show_error(arg, "400", "Required parameters not specified");
    } else if (is_default_namespace(name)) {
        show_error(arg, "400", "Cannot add default namespace");
    } else if (is_configured(ctx, name)) {
        show_error(arg, "400", "Namespace is already configured");
    } else if (name.find_first_of(",=\r\n") != std::string::npos ||
               root.find_first_of(",\r\n") != std::string::npos) {
        // The list of namespaces could not be read back, and a root with line breaks would write
        // lines of its own into the log, where paths appear.
        show_error(arg, "400", "Bad params");
    } else {
        std::string text = ctx->namespaces;
        text.append(text.empty() ? "" : ",").append(name).append("=").append(root);
        set_namespaces(ctx, text);
        add_namespace_to_map(ctx, name, root);
        log_change(arg->connection, "added namespace %s with root %s", name.c_str(), root.c_str());
        show_success(arg);
    }
}

// Kept: the text loses every entry that matches but for its last character, the map only the exact
// name, so a namespace can go on being served without being listed.
void remove_namespace(shttpd_call_arg* arg) {
    shttpd_ctx* ctx = arg->connection->ctx;
    const std::string name = get_variable(request_body(arg), "namespace", namespace_bytes);
    if (name.empty()) {
        show_error(arg, "400", "Required parameters not specified");
        return;
    }
    if (is_default_namespace(name)) {
        show_error(arg, "400", "Cannot remove default namespace");
        return;
    }
    bool found = false;
    const std::string text = namespaces_without(ctx, name, &found);
    if (!found && ctx->has_namespaces) {
        show_error(arg, "400", "Namespace not configured");
        return;
    }
    set_namespaces(ctx, text);
    remove_namespace_from_map(ctx, name);
    if (found) {  // where none was ever configured, nothing has changed
        log_change(arg->connection, "removed namespace %s", name.c_str());
    }
    show_success(arg);
}

// --- Credentials ---

// Gets the service a new credential, for which the library reads its files again. Handshakes go on
// with the context's own credential. A failure ends the process, as it does at the start.
void at_switch(shttpd_call_arg* arg) {
    set_security_info(arg->connection->ctx);
    log_change(arg->connection, "renewed the service's credential");
    show_success(arg);
}

// Drops the credential that was fetched to stand for a management broker; the next client that asks
// for the broker's name makes the daemon fetch it anew.
void at_cred_cleanup(shttpd_call_arg* arg) {
    const std::string uri = get_variable(request_body(arg), "sec_uri", sec_uri_bytes);
    if (qz_map* map = arg->connection->ctx->broker_credentials; map != nullptr) {
        // What is not cached needs no clean-up.
        if (qz_map_delete(map, uri.c_str()) == 0) {
            log_change(arg->connection, "dropped the credential of broker %s", uri.c_str());
        }
    }
    show_success(arg);
}

void get_adm_gp(shttpd_call_arg* arg) {
    const qz_owned<char> group(get_admin_group("root"));
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n%s\n", group.get());
}

constexpr auto any = endpoint_method::any;
constexpr auto post = endpoint_method::post;
constexpr auto ignored = endpoint_body::ignored;
constexpr auto awaited = endpoint_body::awaited;
constexpr auto awaited_with_post = endpoint_body::awaited_with_post;

constexpr std::array<endpoint, 7> endpoints = {{
    {"/admin/security/grant", any, awaited_with_post, az_grant},
    {"/admin/security/deny", any, awaited_with_post, az_deny},
    {"/admin/security/reset", any, ignored, at_switch},
    {"/admin/security/cleanup", post, awaited, at_cred_cleanup},
    {"/admin/dovmad/config/namespace/add", post, awaited, add_namespace},
    {"/admin/dovmad/config/namespace/remove", post, awaited, remove_namespace},
    {"/admin/security/get_admin_group", any, ignored, get_adm_gp},
}};

}  // namespace

void register_auth_uris(shttpd_ctx* ctx) {
    register_endpoints(ctx, endpoints);
}

int get_az_params(shttpd_call_arg* arg, az_params* params) {
    const bool is_post = method_is(arg, "POST");
    const std::string_view variables = is_post ? request_body(arg) : query_text(arg);
    store_variable(variables, "role", &params->role);
    store_variable(variables, "user", &params->user);
    store_variable(variables, "type", &params->type);
    if (params->user[0] == '\0' || params->type[0] == '\0' || params->role[0] == '\0') {
        show_error(arg, "400", "Error: User name and Type not specified");
        return -1;
    }
    return 0;
}
