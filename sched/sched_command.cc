#include "sched/sched_command.h"

#include <algorithm>
#include <cstdlib>

#include "core/cgi_env.h"
#include "core/context.h"
#include "core/string.h"

namespace {

constexpr std::string_view shell_prefix = "/bin/sh -c";
constexpr std::string_view install_root_item = "PLX_INSTALL_ROOT=";
constexpr std::size_t max_words = 1023;  // the program's path among them

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

child_start spawn_command(const schedule_entry* entry, const shttpd_ctx* ctx) {
    // No record is kept of the child: the daemon's handler of SIGCHLD reaps it, whatever its
    // status.
    std::vector<std::string> words = split_command(entry->command);
    std::vector<char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](std::string& word) { return word.data(); });
    arguments.push_back(nullptr);
    env_block environment;
    build_environment(ctx, &environment);
    return start_child({.program = arguments[0],
                        .arguments = arguments.data(),
                        .environment = environment.pointers,
                        .detached = true});
}
