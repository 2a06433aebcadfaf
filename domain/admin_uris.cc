// Administration of the domain: /admin/domain/host_rename, dhc, add and remove.
#include <array>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/endpoint.h"
#include "core/log.h"
#include "core/resolver.h"
#include "core/state_writer.h"
#include "domain/domain_file.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"
#include "lib/qz_result.h"

namespace {

// Kept: an id longer than 39 characters can be registered and is cut here, so that the answer to
// its rename is "Not found".
constexpr int rename_id_bytes = 40;
constexpr int host_bytes = 256;
constexpr std::size_t longest_logged = 256;  // bytes of the variables of a change

// The variables of the endpoints that answer GET: those of the body, else of the query. Empty: the
// request was refused for want of them.
std::string_view required_variables(shttpd_call_arg* arg) {
    const std::string_view body = request_body(arg);
    const std::string_view variables = body.empty() ? query_text(arg) : body;
    if (variables.empty()) {
        show_error(arg, "405", "Method not allowed");
    }
    return variables;
}

// The domain that a request of standalone mode names. Empty: the request was refused for want of
// it.
std::string required_domain(shttpd_call_arg* arg, std::string_view variables) {
    if (variables.empty()) {
        return {};
    }
    std::string name(raw_variable(variables, "domain"));
    if (name.empty()) {
        show_error(arg, "400", "Bad Request.");
    }
    return name;
}

// --- Settings ---

// The word of a configuration that a variable of dhc, and perhaps of add too, sets.
struct setting {
    const char* name;
    std::uint32_t domain_config::*field;
    bool per_domain;  // accepted for a single domain of standalone mode too
};

constexpr std::array<setting, 6> settings = {{
    {"enable", &domain_config::dhc_enabled, true},
    {"freq", &domain_config::ping_frequency, true},
    {"fudge", &domain_config::fudge, false},
    {"max_report_per_dhc", &domain_config::max_report_per_dhc, true},
    {"max_report_per_dc", &domain_config::max_report_per_dc, false},
    {"max_cycles_per_blist", &domain_config::max_cycles_per_blist, true},
}};

// Variables that are absent, empty or no usable number leave their word as it is.
void apply_settings(std::string_view variables, bool per_domain, domain_config* config) {
    for (const setting& each : settings) {
        if (per_domain && !each.per_domain) {
            continue;
        }
        if (const auto number = number_variable(variables, each.name)) {
            config->*each.field = *number;
        }
    }
}

// --- Blacklist ---

// Kept: the last id takes the character behind the value with it, "&" when another variable
// follows. A list that ends in ":" keeps its ids as they are.
void add_to_blacklist(std::string_view variables, domain_entry* entry) {
    const std::string_view value = raw_variable(variables, "blacklist");
    for (std::size_t start = 0; start < value.size();) {
        const std::string_view rest = value.substr(start);
        std::string_view id = rest.substr(0, rest.find(':'));
        const bool is_last = id.size() == rest.size();
        start += id.size() + 1;
        if (id.empty()) {
            continue;
        }
        const auto offset = static_cast<std::size_t>(id.data() - variables.data());
        id = is_last ? variables.substr(offset, id.size() + 1) : id;
        if (blacklist_add(entry, id)) {
            entry->cycles = 0;
        }
    }
}

domain_entry* find_or_add_domain(shttpd_ctx* ctx, const std::string& name) {
    domain_entry* entry = find_domain(ctx, name.c_str());
    if (entry == nullptr) {
        entry = make_domain_entry(name.c_str());
        (void)qz_map_insert(registry_domains(ctx), entry->name, entry);  // looked up: it is new
    }
    return entry;
}

void log_settings(const shttpd_call_arg* arg, const std::string& whose,
                  std::string_view variables) {
    const std::string given(variables.substr(0, longest_logged));
    log_change(arg->connection, "changed the settings of %s: %s%s", whose.c_str(), given.c_str(),
               given.size() < variables.size() ? " ..." : "");
}

// False when the request was refused or must wait.
bool rename_registered(shttpd_call_arg* arg) {
    conn* c = arg->connection;
    const std::string id = text_variable(request_body(arg), "id", rename_id_bytes);
    const std::string name = text_variable(request_body(arg), "host", host_bytes);
    if (id.empty() || name.empty() || !is_storable_hostname(name)) {
        show_error(arg, "400", "Invalid arguments");
        return false;
    }
    agent_host* host = find_host(c->ctx, id.c_str());
    if (host == nullptr) {
        show_error(arg, "400", "Not found");
        return false;
    }
    const name_answer* peer = peer_name(c);
    if (peer == nullptr) {
        not_yet(arg, nullptr);
        return false;
    }
    // Kept: the host's reverse name becomes that of whoever renames it.
    rename_host(host, name, storable_field(peer->name));
    note_domain_change();
    sync_allow(c);
    log_change(c, "renamed host %s to %s", id.c_str(), name.c_str());
    return true;
}

}  // namespace

void domain_host_rename(shttpd_call_arg* arg) {
    const bool changed = kept_wait(arg) != nullptr || rename_registered(arg);
    if (changed && files_stand(arg)) {
        show_success(arg);
    }
}

void domain_dhc(shttpd_call_arg* arg) {
    const std::string_view variables = required_variables(arg);
    if (!variables.empty()) {
        apply_settings(variables, false, domain_mode_config());
        log_settings(arg, "the domain", variables);
        answer_empty(arg);
    }
}

void domain_add(shttpd_call_arg* arg) {
    const std::string_view variables = required_variables(arg);
    const std::string name = required_domain(arg, variables);
    if (name.empty()) {
        return;
    }
    // A domain that is served already keeps its hosts, its blacklist and the settings not given.
    domain_entry* entry = find_or_add_domain(arg->connection->ctx, name);
    apply_settings(variables, true, &entry->config);
    add_to_blacklist(variables, entry);
    log_settings(arg, name, variables);
    answer_empty(arg);
}

void domain_remove(shttpd_call_arg* arg) {
    const std::string_view variables = required_variables(arg);
    const std::string name = required_domain(arg, variables);
    if (name.empty()) {
        return;
    }
    // An unknown name changes nothing, and is a success.
    if (qz_map_delete(registry_domains(arg->connection->ctx), name.c_str()) == qz_ok) {
        log_change(arg->connection, "removed domain %s", name.c_str());
    }
    answer_empty(arg);
}
