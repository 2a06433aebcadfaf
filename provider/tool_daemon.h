// dovmad-user: speaking to a running daemon on the loopback interface.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "provider/tool.h"

enum class daemon_answer {
    none,     // no daemon runs
    success,  // it has done what was asked
    failure,  // it has not; reported
};

// Whether the pid file of the configuration names a living process.
[[nodiscard]] bool daemon_runs(const daemon_config& config);

// Who speaks to the daemon, with the password.
struct daemon_login {
    std::string user;
    secret header;  // the value behind "Basic "
};

// Asks for the password unless DOVMAD_PASSWORD has it. False: the failure has been reported.
[[nodiscard]] bool ask_login(const tool_options& options, daemon_login* login);

// One request to the daemon. A daemon runs when the pid file names a living process and one of its
// ports takes connections. On TLS ports the peer must show the first certificate of server.crt in
// the data directory before it gets the password, and no other certificate, whoever has signed it;
// plain HTTP ports are used only when there are no others, or when that file can't be read.
class daemon_session {
  public:
    daemon_session();
    ~daemon_session();
    daemon_session(const daemon_session&) = delete;
    daemon_session& operator=(const daemon_session&) = delete;
    daemon_session(daemon_session&&) = delete;
    daemon_session& operator=(daemon_session&&) = delete;

    // Connects, and knows the daemon on the other side. Waits at most 30 seconds, as post does.
    [[nodiscard]] daemon_answer open(const tool_options& options, const daemon_config& config);

    // Posts form variables to one of the daemon's administrative URIs in a namespace. `uri` may
    // begin with a namespace of its own, `name_space` is empty then. Requires: open was successful;
    // one call.
    [[nodiscard]] daemon_answer post(const daemon_login& login, const std::string& uri,
                                     const std::string& name_space, const std::string& variables);

  private:
    struct connection;
    std::unique_ptr<connection> connection_;
};

// All of it.
[[nodiscard]] daemon_answer post_to_daemon(const tool_options& options, const daemon_config& config,
                                           const std::string& uri, const std::string& name_space,
                                           const std::string& variables);

// Encodes a form variable's value; letters, digits, '-', '_' and '.' stay as they are.
std::string url_encoded(std::string_view text);
