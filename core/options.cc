#include "core/options.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/compat_unix.h"
#include "core/log.h"
#include "core/mime_type.h"

namespace {

constexpr std::size_t host_name_bytes = 256;
constexpr mode_t link_or_regular_bits = 0xA000;

// --- Setters ---

// Text behind the number is ignored, and no number at all is 0.
int set_int(shttpd_ctx* ctx, const option_field& field, const char* value) {
    const long number = std::strtol(value, nullptr, 10);
    ctx->*std::get<int shttpd_ctx::*>(field) =
        static_cast<int>(std::clamp<long>(number, INT_MIN, INT_MAX));
    return 0;
}

int set_str(shttpd_ctx* ctx, const option_field& field, const char* value) {
    ctx->*std::get<std::string shttpd_ctx::*>(field) = value;
    return 0;
}

// Kept: the configured text is ignored, the realm is the host's name.
int set_realm(shttpd_ctx* ctx, const option_field& field, const char* /*value*/) {
    char name[host_name_bytes] = {};
    (void)gethostname(name, sizeof name);  // cut when it is longer
    name[sizeof name - 1] = '\0';
    return set_str(ctx, field, name);
}

int set_log_file(shttpd_ctx* ctx, const option_field& field, const char* value) {
    std::FILE* file = std::fopen(value, "ae");
    if (file == nullptr) {
        fatal("cannot open log file %s: %s", value, std::strerror(errno));
    }
    ctx->*std::get<std::FILE * shttpd_ctx::*>(field) = file;
    return 0;
}

// A link that leads nowhere leaves the daemon in standalone mode.
// Kept: the bits that are tested belong to links and regular files alike; for a regular file the
// second look-up finds nothing new.
int set_domain_file(shttpd_ctx* ctx, const option_field& field, const char* value) {
    struct stat st {};
    if (lstat(value, &st) == 0 && (st.st_mode & link_or_regular_bits) != 0 &&
        my_stat(value, &st) != 0) {
        elog(elog_info, nullptr, "domain_file %s: %s: standalone mode", value, strerror(errno));
        return -1;
    }
    return set_str(ctx, field, value);
}

int set_mime(shttpd_ctx* ctx, const option_field& /*field*/, const char* value) {
    set_mime_types(ctx, value);
    return 0;
}

}  // namespace

// clang-format off
const std::array<option_row, 26> options = {{
    {'d', "document_root", "Web root directory", set_str, &shttpd_ctx::document_root,
     "directory", nullptr, option_directory},
    {'i', "index_files", "Index files", set_str, &shttpd_ctx::index_files,
     "file_list", "index.html, index.htm, index.pl, index.cgi", option_listed},
    {'p', "listen_ports", "Listening ports", set_str, &shttpd_ctx::listen_ports,
     "ports", "5634", option_listed},
    {'D', "list_directories", "Directory listing", set_int, &shttpd_ctx::list_directories,
     "0|1", "1", option_listed | option_on_off},
    {'c', "cgi_extensions", "CGI extensions", set_str, &shttpd_ctx::cgi_extensions,
     "ext_list", ".cgi .pl .php", option_listed},
    {'C', "cgi_interpreter", "CGI interpreter", set_str, &shttpd_ctx::cgi_interpreter,
     "file", nullptr, option_listed | option_file},
    {'V', "cgi_envvar", "CGI envir variables", set_str, &shttpd_ctx::cgi_envvar,
     "X=Y,....", nullptr, option_listed},
    {'S', "ssi_extensions", "SSI extensions", set_str, &shttpd_ctx::ssi_extensions,
     "ext_list", ".shtml .shtm", option_listed},
    {'N', "auth_realm", "Authentication realm", set_realm, &shttpd_ctx::auth_realm,
     "auth_realm", "localdomain", option_listed},
    {'l', "access_log", "Access log file", set_log_file, &shttpd_ctx::access_log,
     "file", nullptr, option_listed | option_file},
    {'e', "error_log", "Error log file", set_log_file, &shttpd_ctx::error_log,
     "file", nullptr, option_listed | option_file},
    {'x', "pid_file", "Pid file", set_str, &shttpd_ctx::pid_file,
     "file", nullptr, option_listed | option_file},
    {'P', "domain_file", "Domain file", set_domain_file, &shttpd_ctx::domain_file,
     "file", nullptr, option_listed | option_file},
    {'m', "mime_types", "Mime types file", set_mime, std::monostate(),
     "file", nullptr, option_listed | option_file},
    {'s', "zel_home", "Enable MOLB AT", set_str, &shttpd_ctx::zel_home,
     "directory", nullptr, option_listed | option_directory},
    {'Q', "var_dir", "Var Directory", set_str, &shttpd_ctx::var_dir,
     "directory", nullptr, option_listed | option_directory},
    {'U', "put_auth", "PUT,DELETE auth file", set_str, &shttpd_ctx::put_auth,
     "file", nullptr, option_listed | option_file},
    {'a', "aliases", "Aliases", set_str, &shttpd_ctx::aliases,
     "X=Y,...", nullptr, option_listed},
    {'n', "namespaces", "Namespaces", set_str, &shttpd_ctx::namespaces,
     "X=Y,...", nullptr, option_listed},
    {'b', "io_buf_size", "IO buffer size", set_int, &shttpd_ctx::io_buf_size,
     "bytes", "16384", option_listed | option_number},
    {'I', "inetd_mode", "Inetd mode", set_int, &shttpd_ctx::inetd_mode,
     "0|1", nullptr, option_on_off},
    {'X', "daemon_mode", "Daemon mode", set_int, &shttpd_ctx::daemon_mode,
     "0|1", nullptr, option_on_off},
    {'A', "noauth", "No Authentication mode", set_int, &shttpd_ctx::noauth,
     "0|1", nullptr, option_on_off},
    {'u', "runtime_uid", "Run as user", set_str, &shttpd_ctx::runtime_uid,
     "user_name", nullptr, 0},
    {'s', "scheduler_file", "Scheduler file", set_str, &shttpd_ctx::scheduler_file,
     "file", nullptr, option_listed | option_file},
    // Its letter is 0: the end of the table.
    {},
}};
// clang-format on

const option_row* find_option(char letter, const char* keyword) {
    for (const option_row* row = options.data(); row->letter != '\0'; ++row) {
        if (row->letter == letter ||
            (keyword != nullptr && std::strcmp(row->keyword, keyword) == 0)) {
            return row;
        }
    }
    return nullptr;
}

std::unique_ptr<std::string>& option_slot(option_slots* slots, const option_row* row) {
    return (*slots)[static_cast<std::size_t>(row - options.data())];
}

void set_option(const option_row* row, const char* value, option_slots* slots) {
    option_slot(slots, row) = std::make_unique<std::string>(value);
}

void usage(const char* program) {
    // Kept: the version is that of the command line's shape, not the daemon's.
    (void)std::fprintf(stderr,
                       "DOVMAD version %s\nusage: %s [OPTIONS] [config_file]\nNote: config line "
                       "keyword for every option is in the round brackets\n",
                       "1.0", program);
    (void)std::fprintf(stderr, "-A <htpasswd_file> <realm> <user> <passwd>\n");
    for (const option_row* row = options.data(); row->letter != '\0'; ++row) {
        (void)std::fprintf(stderr, "-%c <%s>\t\t%s (%s)\n", row->letter, row->argument,
                           row->description, row->keyword);
    }
    std::exit(EXIT_FAILURE);
}
