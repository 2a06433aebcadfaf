// The fixed places in the file system that the daemon knows.
//
// Defined in core/paths.cc, together with the initial value of `config_file`; test programs link
// another definition that puts a prefix before every path.
#pragma once

struct system_paths {
    const char* config_file;
    const char* pid_file;
    const char* var_directory;
    const char* resolver_file;      // the list of management domains
    const char* host_guid;          // the host's identity, consulted first
    const char* os_uuid;            // and its fallback
    const char* tuvo_admin_socket;  // the local service, for administrators
    const char* tuvo_query_socket;  // and for everybody else
    const char* library_location;   // where the authentication library says it is installed
};

extern const system_paths paths;
