#include "sched/sched.h"

#include <array>
#include <ctime>
#include <string>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/shttpd.h"
#include "sched/sched_command.h"
#include "sched/sched_engine.h"

namespace {

constexpr int id_bytes = 64;

// One per process, reachable for as long as it runs, so that leak checkers stay quiet.
scheduler_state* scheduler = nullptr;

const char* schedule_path(const shttpd_ctx* ctx) {
    return ctx->scheduler_file.empty() ? nullptr : ctx->scheduler_file.c_str();
}

// Reads the schedule file again: the entry of the query's "id", or everything. Any method will do.
// Kept: a body is waited for and not read, so an id in it counts as none.
void uri_sched_rescan(shttpd_call_arg* arg) {
    const std::string id = get_variable(query_text(arg), "id", id_bytes);
    rescan_schedules(scheduler, id, schedule_path(arg->connection->ctx), std::time(nullptr));
    show_success(arg);
}

void uri_sched_dump(shttpd_call_arg* arg) {
    answer_text(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n" +
                         dump_schedules(scheduler, std::time(nullptr)));
}

constexpr std::array<endpoint, 2> endpoints = {{
    {"/admin/sched/rescan", endpoint_method::any, endpoint_body::awaited, uri_sched_rescan},
    {"/admin/sched/dump", endpoint_method::any, endpoint_body::ignored, uri_sched_dump},
}};

}  // namespace

void scheduler_init(shttpd_ctx* ctx) {
    sched_fini();
    remember_groups();
    scheduler = new_scheduler_state(spawn_command);
    const std::time_t now = std::time(nullptr);
    read_schedules(scheduler, nullptr, schedule_path(ctx), now);
    scheduler->floor = now;  // reached: the hour of `now` is planned by the next line
    (void)calc_next_wakeup(scheduler, now);
    register_endpoints(ctx, endpoints);
}

int sched_check_run(shttpd_ctx* ctx) {
    if (scheduler == nullptr) {
        return 0;
    }
    sched_check(scheduler, ctx, std::time(nullptr));
    const std::time_t now = std::time(nullptr);  // starting commands takes time
    return static_cast<int>(calc_next_wakeup(scheduler, now) - now);
}

void sched_fini() {
    delete_scheduler_state(scheduler);
    scheduler = nullptr;
}
