#include "sched/sched.h"

#include <array>
#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/pass_work.h"
#include "core/shttpd.h"
#include "sched/sched_command.h"
#include "sched/sched_engine.h"
#include "sched/sched_file.h"

namespace {

constexpr int id_bytes = 64;

// One per process, reachable for as long as it runs, so that leak checkers stay quiet.
scheduler_state* scheduler = nullptr;

const char* schedule_path(const shttpd_ctx* ctx) {
    return ctx->scheduler_file.empty() ? nullptr : ctx->scheduler_file.c_str();
}

std::int64_t clock_us() {
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since_boot).count();
}

// Without an error log the line goes to standard error.
void log_to_file(const shttpd_ctx* ctx, const char* line) {
    if (ctx->error_log != nullptr) {
        log_always(ctx, nullptr, "%s", line);
    } else {
        elog(elog_info, nullptr, "%s", line);
    }
}

// The zone may have been changed: the C library asks for it here alone. Once a second, since busy
// passes are so short that the question would be a considerable part of them.
void notice_new_zone() {
    static std::time_t asked = 0;
    if (asked != current_time) {
        asked = current_time;
        tzset();
    }
}

// --- Endpoints ---

struct rescan_wait : endpoint_wait {
    explicit rescan_wait(std::string id, const char* path)
        : rescan(scheduler, std::move(id), path, std::time(nullptr)) {}

    schedule_rescan rescan;
};

// Reads the schedule file again: the entry of the query's "id", or everything. Any method will do.
// Kept: a body is waited for and not read, so an id in it counts as none.
void uri_sched_rescan(shttpd_call_arg* arg) {
    std::unique_ptr<rescan_wait> begun;
    auto* wait = waiting_for<rescan_wait>(arg);
    if (wait == nullptr) {
        begun = std::make_unique<rescan_wait>(get_variable(query_text(arg), "id", id_bytes),
                                              schedule_path(arg->connection->ctx));
        wait = begun.get();
    }
    const pass_work_timer time(pass_work::schedule);
    scheduler->share_us = pass_time_left_us();
    if (wait->rescan.go_on(std::time(nullptr))) {
        show_success(arg);
        return;
    }
    not_yet(arg, std::move(begun));
    visit_soon(arg->connection);
}

void uri_sched_dump(shttpd_call_arg* arg) {
    answer_text(arg, dump_schedules(scheduler, std::time(nullptr),
                                    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n"));
}

constexpr std::array<endpoint, 2> endpoints = {{
    {"/admin/sched/rescan", endpoint_method::any, endpoint_body::awaited, uri_sched_rescan},
    {"/admin/sched/dump", endpoint_method::any, endpoint_body::ignored, uri_sched_dump},
}};

}  // namespace

void scheduler_init(shttpd_ctx* ctx) {
    sched_fini();
    scheduler = new_scheduler_state(spawn_command);
    scheduler->ctx = ctx;
    scheduler->log = log_to_file;
    scheduler->clock_us = clock_us;
    const std::time_t now = std::time(nullptr);
    read_schedules(scheduler, nullptr, schedule_path(ctx), now);
    scheduler->floor = now;  // reached: the hour of `now` is planned by the next line
    (void)calc_next_wakeup(scheduler, now);
    register_endpoints(ctx, endpoints);
}

int sched_check_run(shttpd_ctx* /*ctx*/) {
    if (scheduler == nullptr) {
        return 0;
    }
    const pass_work_timer time(pass_work::schedule);
    scheduler->share_us = pass_time_left_us();
    notice_new_zone();
    if (!sched_check(scheduler, std::time(nullptr))) {
        return 0;
    }
    const std::time_t now = std::time(nullptr);  // starting commands takes time
    return static_cast<int>(next_wakeup(scheduler) - now);
}

bool sched_is_behind() {
    return scheduler != nullptr && scheduler->check_time != 0;
}

void sched_fini() {
    delete_scheduler_state(scheduler);
    scheduler = nullptr;
}
