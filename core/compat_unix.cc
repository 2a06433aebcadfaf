#include "core/compat_unix.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/poll_set.h"
#include "core/string.h"

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

// --- The child side of spawn_process: what is needed is prepared before the fork ---

struct child_plan {
    const char* program;
    const char* base;
    const char* interpreter;  // null: the program runs itself
    const char* directory;
    char* const* envp;
    int fd;
    int error_fd;  // -1: standard error stays
};

// The error log has become standard error, so that is where the message belongs. Leaving through
// exit() would flush copies of the daemon's own buffers.
[[noreturn]] [[gnu::format(printf, 1, 2)]] void fail_child(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)vdprintf(STDERR_FILENO, format, arguments);
    va_end(arguments);
    _exit(EXIT_FAILURE);
}

[[noreturn]] void run_child(const child_plan& plan) {
    reset_child_signals();
    // Out of the way of the three descriptors that are about to be replaced.
    const int fd = plan.fd > STDERR_FILENO ? plan.fd : fcntl(plan.fd, F_DUPFD, STDERR_FILENO + 1);
    if (plan.error_fd >= 0) {
        (void)dup2(plan.error_fd, STDERR_FILENO);
    }
    if (chdir(plan.directory) != 0) {
        fail_child("redirect: chdir(%s): %s\n", plan.directory, std::strerror(errno));
    }
    (void)dup2(fd, STDIN_FILENO);
    (void)dup2(fd, STDOUT_FILENO);
    // Libraries of the daemon may have opened descriptors without close-on-exec.
    close_descriptors_from(STDERR_FILENO + 1);
    if (plan.interpreter != nullptr) {
        char* const arguments[] = {const_cast<char*>(plan.interpreter),
                                   const_cast<char*>(plan.base), nullptr};
        (void)execve(plan.interpreter, arguments, plan.envp);
        fail_child("redirect: exec(%s %s)\n", plan.interpreter, plan.program);
    }
    char* const arguments[] = {const_cast<char*>(plan.base), nullptr};
    (void)execve(plan.base, arguments, plan.envp);
    fail_child("redirect: exec(%s)\n", plan.program);
}

child_plan plan_child(const conn* c, const char* program, char* const* envp, int fd,
                      const char* directory) {
    const shttpd_ctx* ctx = c->ctx;
    const bool interpreted = ctx != nullptr && !ctx->cgi_interpreter.empty();
    const bool logged = ctx != nullptr && ctx->error_log != nullptr;
    return {.program = program,
            .base = base_name(program),
            .interpreter = interpreted ? ctx->cgi_interpreter.c_str() : nullptr,
            .directory = directory,
            .envp = envp,
            .fd = fd,
            .error_fd = logged ? fileno(ctx->error_log) : -1};
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

int spawn_process(conn* c, const char* program, const void* /*ignored*/, char* const* envp, int fd,
                  const char* directory, process_record* record) {
    const child_plan plan = plan_child(c, program, envp, fd, directory);
    // Everything is laid out before: the child only makes system calls on its way to the program,
    // so it may borrow the daemon's memory instead of copying its page tables.
    const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child < 0) {
        elog(elog_info, c, "redirect: fork: %s", std::strerror(errno));
        return -1;
    }
    if (child == 0) {
        run_child(plan);  // NOLINT(clang-analyzer-unix.Vfork)
    }
    (void)close(fd);
    if (record != nullptr) {
        record->pid = child;
        (void)my_strlcpy(record->name, plan.base, sizeof record->name);
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

void reset_child_signals() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = SIG_DFL;
    for (const int number :
         {SIGPIPE, SIGXFSZ, SIGTERM, SIGINT, SIGCHLD, SIGHUP, SIGTSTP, SIGTTIN, SIGTTOU}) {
        (void)sigaction(number, &action, nullptr);
    }
    // The mask is inherited over exec as well; a program must not start with signals blocked.
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

void close_descriptors_from(int lowest) {
    // The limit may be a billion, so a loop over all possible descriptors can take minutes.
    if (close_range(static_cast<unsigned>(lowest), ~0U, 0) == 0) {
        return;
    }
    for (int fd = getdtablesize() - 1; fd >= lowest; --fd) {
        (void)close(fd);
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
    return my_strdup(name);
}

char* get_admin_user(const char* name) {
    return my_strdup(name);
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
