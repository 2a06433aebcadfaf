// qz_map beside std::map: the same comparator, the same keys, which belong to the caller in both.
//
// "bytes/entry" is what the heap grew by, without the key texts.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lib/plat.h"
#include "lib/rbtree.h"

namespace {

constexpr std::int64_t few = 1'000;
constexpr std::int64_t some = 100'000;
constexpr std::int64_t many = 1'000'000;

struct by_compare_string {
    bool operator()(const void* a, const void* b) const { return compare_string(a, b) < 0; }
};

struct qz_subject {
    map_ptr map{new_qz_map(compare_string, nullptr, nullptr)};
    void insert(char* key) { benchmark::DoNotOptimize(qz_map_insert(map.get(), key, key)); }
    void find(const char* key) { benchmark::DoNotOptimize(qz_map_find(map.get(), key)); }
    void erase(const char* key) { benchmark::DoNotOptimize(qz_map_delete(map.get(), key)); }
    void walk() const {
        for (const qz_pair& entry : qz_each(map.get())) {
            benchmark::DoNotOptimize(entry.value);
        }
    }
};

// As qz_subject, but walks through the iterator's slots.
struct qz_slot_subject : qz_subject {
    void walk() const {
        for (qz_cursor at(qz_map_open(map.get())); !at.at_end(); at.next()) {
            benchmark::DoNotOptimize(at.data<qz_pair>()->value);
        }
    }
};

struct std_subject {
    std::map<const void*, void*, by_compare_string> map;
    void insert(char* key) { benchmark::DoNotOptimize(map.insert({key, key}).second); }
    void find(const char* key) { benchmark::DoNotOptimize(map.find(key)->second); }
    void erase(const char* key) { benchmark::DoNotOptimize(map.erase(key)); }
    void walk() const {
        for (const auto& entry : map) {
            benchmark::DoNotOptimize(entry.second);
        }
    }
};

// Texts of 39 characters in one block, and pointers to them in two random orders.
struct key_set {
    explicit key_set(std::size_t count) : text(count * stride) {
        for (std::size_t i = 0; i < count; ++i) {
            char* key = text.data() + i * stride;
            (void)std::snprintf(key, stride, "host-%08u.management.example.org/%04u",
                                static_cast<unsigned>(i), static_cast<unsigned>(i % 9973));
            build_order.push_back(key);
        }
        std::mt19937 random(1);
        std::shuffle(build_order.begin(), build_order.end(), random);
        probe_order = build_order;
        std::shuffle(probe_order.begin(), probe_order.end(), random);
    }
    static constexpr std::size_t stride = 48;
    std::vector<char> text;
    std::vector<char*> build_order;
    std::vector<char*> probe_order;
};

const key_set& keys_of(std::int64_t count) {
    static std::map<std::int64_t, std::unique_ptr<key_set>> made;
    std::unique_ptr<key_set>& keys = made[count];
    if (keys == nullptr) {
        keys = std::make_unique<key_set>(static_cast<std::size_t>(count));
    }
    return *keys;
}

template <class Subject>
void build(Subject& subject, const key_set& keys) {
    for (char* key : keys.build_order) {
        subject.insert(key);
    }
}

// Processor time of this thread: what other programs do on the machine counts less.
double cpu_seconds() {
    timespec now{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The processor time of `work(subject, keys)`, `rounds` times over, on a map that
// `prepare(subject, keys)` made ready. Each map lives in a child process, so that all start from
// the same heap, and `shift` times 16 bytes into a cache line: entries of 64 bytes keep the place
// that the first of them happens to get, which decides how many lines each of them touches.
template <class Subject, class Prepare, class Work>
double seconds_in_child(const key_set& keys, std::size_t shift, std::int64_t rounds,
                        Prepare prepare, Work work) {
    int ends[2];
    if (pipe(ends) != 0) {
        return 0;
    }
    const pid_t child = fork();
    if (child == 0) {
        void* const shifted = std::malloc(8 + 16 * shift);
        benchmark::DoNotOptimize(shifted);
        Subject subject;
        prepare(subject, keys);
        const double start = cpu_seconds();
        for (std::int64_t i = 0; i < rounds; ++i) {
            work(subject, keys);
        }
        const double taken = cpu_seconds() - start;
        _exit(write(ends[1], &taken, sizeof taken) == sizeof taken ? 0 : 1);
    }
    (void)close(ends[1]);
    double taken = 0;
    const bool told = read(ends[0], &taken, sizeof taken) == sizeof taken;
    (void)close(ends[0]);
    (void)waitpid(child, nullptr, 0);
    return told ? taken : 0;
}

// Work that leaves the map as it is runs `rounds` times.
template <class Subject, class Prepare, class Work>
void run(benchmark::State& state, std::int64_t rounds, Prepare prepare, Work work) {
    const key_set& keys = keys_of(state.range(0));
    static std::size_t shift = 0;
    for (auto _ : state) {
        const double taken = seconds_in_child<Subject>(keys, ++shift % 4, rounds, prepare, work);
        if (taken <= 0) {
            state.SkipWithError("the child process told no time");
            break;
        }
        state.SetIterationTime(taken);
    }
    state.counters["time/entry"] = benchmark::Counter(
        static_cast<double>(state.range(0) * rounds),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

std::int64_t reading_rounds(const benchmark::State& state) {
    return std::max<std::int64_t>(4, some / state.range(0));
}

template <class Subject>
double bytes_per_entry(const key_set& keys) {
    Subject subject;
    const std::size_t before = mallinfo2().uordblks;
    build(subject, keys);
    return static_cast<double>(mallinfo2().uordblks - before) /
           static_cast<double>(keys.build_order.size());
}

template <class Subject>
void insert(benchmark::State& state) {
    run<Subject>(
        state, 1, [](Subject&, const key_set&) {}, build<Subject>);
    state.counters["bytes/entry"] = bytes_per_entry<Subject>(keys_of(state.range(0)));
}

template <class Subject>
void find(benchmark::State& state) {
    run<Subject>(state, reading_rounds(state), build<Subject>,
                 [](Subject& subject, const key_set& keys) {
                     for (const char* key : keys.probe_order) {
                         subject.find(key);
                     }
                 });
}

template <class Subject>
void walk(benchmark::State& state) {
    run<Subject>(state, reading_rounds(state), build<Subject>,
                 [](Subject& subject, const key_set&) { subject.walk(); });
}

template <class Subject>
void erase(benchmark::State& state) {
    run<Subject>(state, 1, build<Subject>, [](Subject& subject, const key_set& keys) {
        for (const char* key : keys.probe_order) {
            subject.erase(key);
        }
    });
}

void sizes(benchmark::internal::Benchmark* row) {
    row->UseManualTime()->Unit(benchmark::kMillisecond);
    row->Arg(few)->Arg(some)->Arg(many);
}

BENCHMARK(insert<qz_subject>)->Apply(sizes);
BENCHMARK(insert<std_subject>)->Apply(sizes);
BENCHMARK(find<qz_subject>)->Apply(sizes);
BENCHMARK(find<std_subject>)->Apply(sizes);
BENCHMARK(walk<qz_subject>)->Apply(sizes);
BENCHMARK(walk<qz_slot_subject>)->Apply(sizes);
BENCHMARK(walk<std_subject>)->Apply(sizes);
BENCHMARK(erase<qz_subject>)->Apply(sizes);
BENCHMARK(erase<std_subject>)->Apply(sizes);

}  // namespace
