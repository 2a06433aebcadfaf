#include "domain/registry.h"

#include <string.h>
#include <sys/time.h>

#include <algorithm>
#include <string>

#include "core/context.h"
#include "lib/alloc.h"
#include "lib/qz_result.h"

namespace {

struct registry_versions {
    std::uint64_t file = 1;
    std::uint64_t listing = 1;
};

registry_versions& versions() {
    static registry_versions only;
    return only;
}

// --- Pings ---

struct ping_times {
    std::int64_t last_ping;
    std::int64_t next_due;
};

// Gives a listed host the times of the ping; false when the id is not registered. In standalone
// mode none is: the registry's keys are then names of domains.
bool ping_listed(const shttpd_ctx* ctx, std::string_view id, ping_times times) {
    char name[host_id_bytes];
    name[id.copy(name, sizeof name - 1)] = '\0';
    agent_host* host = find_host(ctx, name);
    if (host == nullptr) {
        return false;
    }
    host->last_ping = times.last_ping;
    host->next_due = times.next_due;
    return true;
}

// Gives the listed hosts their times, leaves the unknown ids in the list and returns the number of
// known ones.
std::uint32_t ping_list(const shttpd_ctx* ctx, host_id_list* list, ping_times times) {
    std::uint32_t known = 0;
    std::size_t kept = 0;
    for (std::size_t start = 0; start < list->length;) {
        const std::string_view rest(list->text + start, list->length - start);
        const std::string_view id = rest.substr(0, rest.find(':'));
        const bool is_last = id.size() == rest.size();
        start += id.size() + 1;
        if (id.empty()) {
            continue;
        }
        // What is kept moves towards the front, never over a part that has not been read.
        const std::size_t too_long = is_last ? host_id_bytes - 1 : host_id_bytes;
        if (id.size() < too_long && ping_listed(ctx, id, times)) {
            ++known;
            continue;
        }
        if (kept > 0) {
            list->text[kept++] = ':';
        }
        memmove(list->text + kept, id.data(), id.size());
        kept += id.size();
    }
    list->length = kept;
    return known;
}

}  // namespace

void reset_domain_config(domain_config* config) {
    *config = domain_config{};
}

// --- Host records ---

char* copy_text(std::string_view text) {
    auto* copy = static_cast<char*>(qz_need_bytes(text.size() + 1));
    copy[text.copy(copy, text.size())] = '\0';
    return copy;
}

agent_host* make_host(char* hostname, char* revhostname, char* hostid, char* osname,
                      char* osrelease, char* cputype, char* namespace_name) {
    auto* host = new agent_host;
    host->hostname = hostname;
    host->revhostname = revhostname;
    host->hostid = hostid;
    host->osname = osname;
    host->osrelease = osrelease;
    host->cputype = cputype;
    if (namespace_name != nullptr) {
        host->namespaces = new_qz_vector(1, ns_free);
        qz_vector_pushback(host->namespaces, namespace_name);
    }
    host->lines = host_lines(*host);
    return host;
}

void free_agent_host(void* word) {
    auto* host = static_cast<agent_host*>(word);
    if (host == nullptr) {
        return;
    }
    for (char* text : {host->hostname, host->revhostname, host->hostid, host->osname,
                       host->osrelease, host->cputype}) {
        qzfree(text);
    }
    qz_vector_destroy(host->namespaces);
    delete host;
}

bool join_namespace(agent_host* host, std::string_view name) {
    qz_owned<char> copy(copy_text(name));
    if (ns_exists(host->namespaces, copy.get()) != 0) {
        return false;
    }
    if (host->namespaces == nullptr) {
        host->namespaces = new_qz_vector(1, ns_free);
    }
    qz_vector_pushback(host->namespaces, copy.release());
    host->lines = host_lines(*host);
    return true;
}

bool leave_namespace(agent_host* host, const char* name) {
    if (ns_remove(host->namespaces, name) == 0) {
        return false;
    }
    host->lines = host_lines(*host);
    return true;
}

void rename_host(agent_host* host, std::string_view hostname, std::string_view revhostname) {
    qzfree(host->hostname);
    host->hostname = copy_text(hostname);
    qzfree(host->revhostname);
    host->revhostname = copy_text(revhostname);
    host->lines = host_lines(*host);
}

void ns_free(void* name) {
    qzfree(name);
}

int ns_exists(const qz_vector* namespaces, const char* name) {
    if (namespaces == nullptr) {
        return 0;
    }
    const auto elements = qz_each(namespaces);
    return std::any_of(
               elements.begin(), elements.end(),
               [&](const void* each) { return strcmp(static_cast<const char*>(each), name) == 0; })
               ? 1
               : 0;
}

int ns_remove(qz_vector* namespaces, const char* name) {
    if (namespaces == nullptr) {
        return 0;
    }
    for (std::int32_t i = 0; i < qz_vector_size(namespaces); ++i) {
        if (strcmp(static_cast<const char*>(qz_vector_at(namespaces, i)), name) == 0) {
            ns_free(qz_vector_remove(namespaces, i));
            return 1;
        }
    }
    return 0;
}

// --- Domain entries ---

domain_entry* make_domain_entry(const char* name) {
    auto* entry = new domain_entry;
    entry->name = copy_text(name);
    entry->hosts = new_qz_map(compare_string, nullptr, free_agent_host);
    entry->blacklist = new_qz_set(compare_string, qzfree);
    return entry;
}

void free_dhc_info_map(void* word) {
    auto* entry = static_cast<domain_entry*>(word);
    if (entry == nullptr) {
        return;
    }
    qzfree(entry->name);
    qz_map_destroy(entry->hosts);
    qz_set_destroy(entry->blacklist);
    delete entry;
}

bool blacklist_add(domain_entry* entry, std::string_view id) {
    qz_owned<char> copy(copy_text(id));
    if (qz_set_insert(entry->blacklist, copy.get()) != qz_ok) {
        return false;
    }
    (void)copy.release();  // the set's now
    return true;
}

// --- Registry and DR list ---

bool in_domain_mode(const shttpd_ctx* ctx) {
    return !ctx->domain_file.empty();
}

qz_map* registry_hosts(const shttpd_ctx* ctx) {
    return in_domain_mode(ctx) ? ctx->registry : nullptr;
}

agent_host* find_host(const shttpd_ctx* ctx, const char* id) {
    const qz_map* hosts = registry_hosts(ctx);
    return hosts != nullptr ? static_cast<agent_host*>(qz_map_find(hosts, id)) : nullptr;
}

qz_map* registry_domains(const shttpd_ctx* ctx) {
    return in_domain_mode(ctx) ? nullptr : ctx->registry;
}

domain_entry* find_domain(const shttpd_ctx* ctx, const char* name) {
    const qz_map* domains = registry_domains(ctx);
    return domains != nullptr ? static_cast<domain_entry*>(qz_map_find(domains, name)) : nullptr;
}

void registry_add_host(shttpd_ctx* ctx, agent_host* host) {
    (void)qz_map_insert(registry_hosts(ctx), host->hostid, host);  // the id is new
    note_domain_change();
}

void registry_remove_host(shttpd_ctx* ctx, const char* id) {
    note_domain_change();
    if (ctx->drlist != nullptr) {
        (void)qz_map_delete(ctx->drlist, id);  // most hosts are not in it
    }
    (void)qz_map_delete(registry_hosts(ctx), id);
}

qz_map* get_drlist(shttpd_ctx* ctx) {
    if (ctx->drlist == nullptr) {
        ctx->drlist = new_qz_map(compare_string, nullptr, nullptr);
    }
    return ctx->drlist;
}

void free_drlist(shttpd_ctx* ctx) {
    qz_map_destroy(ctx->drlist);
    ctx->drlist = nullptr;
}

void drlist_add(shttpd_ctx* ctx, agent_host* host, std::uint32_t limit) {
    qz_map* list = get_drlist(ctx);
    if (static_cast<std::uint32_t>(qz_map_size(list)) < limit) {
        (void)qz_map_insert(list, host->hostid, host);  // refused when it is listed already
    }
}

std::uint64_t domain_file_generation() {
    return versions().file;
}

std::uint64_t listing_generation() {
    return versions().listing;
}

void note_domain_change() {
    ++versions().file;
    ++versions().listing;
}

// --- Pings ---

std::int64_t get_current_time() {
    timeval now{};
    (void)gettimeofday(&now, nullptr);  // fails only for a bad pointer
    return now.tv_sec;
}

void update_ping_time(shttpd_ctx* ctx, const domain_config& config, agent_host* host, bool is_dhc,
                      std::uint32_t frequency, host_id_list* list) {
    // In 64 bits: two settings of 32 bits may be added to the time of day.
    std::int64_t interval = frequency;
    std::int64_t grace = std::max<std::int64_t>(interval / 10, 2);
    if (!is_dhc) {
        interval = std::max(frequency, config.ping_frequency);
        grace = config.fudge;
    }
    const std::int64_t now = get_current_time();
    const ping_times times = {.last_ping = now, .next_due = now + interval + grace};
    host->last_ping = times.last_ping;
    host->next_due = times.next_due;
    host->reported = list != nullptr ? ping_list(ctx, list, times) : 0;
    ++versions().listing;
}

// --- Presentation ---

listing_row row_of(const agent_host* host) {
    return {.lines = host->lines, .last_ping = host->last_ping, .next_due = host->next_due};
}

listing_form form_of(bool json, bool short_form) {
    if (short_form) {
        return json ? listing_form::json_ids : listing_form::ids;
    }
    return json ? listing_form::json : listing_form::text;
}

void print_domain_record(const agent_host* host, qz_stream* stream, bool json, std::int64_t now,
                         bool short_form, bool /*all*/, bool* first) {
    std::string out;
    append_row(&out, row_of(host), form_of(json, short_form), now, *first);
    *first = *first && !json;
    (void)qz_write_stream(stream, out.data(), static_cast<std::uint32_t>(out.size()));
}
