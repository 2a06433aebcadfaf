// Pings of agents and collectors: /agent/domain/report.
//
// A domain server learns here which hosts are alive, from the hosts themselves or from collectors
// that report many at once. A collector (standalone mode) gathers the hosts of a domain until the
// local management service enumerates them; ids that the server did not know come back to it and
// are blacklisted for some enumerations. Pings live in memory only.
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>

#include "core/connection.h"
#include "core/endpoint.h"
#include "core/log.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"

namespace {

constexpr int frequency_bytes = 16;
constexpr int dhc_bytes = 8;
constexpr int domain_bytes = 256;
constexpr long longest_frequency = 604800;  // a week, in seconds

struct report {
    std::string id;
    std::uint32_t frequency = 0;  // 0: not told
    bool is_dhc = false;
    std::string list;  // of a collector only
    std::string domain;
};

report read_report(std::string_view variables) {
    report from;
    from.id = text_variable(variables, "id", static_cast<int>(host_id_bytes));
    const long frequency =
        strtol(get_variable(variables, "freq", frequency_bytes).c_str(), nullptr, 10);
    from.frequency = static_cast<std::uint32_t>(std::clamp(frequency, 0L, longest_frequency));
    from.is_dhc = strtol(get_variable(variables, "dhc", dhc_bytes).c_str(), nullptr, 10) != 0;
    if (from.is_dhc) {
        from.list = get_variable(variables, "list", static_cast<int>(variables.size()) + 1);
    }
    from.domain = get_variable(variables, "domain", domain_bytes);
    return from;
}

// Calls `visit` with every id of a ":"-separated list that is not empty.
template <class Visit>
void for_each_id(std::string_view list, Visit visit) {
    while (!list.empty()) {
        const std::string_view id = list.substr(0, list.find(':'));
        list.remove_prefix(std::min(list.size(), id.size() + 1));
        if (!id.empty()) {
            visit(id);
        }
    }
}

// A list is handled whole or not at all: the rest of a cut one would look unknown.
bool has_too_many_ids(const report& from, const domain_config& config) {
    std::uint32_t count = 0;
    for_each_id(from.list, [&](std::string_view) { ++count; });
    return count > config.max_report_per_dhc;
}

// --- Domain mode ---

// Success, and the ids that are not registered on a line of their own. They can be more than the
// reply buffer holds.
void answer_report(shttpd_call_arg* arg, std::string_view unknown_ids) {
    std::string text = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nSuccess\n";
    if (!unknown_ids.empty()) {
        text.append(unknown_ids).append("\n");
    }
    answer_text(arg, std::move(text));
}

void report_to_server(shttpd_call_arg* arg, report* from) {
    shttpd_ctx* ctx = arg->connection->ctx;
    const domain_config& config = *domain_mode_config();
    agent_host* host = find_host(ctx, from->id.c_str());
    if (host == nullptr) {
        answer_unknown_host(arg);
        return;
    }
    if (from->is_dhc && config.dhc_enabled == 0) {
        show_error(arg, "403", "DHC not enabled");
        return;
    }
    if (has_too_many_ids(*from, config)) {
        show_error(arg, "403", "Too many reports");
        return;
    }
    if (from->is_dhc && from->frequency == 0) {
        from->frequency = config.ping_frequency;
    }
    host_id_list list{.text = from->list.data(), .length = from->list.size()};
    update_ping_time(ctx, config, host, from->is_dhc, from->frequency,
                     from->is_dhc ? &list : nullptr);
    // A full list is no error: the host has been pinged all the same.
    if (!from->is_dhc && config.dhc_enabled != 0) {
        drlist_add(ctx, host, config.max_report_per_dc);
    }
    answer_report(arg, std::string_view(list.text, list.length));
}

// --- Standalone mode ---

// The server does not know these ids: the collector drops them and refuses them for a while.
void reject_ids(const conn* c, domain_entry* entry, std::string_view list) {
    unsigned added = 0;
    for_each_id(list, [&](std::string_view id) {
        if (id.size() < host_id_bytes) {
            (void)qz_map_delete(entry->hosts, std::string(id).c_str());  // often not collected
            // The cycles go on: only an administrator resets them.
            added += blacklist_add(entry, id) ? 1 : 0;
        }
    });
    if (added > 0) {
        log_change(c, "blacklisted %u hosts of domain %s", added, entry->name);
    }
}

agent_host* collect_host(domain_entry* entry, const std::string& id) {
    agent_host* host = make_host(copy_text(""), copy_text(""), copy_text(id), copy_text("unknown"),
                                 copy_text("unknown"), copy_text("unknown"), nullptr);
    (void)qz_map_insert(entry->hosts, host->hostid, host);  // the caller has looked it up
    return host;
}

void ping_collector(shttpd_call_arg* arg, domain_entry* entry, const report& from) {
    if (qz_set_exists(entry->blacklist, from.id.c_str()) != 0) {
        show_error(arg, "403", "Host blacklisted");
        return;
    }
    auto* host = static_cast<agent_host*>(qz_map_find(entry->hosts, from.id.c_str()));
    if (host == nullptr) {
        const auto collected = static_cast<std::uint32_t>(qz_map_size(entry->hosts));
        if (collected >= entry->config.max_report_per_dhc) {
            show_error(arg, "403", "Too many reports");
            return;
        }
        host = collect_host(entry, from.id);
    }
    update_ping_time(arg->connection->ctx, entry->config, host, false, from.frequency, nullptr);
    show_success(arg);
}

void report_to_collector(shttpd_call_arg* arg, const report& from) {
    domain_entry* entry =
        from.domain.empty() ? nullptr : find_domain(arg->connection->ctx, from.domain.c_str());
    if (entry == nullptr) {
        show_error(arg, "400", "Bad Request");
        return;
    }
    if (entry->config.dhc_enabled == 0) {
        show_error(arg, "403", "DHC not enabled");
        return;
    }
    if (has_too_many_ids(from, entry->config)) {
        show_error(arg, "403", "Too many reports");
        return;
    }
    if (from.is_dhc) {
        reject_ids(arg->connection, entry, from.list);
        show_success(arg);
        return;
    }
    ping_collector(arg, entry, from);
}

}  // namespace

void domain_report(shttpd_call_arg* arg) {
    report from = read_report(request_body(arg));
    if (from.id.empty()) {
        show_error(arg, "400", "Error: Host Identifier not specified");
    } else if (in_domain_mode(arg->connection->ctx)) {
        report_to_server(arg, &from);
    } else if (!is_storable_id(from.id)) {
        show_error(arg, "400", "Bad Request");  // it could not be enumerated, nor be registered
    } else {
        report_to_collector(arg, from);
    }
}
