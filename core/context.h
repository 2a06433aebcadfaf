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
#include "core/shttpd.h"
#include "lib/plat.h"
#include "security/at_types.h"

struct mime_type_record : list_link {
    std::string extension;  // without the dot
    std::string type;
};

struct registered_uri : list_link {
    std::string uri;  // the pattern
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

struct uri_auth : list_link {
    std::string uri;
    std::string file_name;
};

struct error_handler : list_link {
    int code = 0;
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

struct ssi_func : list_link {
    std::string name;
    shttpd_handler handler = nullptr;
    void* user_data = nullptr;
};

// A namespace: a document root and its access table. Shared by the context's map and by every
// connection whose request selected it; the last holder's release frees it.
struct namespace_record {
    std::string root;
    std::string name;
    role_entry* roles = nullptr;  // five rows, private to security/authz
    std::uint32_t serial = 0;     // differs between any two records ever made
    int references = 1;
};

// Defined in security/authz.cc. Null is ignored.
void namespace_retain(namespace_record* record);
void namespace_release(namespace_record* record);

// The service's own identity towards the authentication library.
struct security_info {
    std::uint64_t reserved;
    char* default_domain;  // owned
    molb_identity identity;
    std::uint64_t flags;
    void* credential;  // owned, molbAtFree
};

struct shttpd_ctx {
    std::time_t start_time = 0;
    int active_connections = 0;
    int accepted_connections = 0;
    std::uint64_t bytes_in = 0;
    std::uint64_t bytes_out = 0;
    void* tls_context = nullptr;  // for "s" ports; nothing sets it

    list_head<conn> connections;  // newest first
    list_head<mime_type_record> mime_records;
    list_head<registered_uri> registered_uris;
    list_head<uri_auth> uri_auths;
    list_head<error_handler> error_handlers;

    std::FILE* access_log = nullptr;
    std::FILE* error_log = nullptr;
    std::string pid_file;
    std::string put_auth;
    std::string document_root;
    std::string domain_file;  // also the mode: set in domain mode, empty in standalone mode
    std::string index_files;
    std::string aliases;
    std::string namespaces;
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
    int daemon_mode = 0;
    void* at_handle = nullptr;
    std::string zel_home;
    std::string var_dir;
    security_info* security = nullptr;
    void* service_credential = nullptr;  // lives from start-up to shttpd_fini
    critical_section lock{};             // guards `connections` and `active_connections`
    std::string scheduler_file;
    molb_accept_params accept_params{};

    qz_map* registry = nullptr;  // domain/: hosts in domain mode, domains in standalone mode
    qz_map* drlist = nullptr;    // domain/
    std::string virtual_server;  // the name behind "__VS__" in proxy URIs; nothing sets it
};
