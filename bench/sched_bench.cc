// The scheduler's cost by the number of entries: the periodic check when nothing is due, planning
// an hour anew, and reading the schedule file. The check must stay below a millisecond.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "sched/sched_engine.h"
#include "sched/sched_file.h"

namespace {

constexpr std::time_t start = 1750068000;  // 10:00:00 UTC

child_start no_start(const schedule_entry* /*entry*/, const shttpd_ctx* /*ctx*/) {
    return {.pid = 1};
}

// A file of entries that all run in this hour, half of them at minute 30 and half at minute 59.
class schedule_file {
  public:
    explicit schedule_file(std::int64_t entries) {
        std::string name = "/tmp/sched_bench.XXXXXX";
        const int fd = mkstemp(name.data());
        if (fd < 0) {
            std::abort();
        }
        close(fd);
        path_ = name;
        std::ofstream out(path_);
        for (std::int64_t i = 0; i < entries; ++i) {
            out << "job" << i << (i % 2 != 0 ? " - 30" : " - 59") << " * * * * /bin/true\n";
        }
    }
    ~schedule_file() { unlink(path_.c_str()); }
    schedule_file(const schedule_file&) = delete;
    schedule_file& operator=(const schedule_file&) = delete;
    [[nodiscard]] const char* path() const { return path_.c_str(); }

  private:
    std::string path_;
};

struct state_deleter {
    void operator()(scheduler_state* state) const { delete_scheduler_state(state); }
};
using state_ptr = std::unique_ptr<scheduler_state, state_deleter>;

state_ptr load(const schedule_file& file) {
    state_ptr state(new_scheduler_state(no_start));
    read_schedules(state.get(), nullptr, file.path(), start);
    state->floor = start;
    (void)calc_next_wakeup(state.get(), start);
    return state;
}

void check_with_nothing_due(benchmark::State& bench) {
    const schedule_file file(bench.range(0));
    const state_ptr state = load(file);
    for ([[maybe_unused]] auto _ : bench) {
        (void)sched_check(state.get(), start + 60);
        benchmark::DoNotOptimize(calc_next_wakeup(state.get(), start + 60));
    }
}

// The clock goes back and forth by an hour: every entry is planned anew.
void plan_everything(benchmark::State& bench) {
    const schedule_file file(bench.range(0));
    const state_ptr state = load(file);
    std::time_t now = start;
    for ([[maybe_unused]] auto _ : bench) {
        now -= 3600;
        (void)sched_check(state.get(), now);
    }
    bench.SetItemsProcessed(bench.iterations() * bench.range(0));
}

void read_file(benchmark::State& bench) {
    const schedule_file file(bench.range(0));
    for ([[maybe_unused]] auto _ : bench) {
        benchmark::DoNotOptimize(load(file).get());
    }
    bench.SetItemsProcessed(bench.iterations() * bench.range(0));
}

void dump(benchmark::State& bench) {
    const schedule_file file(bench.range(0));
    const state_ptr state = load(file);
    for ([[maybe_unused]] auto _ : bench) {
        benchmark::DoNotOptimize(dump_schedules(state.get(), start).data());
    }
}

BENCHMARK(check_with_nothing_due)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(plan_everything)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(dump)->Arg(10)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(read_file)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
