// dovmad-check: looks at a configuration, and at what it names, before the daemon does.
#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "check/check.h"
#include "core/paths.h"

namespace {

constexpr int exit_usage = 64;
constexpr int most_runs = 100000;

constexpr const char* usage_text =
    "usage: dovmad-check [-q] [-u USER] [--next N] [FILE]\n"
    "Checks dovmad's configuration FILE (default %s) and what it names.\n"
    "  -q, --quiet      no warnings\n"
    "  -u, --user USER  the daemon is started by USER (default: the caller)\n"
    "  -n, --next N     print the next N runs of the schedule\n"
    "Exits with 0 without errors, 1 with errors, 64 when called wrongly.\n";

constexpr option long_options[] = {
    {"quiet", no_argument, nullptr, 'q'},
    {"user", required_argument, nullptr, 'u'},
    {"next", required_argument, nullptr, 'n'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

int wrong_call(const char* problem, const char* what) {
    (void)std::fprintf(stderr, "dovmad-check: %s%s\n", problem, what);
    return exit_usage;
}

// A number from 1 to most_runs; 0 when it is none.
int run_count(const char* text) {
    int count = 0;
    const char* end = text + std::strlen(text);
    const auto result = std::from_chars(text, end, count);
    return result.ec == std::errc() && result.ptr == end && count <= most_runs ? count : 0;
}

}  // namespace

int main(int argc, char** argv) {
    (void)std::setlocale(LC_ALL, "");
    settings conf;
    conf.starter = own_identity();
    int next_runs = 0;
    for (int letter = 0;
         (letter = getopt_long(argc, argv, "qu:n:h", long_options, nullptr)) != -1;) {
        switch (letter) {
            case 'q':
                be_quiet();
                break;
            case 'u':
                conf.starter = find_identity(optarg);
                if (!conf.starter.known) {
                    return wrong_call("unknown user ", optarg);
                }
                break;
            case 'n':
                next_runs = run_count(optarg);
                if (next_runs <= 0) {
                    return wrong_call("not a number of runs: ", optarg);
                }
                break;
            case 'h':
                (void)std::printf(usage_text, paths.config_file);
                return 0;
            default:
                (void)std::fprintf(stderr, usage_text, paths.config_file);
                return exit_usage;
        }
    }
    if (argc - optind > 1) {
        return wrong_call("more than one file: ", argv[optind + 1]);
    }
    conf.file = optind < argc ? argv[optind] : paths.config_file;
    if (check_lines(&conf)) {
        check_values(conf);
        check_places(conf);
        check_library(conf);
        check_schedule(conf);
        check_access_files(conf);
        check_data_files(conf);
        if (next_runs > 0) {
            print_next_runs(conf, next_runs);
        }
    }
    return error_count() > 0 ? 1 : 0;
}
