// dovmad-user: replacing the certificate of a running daemon.
#include <string.h>

#include <cerrno>
#include <cstdio>

#include "provider/files.h"
#include "provider/tls_files.h"
#include "provider/tool.h"
#include "provider/tool_daemon.h"
#include "provider/tool_files.h"

using namespace provider;

namespace {

constexpr const char* reset_uri = "/admin/security/reset";

bool read_pair(const tool_arguments& arguments, file_content* chain, file_content* key) {
    for (const auto& [path, content] : {std::pair{&arguments[0], chain}, {&arguments[1], key}}) {
        if (const int error = read_file(*path, content); error != 0) {
            (void)fail("%s: %s", path->c_str(), strerror(error));
            return false;
        }
    }
    const pair_problem problem = check_key_pair(*chain, *key);
    if (!problem.what.empty()) {
        (void)fail("%s: %s", arguments[problem.is_key ? 1 : 0].c_str(), problem.what.c_str());
        return false;
    }
    return true;
}

// A daemon that is started between the two finds a pair that does not fit, and says so.
int write_pair(const std::string& directory, const file_content& chain, const file_content& key) {
    const borrowed_ids ids({directory + "/"});
    const folder_lock lock(directory);
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        return fail("%s: %s", directory.c_str(), strerror(errno));
    }
    int error = replace_file_in(directory, "server.key", key.text, 0600, {});
    error = error != 0 ? error : replace_file_in(directory, "server.crt", chain.text, 0644, {});
    return error == 0 ? exit_done : fail("%s: %s", directory.c_str(), strerror(error));
}

// Whether the running daemon shows the first certificate of server.crt.
int check_shown(const tool_options& options, const daemon_config& config) {
    daemon_session session;
    return session.open(options, config) == daemon_answer::success ? exit_done : exit_failed;
}

}  // namespace

int command_reset(const tool_options& options, const tool_arguments& /*arguments*/) {
    daemon_config config;
    if (!read_config(options, &config, true)) {
        return exit_failed;
    }
    const daemon_answer answer = post_to_daemon(options, config, reset_uri, "", "");
    if (answer == daemon_answer::none) {
        return fail("no daemon runs by %s", options.config_file.c_str());
    }
    return answer == daemon_answer::success ? exit_done : exit_failed;
}

// The daemon is known by the certificate that is replaced, so it is connected to before; and the
// login is tried before anything is changed.
int command_renew(const tool_options& options, const tool_arguments& arguments) {
    daemon_config config;
    file_content chain;
    file_content key;
    const std::string data_dir = find_data_dir(options);
    if (data_dir.empty() || !read_config(options, &config) || !read_pair(arguments, &chain, &key)) {
        return exit_failed;
    }
    daemon_session trial;
    daemon_session session;
    daemon_login login;
    const daemon_answer opened = trial.open(options, config);
    if (opened == daemon_answer::failure ||
        (opened == daemon_answer::success &&
         (session.open(options, config) != daemon_answer::success || !ask_login(options, &login) ||
          trial.post(login, "/admin/security/get_admin_group", "", "") !=
              daemon_answer::success))) {
        return exit_failed;
    }
    const int written = write_pair(data_dir + "/dovmad-at", chain, key);
    if (written != exit_done || opened == daemon_answer::none) {
        return written;
    }
    if (session.post(login, reset_uri, "", "") != daemon_answer::success) {
        return fail("the files are replaced, but the daemon still shows the former certificate");
    }
    return check_shown(options, config);
}
