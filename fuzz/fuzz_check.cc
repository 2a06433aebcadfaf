// dovmad-check's readers: each finding is one line of printable text about a line that the file
// has, and what the daemon makes nothing of, or something else, is found.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "check/check.h"
#include "core/config_line.h"
#include "core/globals.h"
#include "core/mime_type.h"
#include "core/paths.h"
#include "domain/domain_file.h"
#include "domain/registry.h"
#include "fuzz/memory_file.h"
#include "lib/rbtree.h"
#include "sched/sched_file.h"
#include "security/access_file.h"

// Nothing of this host is looked at.
constinit const system_paths paths = {
    .config_file = "/dev/null/a",
    .pid_file = "/dev/null/a",
    .var_directory = "/dev/null/a",
    .resolver_file = "/dev/null/a",
    .host_guid = "/dev/null/a",
    .os_uuid = "/dev/null/a",
    .tuvo_admin_socket = "/dev/null/a",
    .tuvo_query_socket = "/dev/null/a",
    .library_location = "/dev/null/a",
};
constinit const char* config_file = "/dev/null/a";

namespace {

std::string printed;

ssize_t print(void*, const char* text, std::size_t length) {
    printed.append(text, length);
    return static_cast<ssize_t>(length);
}

struct scene {
    scene() {
        stdout = fopencookie(nullptr, "w", {nullptr, print, nullptr, nullptr});
        std::filesystem::create_directories(root.path + "/pub");
        check(symlink(file.path().c_str(), (root.path + "/pub/.dovmaaccess").c_str()) == 0);
    }
    memory_file file;
    memory_folder root;
};

std::size_t row_of(const char* keyword) {
    return static_cast<std::size_t>(find_option('\0', keyword) - options.data());
}

// The lines that have an error.
std::set<int> read_findings(const std::string& path, std::size_t lines) {
    (void)std::fflush(stdout);
    std::set<int> errors;
    std::string_view rest = printed;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        check(end != std::string_view::npos);
        const std::string line(rest.substr(0, end));
        rest.remove_prefix(end + 1);
        for (const char c : line) {
            check(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
        }
        int number = 0;
        char kind[16] = "";
        if (line.starts_with(path) &&
            std::sscanf(line.c_str() + path.size(), ":%d: %15[a-z]: ", &number, kind) == 2) {
            check(number >= 1 && static_cast<std::size_t>(number) <= lines);
        }
        if (std::string_view(kind) == "error") {
            errors.insert(number);
        }
    }
    printed.clear();
    return errors;
}

// --- What the daemon makes of the same bytes ---

// Lines that end it, or that it takes for something else.
void expect_config_errors(const std::string& path, const std::set<int>& errors) {
    std::FILE* file = std::fopen(path.c_str(), "re");
    config_line line;
    while (next_config_line(file, &line)) {
        const bool good =
            !line.keyword.empty() && find_option('\0', line.keyword.c_str()) != nullptr;
        check((good && !line.unfinished && line.cut == '\n') || errors.count(line.number) > 0);
    }
    (void)std::fclose(file);
}

child_start no_start(const schedule_entry* /*entry*/, const shttpd_ctx* /*ctx*/) {
    return {.pid = -1, .failed = child_step::fork, .error = EAGAIN};
}

// A line without error is an entry, a comment, or paused out of the way.
void expect_schedule_errors(const std::string& path, const std::vector<std::string>& lines,
                            const std::set<int>& errors) {
    constexpr std::string_view blanks = " \t";
    const scheduler_ptr state(new_scheduler_state(no_start));
    read_schedules(state.get(), nullptr, path.c_str(), 1700000000);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::size_t first = lines[i].find_first_not_of(blanks);
        if (first == std::string::npos || lines[i][first] == '#' ||
            lines[i].find("pause") != std::string::npos ||
            lines[i].find('\0') != std::string::npos) {
            continue;
        }
        const std::size_t begin = lines[i].find_first_not_of(' ');  // tabs are part of an id
        const std::string id = lines[i].substr(begin, lines[i].find(' ', begin) - begin);
        check(qz_map_find(state->entries, id.c_str()) != nullptr ||
              errors.count(static_cast<int>(i) + 1) > 0);
    }
}

// The daemon drops no line that was called good, but for those that a name further up swallows.
void expect_access_errors(const std::string& path, bool any_error) {
    role_entry row;
    row.directory = "pub";
    (void)refresh_row(path, &row);
    check(!row.unreadable || any_error);
    clear_row(&row);
}

void expect_domain_errors(std::string_view text, bool any_error) {
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    const domain_text_report report = parse_domain_text(text, hosts.get());
    check(report.no_hosts.count() == 0 || any_error);
}

void expect_mime_errors(const std::string& path, const std::vector<std::string>& lines,
                        const std::set<int>& errors) {
    shttpd_ctx ctx;
    set_mime_types(&ctx, path.c_str());
    std::size_t good = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const bool says_something = lines[i].find_first_not_of(" \t\v\f\r") != std::string::npos &&
                                    lines[i][0] != '#' && lines[i].find('\0') == std::string::npos;
        good += says_something && errors.count(static_cast<int>(i) + 1) == 0 ? 1 : 0;
    }
    std::size_t records = 0;
    for (const mime_type_record& record : ctx.mime_records) {
        records += record.type.empty() ? 0 : 1;
    }
    check(records >= good);
    ctx.mime_records.free_all(mime_type_destructor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const scene here;
    const std::string& path = here.file.path();
    fuzz_input input(data, size);
    const unsigned kind = input.byte() % 5;
    const std::string_view text = input.rest();
    here.file.write(text);
    std::vector<std::string> lines;
    for (std::string_view left = text; !left.empty();) {
        lines.emplace_back(left.substr(0, left.find('\n')));
        left.remove_prefix(std::min(lines.back().size() + 1, left.size()));
    }
    settings conf;
    conf.file = path;
    switch (kind) {
        case 0:
            check(check_lines(&conf));
            conf.values[row_of("inetd_mode")] = "1";  // no port is tried
            check_values(conf);
            expect_config_errors(path, read_findings(path, lines.size()));
            break;
        case 1:
            conf.values[row_of("scheduler_file")] = path;
            check_schedule(conf);
            expect_schedule_errors(path, lines, read_findings(path, lines.size()));
            break;
        case 2:
            conf.values[row_of("document_root")] = here.root.path;
            check_access_files(conf);
            expect_access_errors(
                path, !read_findings(here.root.path + "/pub/.dovmaaccess", lines.size()).empty());
            break;
        case 3:
            conf.values[row_of("domain_file")] = path;
            check_data_files(conf);
            expect_domain_errors(text, !read_findings(path, lines.size()).empty());
            break;
        default:
            conf.values[row_of("mime_types")] = path;
            check_data_files(conf);
            expect_mime_errors(path, lines, read_findings(path, lines.size()));
            break;
    }
    return 0;
}
