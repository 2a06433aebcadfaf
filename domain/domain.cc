#include "domain/domain.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/state_writer.h"
#include "domain/domain_file.h"
#include "domain/domain_uris.h"
#include "domain/registry.h"
#include "lib/ini.h"
#include "lib/qz_result.h"

namespace {

constexpr auto any = endpoint_method::any;
constexpr auto get = endpoint_method::get;
constexpr auto post = endpoint_method::post;
constexpr auto awaited = endpoint_body::awaited;

// An endpoint of the other mode refuses with a text of its own, before anything else and on every
// call: a switch while the body is arriving decides about the request.
bool admit_mode(shttpd_call_arg* arg, bool domain_mode, const char* status, const char* text) {
    const bool right = in_domain_mode(arg->connection->ctx) == domain_mode;
    if (!right) {
        show_error(arg, status, text);
    }
    return right;
}

bool on_server(shttpd_call_arg* arg) {
    return admit_mode(arg, true, "404", "Not Found");
}

// Kept: a daemon in domain mode is a "CMS" in the refusal of dhc and a "DC" in those of add and
// remove.
bool may_set_dhc(shttpd_call_arg* arg) {
    return admit_mode(arg, true, "403", "DHC enable/disable allowed only on CMS");
}

bool may_add(shttpd_call_arg* arg) {
    return admit_mode(arg, false, "403", "Domain add not allowed on DC");
}

bool may_remove(shttpd_call_arg* arg) {
    return admit_mode(arg, false, "403", "Domain remove not allowed on DC");
}

constexpr std::array<endpoint, 9> endpoints = {{
    {"/admin/dovmad/config", post, awaited, set_dovmad_mode},
    {"/admin/domain/host_rename", post, awaited, domain_host_rename, on_server},
    {"/agent/domain/register", post, awaited, domain_register, on_server},
    {"/agent/domain/unregister", post, awaited, domain_unregister, on_server},
    {"/agent/domain/enum", any, endpoint_body::awaited_with_get, domain_enum},
    {"/agent/domain/report", post, awaited, domain_report},
    {"/admin/domain/add", get, awaited, domain_add, may_add},
    {"/admin/domain/remove", get, awaited, domain_remove, may_remove},
    {"/admin/domain/dhc", get, awaited, domain_dhc, may_set_dhc},
}};

// Sizes of the variables, terminator included; longer values are cut.
constexpr int mode_bytes = 32;
constexpr int path_bytes = 1024;

constexpr std::int32_t small_registry = 1000;  // records that are freed at once

// The result of reading the resolver file; without one, or with one that cannot be parsed, the
// registry is empty. A domain that is listed twice is served once.
int set_standalone_domains(shttpd_ctx* ctx) {
    ctx->registry = new_qz_map(compare_string, nullptr, free_dhc_info_map);
    parse_handle* handle = nullptr;
    int result = parse_open(paths.resolver_file, nullptr, &handle);
    if (result != qz_ok) {
        return result;
    }
    const parse_ptr store(handle);
    qz_vector* names = nullptr;
    result = parse_enum_domains(store.get(), &names);
    if (result != qz_ok) {
        return result;
    }
    const vector_ptr owned_names(names);
    for (const void* name : qz_each(names)) {
        domain_entry* entry = make_domain_entry(static_cast<const char*>(name));
        if (qz_map_insert(ctx->registry, entry->name, entry) != qz_ok) {
            free_dhc_info_map(entry);
        }
    }
    return qz_ok;
}

// Requires: the registry is free.
void enter_domain_mode(shttpd_ctx* ctx, std::string path, const conn* c, loaded_domain domain) {
    ctx->domain_file = std::move(path);
    reset_domain_config(domain_mode_config());
    take_over_domain(ctx, c, std::move(domain));
}

// --- Mode switch ---
//
// A switch changes nothing but the running daemon: its configuration decides at the next start. The
// new path is taken as it is. One that cannot be read is told in the log and answered with success.
//
// The domain file is read behind the writes that are under way, by their thread, while the daemon
// goes on in standalone mode. Further switches wait for that.

struct switch_wait : endpoint_wait {
    explicit switch_wait(conn* c);
    ~switch_wait() override;
    switch_wait(const switch_wait&) = delete;
    switch_wait& operator=(const switch_wait&) = delete;
    switch_wait(switch_wait&&) = delete;
    switch_wait& operator=(switch_wait&&) = delete;

    conn* waiter;
    bool asked = false;  // its own switch is the one under way, or was
};

struct mode_switch {
    bool under_way = false;
    std::vector<switch_wait*> waits;

    // The connection that asked, null when it has gone.
    [[nodiscard]] conn* asker() const {
        const auto found = std::find_if(waits.begin(), waits.end(),
                                        [](const switch_wait* wait) { return wait->asked; });
        return found != waits.end() ? (*found)->waiter : nullptr;
    }
};

mode_switch& switching() {
    static mode_switch only;
    return only;
}

switch_wait::switch_wait(conn* c) : waiter(c) {
    switching().waits.push_back(this);
}

switch_wait::~switch_wait() {
    std::erase(switching().waits, this);
}

// Frees the registry, a large one by and by: it is nobody's any more.
void retire_registry(shttpd_ctx* ctx) {
    settle_state_writes();
    free_drlist(ctx);  // before the records that it shares
    map_ptr registry(std::exchange(ctx->registry, nullptr));
    ctx->domain_file.clear();
    if (qz_map_size(registry.get()) > small_registry) {
        destroy_behind_writes(std::move(registry));
    }
}

void log_switch(const shttpd_ctx* ctx, const conn* c) {
    const std::string what = in_domain_mode(ctx)
                                 ? "switched to domain mode with domain file " + ctx->domain_file
                                 : "switched to standalone mode";
    if (c != nullptr) {
        log_change(c, "%s", what.c_str());
    } else {
        log_always(ctx, nullptr, "%s, for a client that has gone", what.c_str());
    }
}

struct domain_load : background_job {
    shttpd_ctx* ctx = nullptr;
    std::string path;
    loaded_domain domain;

    void run() override { domain = read_domain_file(path.c_str()); }
    void finish() override {
        const conn* asker = switching().asker();
        retire_registry(ctx);
        enter_domain_mode(ctx, std::move(path), asker, std::move(domain));
        log_switch(ctx, asker);
        switching().under_way = false;
        for (const switch_wait* wait : switching().waits) {
            visit_soon(wait->waiter);
        }
    }
};

void switch_to_domain(shttpd_call_arg* arg) {
    shttpd_ctx* ctx = arg->connection->ctx;
    if (in_domain_mode(ctx)) {
        show_error(arg, "400", "Already in domain mode");
        return;
    }
    std::string path = get_variable(request_body(arg), "domain_file", path_bytes);
    if (path.empty()) {
        show_error(arg, "400", "Bad Params: domain_file");
        return;
    }
    auto job = std::make_unique<domain_load>();
    job->ctx = ctx;
    job->path = std::move(path);
    auto wait = std::make_unique<switch_wait>(arg->connection);
    wait->asked = true;
    switching().under_way = true;
    run_behind_writes(std::move(job));
    if (switching().under_way) {
        not_yet(arg, std::move(wait));
    } else {
        show_success(arg);  // there was no thread for it
    }
}

void switch_to_standalone(shttpd_call_arg* arg) {
    shttpd_ctx* ctx = arg->connection->ctx;
    if (!in_domain_mode(ctx)) {
        show_error(arg, "400", "Already in standalone mode");
        return;
    }
    retire_registry(ctx);
    (void)set_standalone_domains(ctx);  // without the resolver file no domain is served
    log_switch(ctx, arg->connection);
    show_success(arg);
}

}  // namespace

domain_config* domain_mode_config() {
    static domain_config only;
    return &only;
}

void init_domain_info(shttpd_ctx* ctx) {
    if (ctx->drlist != nullptr) {
        qz_map_clear(ctx->drlist);
    }
    if (in_domain_mode(ctx)) {
        const std::string path = ctx->domain_file;
        enter_domain_mode(ctx, path, nullptr, read_domain_file(path.c_str()));
    } else {
        (void)set_standalone_domains(ctx);  // without the resolver file no domain is served
    }
    register_endpoints(ctx, endpoints);
}

void free_domain_info(shttpd_ctx* ctx) {
    settle_state_writes();  // what they are made of goes
    free_drlist(ctx);       // before the records that it shares
    qz_map_destroy(ctx->registry);
    ctx->registry = nullptr;
    ctx->domain_file.clear();
}

void set_dovmad_mode(shttpd_call_arg* arg) {
    const auto* wait = waiting_for<switch_wait>(arg);
    if (switching().under_way) {
        not_yet(arg, wait != nullptr ? nullptr : std::make_unique<switch_wait>(arg->connection));
        return;
    }
    if (wait != nullptr && wait->asked) {
        show_success(arg);
        return;
    }
    const std::string mode = get_variable(request_body(arg), "mode", mode_bytes);
    if (mode == "domain") {
        switch_to_domain(arg);
    } else if (mode == "standalone") {
        switch_to_standalone(arg);
    } else {
        show_error(arg, "400", "Bad Params");
    }
}
