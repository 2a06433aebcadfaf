#include "sched/sched_command.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/cgi_env.h"
#include "core/compat_unix.h"
#include "core/context.h"
#include "core/log.h"
#include "core/string.h"

namespace {

constexpr std::string_view shell_prefix = "/bin/sh -c";
constexpr std::string_view install_root_item = "PLX_INSTALL_ROOT=";
constexpr std::size_t max_words = 1023;  // the program's path among them
constexpr mode_t command_umask = 027;

// The groups that the process had when the scheduler came up: commands get these, whatever happens
// to the process's own later.
struct group_list {
    std::vector<gid_t> ids;
    bool known = false;
};

group_list start_groups;

// The value of PLX_INSTALL_ROOT in the option cgi_envvar; empty when it names none.
std::string_view install_root(const shttpd_ctx* ctx) {
    std::string_view rest = ctx->cgi_envvar;
    for (std::string_view item = next_list_entry(rest); !item.empty();
         item = next_list_entry(rest)) {
        if (item.starts_with(install_root_item)) {
            return item.substr(install_root_item.size());
        }
    }
    return {};
}

// Nothing of the daemon's own environment but PATH is passed on.
void build_environment(const shttpd_ctx* ctx, env_block* block) {
    addenv(block, "SERVER_NAME=%s", ctx->auth_realm.c_str());
    addenv(block, "PLX_VAR_DIR=%s", ctx->var_dir.c_str());
    const std::string root(install_root(ctx));
    if (!root.empty()) {  // the option names none: both are left out
        addenv(block, "PLX_INSTALL_ROOT=%s", root.c_str());
        addenv(block, "PERL5LIB=%s%clib%cmodules", root.c_str(), '/', '/');
    }
    if (const char* path = std::getenv("PATH"); path != nullptr) {
        addenv(block, "PATH=%s", path);
    }
    addenv(block, "LC_TIME=%s", "C");
}

// The child's side. Between fork and exec only async-signal-safe calls are allowed, so everything
// is built before.
[[noreturn]] void run_child(char* const* arguments, char* const* environment) {
    (void)setsid();
    close_descriptors_from(0);
    if (open("/dev/null", O_RDWR) == 0) {  // the lowest number: everything has been closed
        (void)!dup(0);
        (void)!dup(0);
    }
    (void)umask(command_umask);
    if (start_groups.known) {
        (void)setgroups(start_groups.ids.size(), start_groups.ids.data());  // needs privileges
    }
    reset_child_signals();
    (void)execve(arguments[0], arguments, environment);
    _exit(1);
}

}  // namespace

std::vector<std::string> split_command(std::string_view command) {
    if (command.starts_with(shell_prefix)) {
        return {"/bin/sh", "-c", std::string(command.substr(shell_prefix.size()))};
    }
    std::vector<std::string> words;
    constexpr const char* blanks = " \t";
    std::size_t at = command.find_first_not_of(blanks);
    while (at < command.size() && words.size() < max_words) {
        const std::size_t end = std::min(command.find_first_of(blanks, at), command.size());
        words.emplace_back(command.substr(at, end - at));
        at = command.find_first_not_of(blanks, end);
    }
    return words;
}

void remember_groups() {
    const int count = getgroups(0, nullptr);
    if (count < 0) {
        return;
    }
    start_groups.ids.resize(static_cast<std::size_t>(count));
    start_groups.known = getgroups(count, start_groups.ids.data()) == count;
}

pid_t spawn_command(const schedule_entry* entry, const shttpd_ctx* ctx) {
    // No record is kept of the child: the daemon's handler of SIGCHLD reaps it, whatever its
    // status.
    std::vector<std::string> words = split_command(entry->command);
    std::vector<char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](std::string& word) { return word.data(); });
    arguments.push_back(nullptr);
    env_block environment;
    build_environment(ctx, &environment);

    const pid_t pid = fork();
    if (pid == 0) {
        run_child(arguments.data(), environment.pointers);
    }
    if (pid < 0) {
        elog(elog_info, nullptr, "sched: fork: %s", std::strerror(errno));
    }
    return pid;
}
