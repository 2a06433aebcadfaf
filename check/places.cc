// dovmad-check: folders and programs that the configuration names, and the authentication library.
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "check/check.h"
#include "core/paths.h"
#include "lib/file.h"
#include "lib/unique_fd.h"
#include "security/at_symbols.h"
#include "security/tpk_make_path.h"

namespace {

constexpr const char* library_file = "/opt/MOLBat/lib//libmolbat4L_t.so";
constexpr int exit_usage = 64;  // of dovmad-user

bool is_folder(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void check_root(const settings& conf, const place& where, const std::string& what,
                const std::string& path) {
    if (!path.starts_with('/')) {
        warning(where, "%s \"%s\" is relative: it depends on where the daemon is started",
                what.c_str(), path.c_str());
    }
    const acting_as server(conf.server);
    const int problem = access_error(path, R_OK | X_OK);
    if (problem == ENOENT || problem == ENOTDIR) {
        warning(where, "%s %s: %s", what.c_str(), path.c_str(), std::strerror(problem));
    } else if (!is_folder(path)) {
        error(where, "%s %s is no directory", what.c_str(), path.c_str());
    } else if (problem != 0) {
        error(where, "%s %s, as %s: %s", what.c_str(), path.c_str(), conf.server.name.c_str(),
              std::strerror(problem));
    } else if (conf.server.uid != 0 && access_error(path, W_OK) == 0) {
        for (const char* keyword : {"cgi_extensions", "ssi_extensions"}) {
            if (conf.where(keyword).line != 0) {
                warning(conf.where(keyword),
                        "%s may write %s: who may PUT there may run programs as the daemon",
                        conf.server.name.c_str(), path.c_str());
            }
        }
    }
}

void check_writable(const identity& who, const place& where, const char* what,
                    const std::string& path) {
    const acting_as user(who);
    const int problem = write_error(path);
    if (problem != 0) {
        error(where, "%s %s, as %s: %s", what, path.c_str(), who.name.c_str(),
              std::strerror(problem));
    }
}

void check_program(const settings& conf, const place& where, const char* what,
                   const std::string& path) {
    const acting_as server(conf.server);
    const int problem = is_folder(path) ? EISDIR : access_error(path, X_OK);
    if (problem != 0) {
        error(where, "%s %s: %s", what, path.c_str(), std::strerror(problem));
    }
}

// Everything that is below var_dir is made at the first start.
void check_var(const settings& conf) {
    const std::string var =
        conf.is_set("var_dir") ? conf.value("var_dir") : std::string(paths.var_directory);
    const place where = conf.where("var_dir");
    const acting_as starter(conf.starter);
    if (!is_folder(var)) {
        error(where, "var_dir %s is no directory", var.c_str());
    } else if (!is_folder(var + "/sec") && access_error(var, W_OK | X_OK) != 0) {
        error(where, "var_dir %s has no \"sec\" yet, and %s may not make it", var.c_str(),
              conf.starter.name.c_str());
    } else if (is_folder(var + "/sec") && access_error(var + "/sec", R_OK | X_OK) != 0) {
        error(where, "%s/sec: %s may not read it", var.c_str(), conf.starter.name.c_str());
    }
}

// --- The library ---

constexpr std::array symbol_names = {
#define MOLBAT_NAME(index, name, kind) #name,
    MOLBAT_ENTRY_POINTS(MOLBAT_NAME)
#undef MOLBAT_NAME
};
static_assert(symbol_names.size() == 175);

// In a process of its own: what stands there may be any library, with initialisers.
// The problem as a text, empty when there is none.
std::string load_problem(const std::string& path) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return std::strerror(errno);
    }
    const unique_fd input(ends[0]);
    unique_fd output(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        std::string problem;
        void* file = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (file == nullptr) {
            const char* reason = dlerror();
            problem = reason != nullptr ? reason : "cannot be loaded";
        } else if (dlsym(file, "molbatLibraryControl") == nullptr) {
            problem = path + ": is no authentication library (molbatLibraryControl is missing)";
        } else {
            int missing = 0;
            for (const char* name : symbol_names) {
                if (dlsym(file, name) == nullptr && missing++ == 0) {
                    problem = path + ": lacks " + name;
                }
            }
            problem +=
                missing > 1 ? " and " + std::to_string(missing - 1) + " more of the 175 names" : "";
        }
        (void)write_all(output.get(), problem);
        _exit(0);
    }
    output.reset();
    std::string problem;
    (void)read_all(input.get(), &problem);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        return path + ": the process that loads it ends";
    }
    return problem;
}

// The program beside this one, else the one that PATH finds.
std::string user_tool() {
    std::array<char, PATH_MAX> own{};
    const ssize_t length = readlink("/proc/self/exe", own.data(), own.size() - 1);
    const std::string self(own.data(), static_cast<std::size_t>(length > 0 ? length : 0));
    const std::string beside = self.substr(0, self.rfind('/') + 1) + "dovmad-user";
    return access_error(beside, X_OK) == 0 ? beside : "dovmad-user";
}

// A line of dovmad-user: a finding of its own, or a failure.
void pass_on(const std::string& data, std::string_view line) {
    const bool warns = line.starts_with("warning: ");
    for (const std::string_view prefix : {"error: ", "warning: ", "dovmad-user: "}) {
        line.remove_prefix(line.starts_with(prefix) ? prefix.size() : 0);
    }
    (warns ? warning : error)({data}, "%.*s", static_cast<int>(line.size()), line.data());
}

// Key pair, certificate and users are dovmad-user's business; its lines are passed on.
void check_users(const settings& conf, const std::string& data) {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return;
    }
    const unique_fd input(ends[0]);
    unique_fd output(ends[1]);
    const std::string tool = user_tool();
    const acting_as starter(conf.starter);
    const pid_t child = fork();
    if (child == 0) {
        (void)dup2(output.get(), STDOUT_FILENO);
        (void)dup2(output.get(), STDERR_FILENO);
        (void)execlp(tool.c_str(), tool.c_str(), "-c", conf.file.c_str(), "-d", data.c_str(),
                     "check", nullptr);
        _exit(exit_usage);  // the library's package brings it
    }
    output.reset();
    std::string said;
    (void)read_all(input.get(), &said);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status) ||
        WEXITSTATUS(status) == exit_usage) {
        warning({data}, "certificate and users are not looked at: there is no dovmad-user");
        return;
    }
    std::string_view rest = said;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(rest.size(), line.size() + 1));
        pass_on(data, line);
    }
}

}  // namespace

void check_places(const settings& conf) {
    if (conf.is_set("document_root")) {
        check_root(conf, conf.where("document_root"), "document_root", conf.value("document_root"));
    } else {
        warning({conf.file}, "document_root is not set: the working directory is served");
    }
    for (const named_path& entry : named_paths(conf.value("namespaces"))) {
        check_root(conf, conf.where("namespaces"), "the root of " + entry.name, entry.path);
    }
    for (const named_path& entry : named_paths(conf.value("aliases"))) {
        if (access_error(entry.path, F_OK) != 0) {
            warning(conf.where("aliases"), "%s leads to %s: %s", entry.name.c_str(),
                    entry.path.c_str(), std::strerror(errno));
        }
    }
    for (const char* keyword : {"error_log", "access_log"}) {
        if (conf.is_set(keyword)) {
            check_writable(conf.starter, conf.where(keyword), keyword, conf.value(keyword));
        }
    }
    if (conf.value("inetd_mode") != "1") {
        check_writable(conf.server, conf.where("pid_file"), "pid_file",
                       conf.is_set("pid_file") ? conf.value("pid_file") : paths.pid_file);
    }
    if (conf.is_set("cgi_interpreter")) {
        check_program(conf, conf.where("cgi_interpreter"), "cgi_interpreter",
                      conf.value("cgi_interpreter"));
    }
    for (const named_path& entry : named_paths(conf.value("cgi_envvar"))) {
        if (entry.name == "PLX_INSTALL_ROOT") {
            check_program(conf, conf.where("cgi_envvar"), "the companion service",
                          entry.path + "/bin/hobintf");
        }
    }
    check_var(conf);
}

void check_library(const settings& conf) {
    if (!conf.is_set("zel_home")) {
        error({conf.file}, "zel_home is not set: the daemon does not start without it");
        return;
    }
    (void)setenv("ZEL_HOME_DIR", conf.value("zel_home").c_str(), 1);
    molbat_loc_path = paths.library_location;
    std::array<char, PATH_MAX> path{};
    std::uint32_t code = 0;
    if (tpk_method_make_path_ex(0, library_file, nullptr, path.size(), path.data(), &code) == 0) {
        error(conf.where("zel_home"), "no path to the library: error %u", code);
        return;
    }
    const acting_as starter(conf.starter);
    const std::string problem = load_problem(path.data());
    if (!problem.empty()) {
        error(conf.where("zel_home"), "%s", problem.c_str());
    }
    const std::string data =
        (conf.is_set("var_dir") ? conf.value("var_dir") : std::string(paths.var_directory)) +
        "/sec";
    if (is_folder(data + "/dovmad-at")) {  // else the first start makes it
        check_users(conf, data);
    }
}
