// The server context: one per process, owner of every list, map and option value.
//
// An option text that is empty is not set.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

#include "core/fwd.h"
#include "core/list.h"
#include "core/namespace_ref.h"
#include "core/shttpd.h"
#include "lib/plat.h"
#include "security/at_types.h"

// One added content type; the list keeps the order of addition, in which it is searched.
struct mime_type_record : list_link {
    std::string extension;  // without the dot
    std::string type;
};

// A handler inside the daemon. Records are added at start and live as long as the context.
struct registered_uri : list_link {
    std::string uri;  // the pattern
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

// A password file for a URI prefix, newest first. Kept: nothing reads it.
struct uri_auth : list_link {
    std::string uri;
    std::string file_name;
};

// Who writes the reply instead of the engine's own error text.
struct error_handler : list_link {
    int code = 0;  // the HTTP status
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

// A function that pages with server-side includes may call or ask.
struct ssi_func : list_link {
    std::string name;
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

// A namespace: a document root and its access table. Shared by the context's map and by every
// connection whose request selected it; the last holder's release frees it.
struct namespace_record {
    std::string root;  // a path; URIs are appended as they are
    std::string name;
    role_entry* roles = nullptr;  // five rows, private to security/authz
    std::uint32_t serial = 0;     // differs between any two records ever made
    int references = 1;
};

// The service's own identity towards the authentication library.
struct security_info {
    std::uint64_t reserved;
    char* default_domain;  // owned (free); the domain of logins that name none
    molb_identity identity;
    std::uint64_t flags;
    void* credential;  // owned, molbAtFree
};

struct shttpd_ctx {
    std::time_t start_time = 0;
    int active_connections = 0;
    int accepted_connections = 0;  // since the start; the exit line calls them requests
    // Bytes through the streams' reads: what clients sent, and what classes answered.
    // Kept: replies of embedded handlers and headers that a class writes itself are not counted.
    std::uint64_t bytes_in = 0;
    std::uint64_t bytes_out = 0;
    void* tls_context = nullptr;  // for "s" ports; nothing sets it

    list_head<conn> connections;  // newest first
    list_head<mime_type_record> mime_records;
    list_head<registered_uri> registered_uris;
    list_head<uri_auth> uri_auths;
    list_head<error_handler> error_handlers;

    // Option values, by their keywords. Both logs are owned and stay open; null: not configured.
    std::FILE* access_log = nullptr;
    std::FILE* error_log = nullptr;
    std::string pid_file;
    std::string put_auth;
    std::string document_root;
    std::string domain_file;  // also the mode: set in domain mode, empty in standalone mode
    std::string index_files;
    std::string aliases;
    std::string namespaces;
    bool has_namespaces = false;  // set once: the text may have become empty since
    int noauth = 0;
    std::string mime_types;                // never written: its setter only loads the file
    qz_map* namespace_map = nullptr;       // security/authz
    qz_map* broker_credentials = nullptr;  // core/sni
    std::string cgi_envvar;
    std::string cgi_extensions;
    std::string cgi_interpreter;
    std::string ssi_extensions;
    list_head<ssi_func> ssi_funcs;
    std::string auth_realm;
    std::string runtime_uid;
    std::string listen_ports;
    int list_directories = 0;
    int io_buf_size = 0;
    int inetd_mode = 0;
    int daemon_mode = 0;  // Kept: without effect
    // The authentication library's instance; its calls are in security/at_types.h.
    void* at_handle = nullptr;
    std::string zel_home;
    std::string var_dir;
    security_info* security = nullptr;
    void* service_credential = nullptr;  // lives from start-up to shttpd_fini
    critical_section lock{};             // guards `connections` and `active_connections`
    std::string scheduler_file;
    molb_accept_params accept_params{};  // handed to every handshake, so its address must last

    qz_map* registry = nullptr;  // domain/: hosts in domain mode, domains in standalone mode
    qz_map* drlist = nullptr;    // domain/
    std::string virtual_server;  // the name behind "__VS__" in proxy URIs; nothing sets it
};
