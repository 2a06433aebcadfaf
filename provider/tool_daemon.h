// dovmad-user: speaking to a running daemon on the loopback interface.
#pragma once

#include <string>

#include "provider/tool.h"

enum class daemon_answer {
    none,     // no daemon runs
    success,  // it has done what was asked
    failure,  // it has not; reported
};

// Posts form variables to one of the daemon's administrative URIs in a namespace. A daemon runs
// when the pid file names a living process and one of its ports takes connections. On TLS ports the
// peer must show the certificate of the data directory before it gets the password; plain HTTP
// ports are used only when there are no others, or when that certificate can't be read. `uri` may
// begin with a namespace of its own, `name_space` is empty then. Waits at most 30 seconds for each
// answer.
[[nodiscard]] daemon_answer post_to_daemon(const tool_options& options, const daemon_config& config,
                                           const std::string& uri, const std::string& name_space,
                                           const std::string& variables);

// Encodes a form variable's value; letters, digits, '-', '_' and '.' stay as they are.
std::string url_encoded(std::string_view text);
