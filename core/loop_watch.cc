#include "core/loop_watch.h"

#include <cstdint>
#include <string>

#include "core/globals.h"
#include "core/log.h"

namespace {

constexpr std::int64_t noticeable_us = 20000;
constexpr std::int64_t reported_us = 100000;
constexpr std::int64_t report_interval_us = 1000000;

struct step_record {
    const char* name = "";
    std::int64_t us = 0;
};

struct loop_record {
    std::int64_t pass_begin = 0;
    std::int64_t step_begin = 0;
    const char* step = "";
    step_record longest_step;  // of this pass
    // Since the start:
    std::int64_t longest_pass_us = 0;
    std::int64_t longest_pass_step_us = 0;
    std::string longest_pass_step;
    std::uint64_t noticeable_passes = 0;
    std::int64_t last_report = 0;
};

loop_record watch;

long in_ms(std::int64_t us) {
    return static_cast<long>(us / 1000);
}

}  // namespace

void watch_pass(const char* first_step) {
    watch.pass_begin = watch.step_begin = monotonic_us();
    watch.step = first_step;
    watch.longest_step = {};
}

void watch_step(const char* name) {
    const std::int64_t now = monotonic_us();
    if (now - watch.step_begin > watch.longest_step.us) {
        watch.longest_step = {.name = watch.step, .us = now - watch.step_begin};
    }
    watch.step_begin = now;
    watch.step = name;
}

void rename_step(const char* name) {
    watch.step = name;
}

void name_request_step(const char* handler) {
    if (watch.step == request_step) {
        watch.step = handler;
    }
}

void watch_pass_end(const shttpd_ctx* ctx) {
    watch_step("");
    const std::int64_t us = watch.step_begin - watch.pass_begin;
    if (us <= noticeable_us) {
        return;
    }
    ++watch.noticeable_passes;
    const step_record& step = watch.longest_step;
    if (us > watch.longest_pass_us) {
        watch.longest_pass_us = us;
        watch.longest_pass_step_us = step.us;
        watch.longest_pass_step = step.name;
    }
    const bool lately = watch.step_begin - watch.last_report < report_interval_us;
    if (us > reported_us && (watch.last_report == 0 || !lately)) {
        watch.last_report = watch.step_begin;
        log_always(ctx, nullptr, "slow pass: %ld ms, %ld ms of it in %s", in_ms(us), in_ms(step.us),
                   step.name);
    }
}

void log_longest_pass(const shttpd_ctx* ctx) {
    if (watch.noticeable_passes > 0) {
        log_always(ctx, nullptr,
                   "longest pass: %ld ms, %ld ms of it in %s; %llu passes above 20 ms",
                   in_ms(watch.longest_pass_us), in_ms(watch.longest_pass_step_us),
                   watch.longest_pass_step.c_str(),
                   static_cast<unsigned long long>(watch.noticeable_passes));
    }
    watch = loop_record();
}
