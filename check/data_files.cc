// dovmad-check: schedule, access, domain, MIME and INI files, read by the daemon's own parsers.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>

#include "check/check.h"
#include "core/paths.h"
#include "core/string.h"
#include "domain/domain_file.h"
#include "domain/registry.h"
#include "handlers/osuuid.h"
#include "lib/conf_lex.h"
#include "lib/file.h"
#include "lib/ini.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"
#include "sched/sched_command.h"
#include "sched/sched_engine.h"
#include "sched/sched_file.h"
#include "security/access_file.h"

namespace {

constexpr std::size_t schedule_line_bytes = 1023;
constexpr std::size_t access_line_bytes = 255;
constexpr std::size_t domain_line_bytes = 1023;
constexpr std::string_view blanks = " \t";
constexpr std::string_view white_space = " \t\v\f\r";

// The file's content; false when it can't be read, with the reason in *problem.
bool read_content(const std::string& path, std::string* content, int* problem) {
    const unique_fd file = open_regular(path.c_str());
    *problem = file ? read_all(file.get(), content) : errno;
    return *problem == 0;
}

// Calls `look` with each line that is not empty and its number; longer ones are errors.
void each_line(const std::string& path, std::string_view text, std::size_t longest,
               const std::function<void(const place&, std::string_view)>& look) {
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.size() > longest) {
            error({path, number}, "longer than %zu characters: read as several lines", longest);
        } else if (line.find('\0') != std::string_view::npos) {
            error({path, number}, "holds a zero byte: what stands behind it is not read");
        } else if (!line.empty()) {
            look({path, number}, line);
        }
    }
}

bool is_comment(std::string_view line) {
    const std::size_t first = line.find_first_not_of(blanks);
    return first == std::string_view::npos || line[first] == '#';
}

// --- Schedule ---

void check_command(const settings& conf, const place& where, const schedule_entry& entry) {
    const std::vector<std::string> words = split_command(entry.command);
    const std::string& program = words.front();
    if (!program.starts_with('/')) {
        error(where, "%s: the program needs its whole path: \"%s\"", entry.id.c_str(),
              program.c_str());
        return;
    }
    const acting_as server(conf.server);
    const int problem = access_error(program, X_OK);
    if (problem != 0) {
        error(where, "%s: %s: %s", entry.id.c_str(), program.c_str(), std::strerror(problem));
    }
    if (words.size() == 3 && words[1] == "-c") {
        const std::string_view text = words[2];
        const std::size_t first = text.find_first_not_of(blanks);
        if (first != std::string_view::npos && (text[first] == '\'' || text[first] == '"') &&
            text.find(text[first], first + 1) == text.size() - 1) {
            error(where, "%s: the shell gets the quotes, too: leave them out", entry.id.c_str());
        }
    }
}

void check_schedule_line(const settings& conf, const place& where, std::string_view line,
                         std::map<std::string, int>* ids) {
    if (is_comment(line)) {
        return;
    }
    schedule_entry* entry = parse_schedule_line(line);
    if (entry == nullptr) {
        std::string_view rest = line;
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        rest.remove_prefix(std::min(rest.find(' '), rest.size()));
        rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
        const std::string_view flags = rest.substr(0, rest.find(' '));
        if (line.find('\t') != std::string_view::npos) {
            error(where, "the line is dropped; fields are separated by spaces, not by tabs");
        } else if (flags.find("pause") == std::string_view::npos) {
            error(where, "the line is dropped: a field is missing or wrong");
        }
        return;
    }
    const auto [known, is_new] = ids->emplace(entry->id, where.line);
    if (!is_new) {
        error(where, "%s stands in line %d already, which stays", entry->id.c_str(), known->second);
    }
    if (entry->interval == 0 && entry->kickoff == 0 &&
        std::strchr(entry->minute_mask, '1') == nullptr) {
        warning(where, "%s never runs", entry->id.c_str());
    }
    check_command(conf, where, *entry);
    sched_free(entry);
}

// --- Access files ---

int principal_count(const role_entry& row) {
    return qz_set_size(row.groups) + qz_set_size(row.users);
}

// False when the line names nobody; the row then counts no more than before.
bool add_principals(std::string_view line, role_entry* row) {
    const std::string text(line);
    const file_ptr file(fmemopen(const_cast<char*>(text.data()), text.size(), "r"));
    row->strays.clear();
    return file != nullptr && read_access_file(file.get(), row);
}

void check_access_file(const settings& conf, const std::string& path) {
    const acting_as server(conf.server);
    std::string content;
    int problem = 0;
    if (!read_content(path, &content, &problem)) {
        if ((problem == ENOENT || problem == ENOTDIR) && access_error(path, F_OK) != 0) {
            struct stat st {};
            if (lstat(path.c_str(), &st) == 0 && write_error(path) != 0) {
                warning({path}, "a link whose target can't be made by %s: grants are lost",
                        conf.server.name.c_str());
            }
            return;
        }
        error({path}, "nobody holds this role: %s", std::strerror(problem));
        return;
    }
    if (write_error(path) != 0) {
        warning({path}, "%s may not write it: grants are lost at a restart",
                conf.server.name.c_str());
    }
    role_entry row;
    row.groups = new_qz_set(cmp_str, qzfree);
    row.users = new_qz_set(cmp_str, qzfree);
    each_line(path, content, access_line_bytes, [&](const place& where, std::string_view line) {
        if (is_comment(line)) {
            return;
        }
        const int known = principal_count(row);
        if (!add_principals(line, &row)) {
            error(where, "neither NAME:user nor NAME:group");
        } else if (starts_with_nocase(line, "root")) {
            warning(where, "names that begin with \"root\" are dropped at the next change");
        } else if (principal_count(row) == known && !path.ends_with("/pub/.dovmaaccess")) {
            warning(where, "taken for a name further up; the line is lost at the next change");
        }
    });
    clear_row(&row);
}

// --- Domain, MIME, INI ---

void check_domain_file(const settings& conf) {
    if (!conf.is_set("domain_file")) {
        return;
    }
    const std::string& path = conf.value("domain_file");
    const place where = conf.where("domain_file");
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode) && stat(path.c_str(), &st) != 0) {
        warning(where, "%s leads nowhere: the daemon is in standalone mode", path.c_str());
        return;
    }
    const acting_as server(conf.server);
    const int unwritable = write_error(path);
    if (unwritable != 0) {
        error(where, "domain_file %s, as %s: %s", path.c_str(), conf.server.name.c_str(),
              std::strerror(unwritable));
    }
    std::string content;
    int problem = 0;
    if (!read_content(path, &content, &problem)) {
        if (problem != ENOENT && unwritable == 0) {
            error(where, "domain_file %s: %s", path.c_str(), std::strerror(problem));
        }
        return;
    }
    domain_entry* hosts = make_domain_entry("check");
    each_line(path, content, domain_line_bytes, [&](const place& at, std::string_view line) {
        qz_map_clear(hosts->hosts);
        parse_domain_text(line, hosts->hosts);
        if (qz_map_size(hosts->hosts) == 0 && !is_comment(line)) {
            error(at, "names no host: NAME:REV:ID:OSNAME:OSRELEASE:CPUTYPE:NAMESPACE");
        }
    });
    free_dhc_info_map(hosts);
}

void check_mime_file(const settings& conf) {
    if (!conf.is_set("mime_types")) {
        return;
    }
    const std::string& path = conf.value("mime_types");
    std::string content;
    int problem = 0;
    const acting_as starter(conf.starter);
    if (!read_content(path, &content, &problem)) {
        error(conf.where("mime_types"), "mime_types %s: %s", path.c_str(), std::strerror(problem));
        return;
    }
    each_line(path, content, 510, [](const place& where, std::string_view line) {
        std::size_t words = 0;
        for (std::size_t at = line.find_first_not_of(white_space); at < line.size(); ++words) {
            at = line.find_first_not_of(white_space,
                                        std::min(line.find_first_of(white_space, at), line.size()));
        }
        if (line.front() != '#' && words == 1) {
            error(where, "a type without an extension");
        } else if (line.front() != '#' && words > 2) {
            error(where, "one extension a line: of several, not all count");
        }
    });
}

// The first of the two files that can be opened decides.
void check_host_id(const settings& conf) {
    const acting_as server(conf.server);
    for (const char* path : {paths.host_guid, paths.os_uuid}) {
        const int problem = access_error(path, R_OK);
        if (problem == 0) {
            forget_osuuid();
            if (get_osuuid() == nullptr) {
                warning({path}, "this host is UNKNOWN: no GUID in braces in 46 to 99 characters");
            }
            return;
        }
        if (problem != ENOENT && problem != ENOTDIR) {
            warning({path}, "%s does not know this host: %s", conf.server.name.c_str(),
                    std::strerror(problem));
        }
    }
}

void check_ini_file(const char* path) {
    if (access_error(path, F_OK) != 0) {
        return;
    }
    parse_handle* handle = nullptr;
    const int result = parse_open(path, nullptr, &handle);
    if (result == qz_ok) {
        (void)parse_close(handle);
    } else if (result == qz_syntax_error) {
        error({path, conflineno}, "syntax error; the whole file is without effect");
    } else {
        error({path}, "cannot be read");
    }
}

// --- The next runs ---

struct upcoming_runs {
    std::time_t now = 0;
    int wanted = 0;
};

upcoming_runs& upcoming() {
    static upcoming_runs only;
    return only;
}

child_start print_run(const schedule_entry* entry, const shttpd_ctx* /*ctx*/) {
    upcoming_runs& runs = upcoming();
    if (runs.wanted > 0) {
        --runs.wanted;
        std::array<char, 64> text{};
        std::tm local{};
        (void)localtime_r(&runs.now, &local);
        (void)std::strftime(text.data(), text.size(), "%a %Y-%m-%d %H:%M", &local);
        (void)std::printf("%s %s: %s\n", text.data(), entry->id.c_str(), entry->command.c_str());
    }
    return {};
}

}  // namespace

void check_schedule(const settings& conf) {
    if (!conf.is_set("scheduler_file")) {
        return;
    }
    const std::string& path = conf.value("scheduler_file");
    std::string content;
    int problem = 0;
    const acting_as starter(conf.starter);
    if (!read_content(path, &content, &problem)) {
        warning(conf.where("scheduler_file"), "nothing is scheduled: %s: %s", path.c_str(),
                std::strerror(problem));
        return;
    }
    std::map<std::string, int> ids;
    each_line(path, content, schedule_line_bytes, [&](const place& at, std::string_view line) {
        check_schedule_line(conf, at, line, &ids);
    });
}

void check_access_files(const settings& conf) {
    std::vector<std::string> roots;
    if (conf.is_set("document_root")) {
        roots.push_back(conf.value("document_root"));
    }
    for (const named_path& entry : named_paths(conf.value("namespaces"))) {
        roots.push_back(entry.path);
    }
    for (const std::string& root : roots) {
        for (const char* role : {"pub", "operator", "admin", "agent"}) {
            check_access_file(conf, root + "/" + role + "/.dovmaaccess");
        }
    }
}

void check_data_files(const settings& conf) {
    check_domain_file(conf);
    check_mime_file(conf);
    check_ini_file(paths.resolver_file);
    check_host_id(conf);
}

// The engine itself is driven through the hours to come, at most a year of them.
void print_next_runs(const settings& conf, int count) {
    constexpr std::time_t a_year = std::time_t{366} * 24 * 3600;
    scheduler_state* state = new_scheduler_state(print_run);
    const std::time_t start = std::time(nullptr);
    upcoming() = {.now = start, .wanted = count};
    read_schedules(state, nullptr, conf.value("scheduler_file").c_str(), start);
    for (std::time_t now = start; upcoming().wanted > 0 && now < start + a_year;
         now = std::max(calc_next_wakeup(state, now), now + 1)) {
        upcoming().now = now;
        (void)sched_check(state, now);
    }
    delete_scheduler_state(state);
}
