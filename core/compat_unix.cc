#include "core/compat_unix.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/child.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/poll_set.h"
#include "core/string.h"
#include "lib/plat.h"

volatile std::sig_atomic_t exit_flag = 0;

namespace {

constexpr mode_t daemon_umask = 027;
// Time for a child to end by itself, since no signal asks it to before the one that kills.
constexpr std::chrono::seconds stop_grace{2};
constexpr long stop_poll_ns = 10'000'000;

// Children end in any order, and one signal may stand for several. Called from signal handlers:
// errno belongs to the interrupted code.
void reap_children() {
    const int saved_errno = errno;
    int status = 0;
    while (waitpid(-1, &status, WNOHANG) > 0) {
    }
    errno = saved_errno;
}

const char* base_name(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

// To standard error and to the error log: somebody waits for the program's reply.
[[gnu::format(printf, 2, 3)]] void log_start(const process_start& start, const char* format, ...) {
    char message[2 * PATH_MAX + 64];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    elog(elog_info, start.client, "%s", message);
    if (start.client == nullptr) {
        log_always(start.ctx, nullptr, "%s", message);
    }
}

void log_failed_child(const process_start& start, const child_start& child) {
    const char* interpreter = start.ctx->cgi_interpreter.c_str();
    if (child.failed == child_step::fork) {
        log_start(start, "redirect: fork: %s", std::strerror(child.error));
    } else if (child.failed == child_step::directory) {
        log_start(start, "redirect: chdir(%s): %s", start.directory, std::strerror(child.error));
    } else if (*interpreter != '\0') {
        log_start(start, "redirect: exec(%s %s)", interpreter, start.program);
    } else {
        log_start(start, "redirect: exec(%s)", start.program);
    }
}

}  // namespace

void daemonize() {
    if (getppid() == 1) {
        return;
    }
    const pid_t child = fork();
    if (child < 0) {
        _exit(EXIT_FAILURE);
    }
    if (child > 0) {
        _exit(EXIT_SUCCESS);
    }
    // A session of its own: no terminal can send signals any more.
    (void)setsid();
    close_descriptors_from(STDIN_FILENO);
    const int null_device = open("/dev/null", O_RDWR);  // becomes standard input
    (void)!dup(null_device);
    (void)!dup(null_device);
    (void)umask(daemon_umask);
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    action.sa_handler = daemon_signal_handler;
    for (const int number : {SIGTERM, SIGCHLD, SIGHUP}) {
        (void)sigaction(number, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    for (const int number : {SIGPIPE, SIGTSTP, SIGTTOU, SIGTTIN}) {
        (void)sigaction(number, &action, nullptr);
    }
}

void daemon_signal_handler(int signal_number) {
    if (signal_number == SIGTERM) {
        _exit(EXIT_SUCCESS);
    }
    if (signal_number == SIGCHLD) {
        reap_children();
    }
}

// Only what is async-signal-safe: waitpid, an assignment, a write to an eventfd.
void signal_handler(int signal_number) {
    if (signal_number == SIGCHLD) {
        reap_children();
    } else {
        exit_flag = signal_number;
        wake_poll_set();
    }
}

int spawn_process(const process_start& start) {
    const shttpd_ctx* ctx = start.ctx;
    const char* base = base_name(start.program);
    const bool interpreted = !ctx->cgi_interpreter.empty();
    const char* program = interpreted ? ctx->cgi_interpreter.c_str() : base;
    const std::array<char*, 3> arguments = {
        const_cast<char*>(program), interpreted ? const_cast<char*>(base) : nullptr, nullptr};
    const child_start child =
        start_child({.program = program,
                     .arguments = arguments.data(),
                     .environment = start.environment,
                     .directory = start.directory,
                     .input = start.fd,
                     .output = start.fd,
                     .error = ctx->error_log != nullptr ? fileno(ctx->error_log) : STDERR_FILENO});
    if (child.failed != child_step::none) {
        log_failed_child(start, child);
    }
    if (child.pid < 0) {
        return -1;
    }
    (void)close(start.fd);
    if (start.record != nullptr) {
        start.record->pid = child.pid;
        (void)my_strlcpy(start.record->name, base, sizeof start.record->name);
    }
    return 0;
}

long stop_process(const process_record* record) {
    if (record == nullptr || record->pid <= 0) {
        return std::time(nullptr);
    }
    // Not the wall clock: a clock that is set meanwhile must neither kill early nor wait for hours.
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        // -1 is a child that the signal handler has reaped already.
        const pid_t result = waitpid(record->pid, nullptr, WNOHANG);
        if (result != 0) {
            return result;
        }
        if (std::chrono::steady_clock::now() - start >= stop_grace) {
            (void)kill(record->pid, SIGKILL);
        }
        const timespec pause = {.tv_sec = 0, .tv_nsec = stop_poll_ns};
        (void)nanosleep(&pause, nullptr);
    }
}

int set_non_blocking_mode(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        return -1;
    }
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 ? 0 : -1;
}

int set_close_on_exec(int fd) {
    return fcntl(fd, F_SETFD, FD_CLOEXEC);
}

char* get_admin_group(const char* name) {
    return qzstrdup(name);
}

char* get_admin_user(const char* name) {
    return qzstrdup(name);
}

char* get_default_var_directory(char* buffer, std::size_t size) {
    (void)my_snprintf(buffer, size, "%s", paths.var_directory);
    return buffer;
}

int my_stat(const char* path, struct stat* st) {
    return stat(path, st);
}

int my_open(const char* path, int flags, mode_t mode) {
    return open(path, flags, mode);
}

int my_remove(const char* path) {
    return std::remove(path);
}

int my_rename(const char* from, const char* to) {
    return std::rename(from, to);
}

int my_mkdir(const char* path, mode_t mode) {
    return mkdir(path, mode);
}

char* my_getcwd(char* buffer, std::size_t size) {
    return getcwd(buffer, size);
}
