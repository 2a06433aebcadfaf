// Loading INI files of 1,000 to 100,000 keys, in the order in which the store writes them and in
// random order; "time/key" must stay level while the file grows.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "lib/ini.h"

namespace {

class ini_file {
  public:
    ini_file(std::int64_t keys, std::int64_t sections, bool shuffled) {
        std::string name = "/tmp/lib_bench.XXXXXX";
        const int fd = mkstemp(name.data());
        if (fd < 0) {
            std::abort();
        }
        (void)::close(fd);
        path_ = name;
        std::mt19937 random(1);
        std::ofstream out(path_);
        for (std::int64_t s = 0; s < sections; ++s) {
            char line[64];
            (void)std::snprintf(line, sizeof line, "[section%06d]\n", static_cast<int>(s));
            out << line;
            std::vector<std::string> lines;
            for (std::int64_t k = 0; k < keys / sections; ++k) {
                (void)std::snprintf(line, sizeof line, "key.%08d = \"the value %d\";\n",
                                    static_cast<int>(k), static_cast<int>(k));
                lines.emplace_back(line);
            }
            if (shuffled) {
                std::shuffle(lines.begin(), lines.end(), random);
            }
            for (const std::string& text : lines) {
                out << text;
            }
            out << '\n';
        }
    }
    ~ini_file() { (void)unlink(path_.c_str()); }
    ini_file(const ini_file&) = delete;
    ini_file& operator=(const ini_file&) = delete;
    ini_file(ini_file&&) = delete;
    ini_file& operator=(ini_file&&) = delete;
    [[nodiscard]] const char* path() const { return path_.c_str(); }

  private:
    std::string path_;
};

void load(benchmark::State& state, std::int64_t keys_per_section, bool shuffled) {
    const std::int64_t keys = state.range(0);
    const ini_file file(keys, keys / std::min(keys, keys_per_section), shuffled);
    for (auto _ : state) {
        parse_handle* store = nullptr;
        if (parse_open(file.path(), nullptr, &store) != 0) {
            state.SkipWithError("the file does not load");
            break;
        }
        (void)parse_close(store);
    }
    state.counters["time/key"] = benchmark::Counter(
        static_cast<double>(keys),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void load_one_section(benchmark::State& state) {
    load(state, INT64_MAX, false);
}
void load_sections_of_100(benchmark::State& state) {
    load(state, 100, false);
}
void load_one_section_shuffled(benchmark::State& state) {
    load(state, INT64_MAX, true);
}

void sizes(benchmark::internal::Benchmark* row) {
    row->Unit(benchmark::kMillisecond)->Arg(1'000)->Arg(10'000)->Arg(100'000);
}

BENCHMARK(load_one_section)->Apply(sizes);
BENCHMARK(load_sections_of_100)->Apply(sizes);
BENCHMARK(load_one_section_shuffled)->Apply(sizes);

}  // namespace
