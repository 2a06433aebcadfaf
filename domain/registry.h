// The records of the management domain and the rules of their lifetime. Internal to domain/.
//
// The registry maps host ids to host records in domain mode and domain names to domain entries in
// standalone mode; registry_hosts and registry_domains are the only ways to it, so that no record
// is taken for the other kind. The DR list shares host records and their id texts with the
// registry, which is safe because
// - only drlist_add inserts, and only records that are registered;
// - registry_remove_host takes an id out of the DR list before the record dies;
// - free_domain_info frees the DR list before the registry;
// - the id of a registered record never changes and the record is never replaced;
// - the host maps of domain entries, which are emptied by every enumeration, never feed it.
// No handler keeps a pointer to a record from one call to the next. Times are seconds since 1970.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "core/fwd.h"
#include "domain/host_lines.h"
#include "lib/qzstream.h"
#include "lib/rbtree.h"

struct domain_config {
    std::uint32_t dhc_enabled = 0;           // collectors take part, the DR list is kept
    std::uint32_t ping_frequency = 300;      // seconds
    std::uint32_t fudge = 60;                // seconds of grace
    std::uint32_t max_report_per_dhc = 30;   // ids in a collector's list; hosts it collects
    std::uint32_t max_report_per_dc = 256;   // hosts in the DR list
    std::uint32_t max_cycles_per_blist = 2;  // enumerations; collectors only
};

void reset_domain_config(domain_config* config);

// The settings of domain mode. They live in memory only; a switch to domain mode resets them.
domain_config* domain_mode_config();

// --- Host records ---

// A heap copy of the text for a record, released with qzfree. Ends the process without memory.
[[nodiscard]] char* copy_text(std::string_view text);

struct agent_host {
    char* hostname = nullptr;     // the texts are owned (free) and may be null
    char* revhostname = nullptr;  // often empty
    char* hostid = nullptr;
    char* osname = nullptr;
    char* osrelease = nullptr;
    char* cputype = nullptr;
    qz_vector* namespaces = nullptr;  // owned texts; null: made without one
    host_lines lines;                 // made anew by whatever changes a field above
    std::uint32_t reported = 0;       // hosts of its last ping's list that were known
    std::int64_t last_ping = 0;       // 0: never
    std::int64_t next_due = 0;        // 0: never pinged
};

// A record that takes the texts (copy_text, each may be null) and holds `namespace_name`, when that
// is not null, as its first namespace. Free with free_agent_host.
[[nodiscard]] agent_host* make_host(char* hostname, char* revhostname, char* hostid, char* osname,
                                    char* osrelease, char* cputype, char* namespace_name);
void free_agent_host(void* host);

// Adds a namespace, or takes it away; false when nothing had to change. They and rename_host make
// the record's lines anew; none touches the registry, so a record that is not in it may be changed
// on any thread.
bool join_namespace(agent_host* host, std::string_view name);
bool leave_namespace(agent_host* host, const char* name);
void rename_host(agent_host* host, std::string_view hostname, std::string_view revhostname);

// Frees a namespace name.
void ns_free(void* name);

// 1 when an element equals the name; 0 also for a null vector.
int ns_exists(const qz_vector* namespaces, const char* name);

// Removes the first element that equals the name and returns 1, else 0.
int ns_remove(qz_vector* namespaces, const char* name);

// --- Domain entries ---

struct domain_entry {
    char* name = nullptr;         // owned, the entry's key
    qz_map* hosts = nullptr;      // id -> agent_host, owned: reported since the last enumeration
    qz_set* blacklist = nullptr;  // owned ids that may not report
    std::uint32_t cycles = 0;     // enumerations since a blacklisting by an administrator
    domain_config config;
};

// An empty entry with default settings; copies the name. Free with free_dhc_info_map.
[[nodiscard]] domain_entry* make_domain_entry(const char* name);
void free_dhc_info_map(void* entry);

// Inserts a copy of the id into the entry's blacklist; true when it was not in it before.
bool blacklist_add(domain_entry* entry, std::string_view id);

// --- Registry and DR list ---

[[nodiscard]] bool in_domain_mode(const shttpd_ctx* ctx);

// Null in standalone mode.
[[nodiscard]] qz_map* registry_hosts(const shttpd_ctx* ctx);
[[nodiscard]] agent_host* find_host(const shttpd_ctx* ctx, const char* id);

// Null in domain mode.
[[nodiscard]] qz_map* registry_domains(const shttpd_ctx* ctx);
[[nodiscard]] domain_entry* find_domain(const shttpd_ctx* ctx, const char* name);

// Inserts a record whose id is not registered.
void registry_add_host(shttpd_ctx* ctx, agent_host* host);

// Takes a host out of the DR list and deletes it. Requires: `id` is not the record's own text.
void registry_remove_host(shttpd_ctx* ctx, const char* id);

// The hosts that report to this server directly; made on first use, shares the registry's records.
qz_map* get_drlist(shttpd_ctx* ctx);
void free_drlist(shttpd_ctx* ctx);

// Adds a registered host unless it is listed already or the list holds `limit` hosts.
void drlist_add(shttpd_ctx* ctx, agent_host* host, std::uint32_t limit);

// Numbers that grow: with every change of what the domain file holds, and with every change of what
// listings show, pings included. Whoever changes a registered record or the registry itself says
// so.
std::uint64_t domain_file_generation();
std::uint64_t listing_generation();
void note_domain_change();

// --- Pings ---

inline constexpr std::size_t host_id_bytes = 64;  // the longest host id and its terminator

std::int64_t get_current_time();

// Host ids separated by ":", not terminated.
struct host_id_list {
    char* text;
    std::size_t length;
};

// Records a ping of `host`, which is due again after `frequency` seconds and a grace; a host that
// is not a collector may ask for less than the configured frequency in vain. With a `list`, every
// registered host that it names gets the same times, and the ids that are not registered remain in
// it, moved to its front. Ids too long for a host id are never registered.
// Kept: the last id of a list is too long with 63 characters already.
void update_ping_time(shttpd_ctx* ctx, const domain_config& config, agent_host* host, bool is_dhc,
                      std::uint32_t frequency, host_id_list* list);

// --- Presentation ---

listing_row row_of(const agent_host* host);
listing_form form_of(bool json, bool short_form);

// Appends one record, in full or only its id, as text or as a JSON object; `first` is cleared by
// the first JSON object, later ones begin with a comma. `all` asks for all namespaces of the host,
// and these are always printed.
void print_domain_record(const agent_host* host, qz_stream* stream, bool json, std::int64_t now,
                         bool short_form, bool all, bool* first);
