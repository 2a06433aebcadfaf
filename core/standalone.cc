// The daemon's process: start-up, the two ways of taking connections, the loop, the end.

#include <fcntl.h>
#include <grp.h>
#include <malloc.h>
#include <pwd.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/compat_unix.h"
#include "core/config.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/loop_watch.h"
#include "core/paths.h"
#include "core/shttpd.h"
#include "handlers/cgi_service.h"

namespace {

// Also an upper bound: a loop over all descriptors stays short in every child.
constexpr rlim_t descriptor_limit = 4096;
constexpr int pass_wait_ms = 5000;
constexpr int bytes_to_megabytes_shift = 20;
constexpr double megabytes_per_byte = 1.0 / (1 << bytes_to_megabytes_shift);

bool begins_with(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

// Where an inetd service gets its connection as all three standard descriptors, the peer would read
// every message of the start, before any reply.
void keep_messages_from_peer() {
    struct stat input {};
    struct stat errors {};
    if (fstat(STDIN_FILENO, &input) == 0 && fstat(STDERR_FILENO, &errors) == 0 &&
        S_ISSOCK(input.st_mode) && input.st_dev == errors.st_dev && input.st_ino == errors.st_ino) {
        (void)!std::freopen("/dev/null", "a", stderr);
    }
}

// A listener that became descriptor 0, 1 or 2 would reach every child as a standard stream.
void occupy_standard_descriptors() {
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        (void)close(fd);
    }
}

void print_version() {
    (void)std::printf("dovmad version: %s \n", daemon_version);
    std::exit(EXIT_SUCCESS);
}

// Kept: a file name behind an argument that begins with "-" is not taken, and no option is.
void read_arguments(int argc, char** argv) {
    if (argc < 2) {
        return;
    }
    if (argv[argc - 1][0] != '-' && argv[argc - 2][0] != '-') {
        config_file = argv[argc - 1];
    }
    if (begins_with(argv[1], "-v")) {
        if (argc == 2) {
            print_version();
        }
        usage(argv[0]);
    }
    if (begins_with(argv[1], "-X")) {
        daemonize();
    }
}

void become_user(const std::string& name) {
    if (name.empty()) {
        return;
    }
    const char* user = name.c_str();
    const passwd* entry = getpwnam(user);
    if (entry == nullptr) {
        fatal("main: unknown user [%s]", user);
    }
    // Root's supplementary groups must not stay with an unprivileged user. A process that already
    // is that user has none to lose. Without the right to drop them the daemon may not change its
    // user either, and setgid or setuid say so first.
    const bool keeps_groups = entry->pw_uid != geteuid() && setgroups(1, &entry->pw_gid) != 0;
    const int groups_error = errno;
    if (setgid(entry->pw_gid) != 0) {
        fatal("main: setgid(%s): %s", user, std::strerror(errno));
    }
    if (setuid(entry->pw_uid) != 0) {
        fatal("main: setuid(%s): %s", user, std::strerror(errno));
    }
    if (keeps_groups) {
        fatal("main: setgroups(%s): %s", user, std::strerror(groups_error));
    }
}

// After the configuration: until then the terminal's interrupt key ends a start that hangs.
void install_signal_handlers() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    action.sa_handler = signal_handler;
    (void)sigaction(SIGCHLD, &action, nullptr);
    (void)sigaction(SIGTERM, &action, nullptr);
    (void)sigaction(SIGINT, &action, nullptr);
    action.sa_handler = SIG_IGN;
    (void)sigaction(SIGPIPE, &action, nullptr);
    (void)sigaction(SIGXFSZ, &action, nullptr);  // a file at its limit is an error like any other
}

// An unprivileged daemon may not raise its hard limits; it then runs with what it has.
void raise_limits() {
    const rlimit descriptors = {.rlim_cur = descriptor_limit, .rlim_max = descriptor_limit};
    const rlimit core_size = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
    (void)setrlimit(RLIMIT_CORE, &core_size);
}

void write_pid_file(const shttpd_ctx* ctx) {
    const char* path = ctx->pid_file.empty() ? paths.pid_file : ctx->pid_file.c_str();
    std::FILE* file = std::fopen(path, "we");
    if (file == nullptr) {
        (void)std::fprintf(stderr, "Cannot open %s\n", path);
        std::exit(EXIT_FAILURE);
    }
    // Nobody may take an empty file, or half a number, for the daemon's.
    struct stat st {};
    const bool is_file = fstat(fileno(file), &st) == 0 && S_ISREG(st.st_mode);
    const bool printed = std::fprintf(file, "%d\n", static_cast<int>(getpid())) > 0;
    if (std::fclose(file) != 0 || !printed) {
        (void)std::fprintf(stderr, "Cannot write %s: %s\n", path, std::strerror(errno));
        if (is_file) {
            (void)unlink(path);
        }
    }
}

// None of them keeps the daemon from running, but nobody wants them.
void warn_of_missing_files(const shttpd_ctx* ctx) {
    struct stat st {};
    if (stat(ctx->document_root.c_str(), &st) != 0) {
        elog(elog_info, nullptr, "document_root %s: %s", ctx->document_root.c_str(),
             std::strerror(errno));
    } else if (!S_ISDIR(st.st_mode)) {
        elog(elog_info, nullptr, "document_root %s is no directory", ctx->document_root.c_str());
    }
    if (!ctx->scheduler_file.empty() && access(ctx->scheduler_file.c_str(), R_OK) != 0) {
        elog(elog_info, nullptr, "scheduler_file %s: %s", ctx->scheduler_file.c_str(),
             std::strerror(errno));
    }
}

void take_connections(shttpd_ctx* ctx) {
    if (ctx->inetd_mode != 0) {
        // The peer of an inetd service must not see the daemon's messages.
        (void)!std::freopen("/dev/null", "a", stderr);
        shttpd_add_socket(ctx, STDIN_FILENO, true, false);
        return;
    }
    open_listening_ports(ctx);
    write_pid_file(ctx);
}

// The handler of "/admin/lifecycle/stop".
// Kept: the first call stops the CGI service only; the second one ends the process without an
// answer, statistics or clean-up.
void stop_server(shttpd_call_arg* arg) {
    static bool stopped = false;
    if (stopped) {
        log_change(arg->connection, "ended the daemon");
        _exit(EXIT_SUCCESS);
    }
    end_cgi_services();
    log_change(arg->connection, "stopped the companion service");
    (void)shttpd_printf(arg, "%s", "HTTP/1.1 200 OK\r\n\r\n");
    (void)shttpd_printf(arg, "%s", "Success");
    stopped = true;
}

constexpr std::array<endpoint, 1> endpoints = {{
    {"/admin/lifecycle/stop", endpoint_method::any, endpoint_body::ignored, stop_server},
}};

// Kept: received megabytes are whole ones, sent megabytes keep their fraction.
void log_statistics(const shttpd_ctx* ctx) {
    elog(elog_info, nullptr, "%d requests %.2lf Mb in %.2lf Mb out. Exit on signal %d",
         ctx->accepted_connections, static_cast<double>(ctx->bytes_in >> bytes_to_megabytes_shift),
         static_cast<double>(ctx->bytes_out) * megabytes_per_byte, static_cast<int>(exit_flag));
}

// Without this the allocator keeps small pieces apart, and whoever frees a large one next puts them
// all together: the loop did, for 80 ms, when a thread had freed a registry of 100,000 hosts.
void join_freed_memory_at_once() {
#ifdef M_MXFAST
    (void)mallopt(M_MXFAST, 0);
#endif
}

}  // namespace

int main(int argc, char** argv) {
    occupy_standard_descriptors();
    keep_messages_from_peer();
    join_freed_memory_at_once();
    (void)std::setlocale(LC_ALL, "");
    refresh_clocks();
    read_arguments(argc, argv);
    shttpd_ctx* ctx = init_from_argc_argv(config_file, argc, argv);
    if (ctx == nullptr) {
        fatal("Out of memory");
    }
    become_user(ctx->runtime_uid);
    install_signal_handlers();
    raise_limits();
    warn_of_missing_files(ctx);
    take_connections(ctx);
    elog(elog_info, nullptr, "dovmad %s started on port(s) %s, serving %s", daemon_version,
         ctx->listen_ports.c_str(), ctx->document_root.c_str());
    register_endpoints(ctx, endpoints);
    // However the process ends: an inetd service does so behind its one connection.
    (void)std::atexit([] { (void)stop_cgi_services(); });
    (void)run_cgi_as_service(ctx, "HOBINTF", "hobintf");  // on failure it has logged the reason
    while (exit_flag == 0) {
        shttpd_poll(ctx, pass_wait_ms);
    }
    // The service goes before the line that says the daemon has ended.
    (void)stop_cgi_services();
    log_statistics(ctx);
    log_longest_pass(ctx);
    shttpd_fini(ctx);
    return EXIT_SUCCESS;
}
