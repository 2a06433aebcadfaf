#include "core/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace {

constexpr mode_t detached_umask = 027;

// Written by the child, in the parent's memory, while the parent stands still.
struct child_report {
    volatile child_step failed = child_step::none;
    volatile int error = 0;
};

// Leaving through exit() would flush the daemon's own buffers.
[[noreturn]] void give_up(child_report* report, child_step step) {
    report->error = errno;
    report->failed = step;
    _exit(EXIT_FAILURE);
}

// The source of a standard stream, out of the way of the three that are about to be replaced.
int source_of(int fd, int null_device) {
    const int source = fd >= 0 ? fd : null_device;
    return source > STDERR_FILENO ? source : fcntl(source, F_DUPFD, STDERR_FILENO + 1);
}

[[noreturn]] void run_child(const child_plan& plan, child_report* report) {
    reset_child_signals();
    if (plan.detached) {
        (void)setsid();
        (void)umask(detached_umask);
    }
    const bool needs_null = plan.input < 0 || plan.output < 0 || plan.error < 0;
    const int null_device = needs_null ? open("/dev/null", O_RDWR) : -1;
    const std::array<int, 3> sources = {source_of(plan.input, null_device),
                                        source_of(plan.output, null_device),
                                        source_of(plan.error, null_device)};
    for (int fd = 0; fd < 3; ++fd) {
        (void)dup2(sources[static_cast<std::size_t>(fd)], fd);
    }
    // Libraries of the daemon may have opened descriptors without close-on-exec.
    close_descriptors_from(STDERR_FILENO + 1);
    if (plan.directory != nullptr && chdir(plan.directory) != 0) {
        give_up(report, child_step::directory);
    }
    (void)execve(plan.program, plan.arguments, plan.environment);
    give_up(report, child_step::execute);
}

}  // namespace

child_start start_child(const child_plan& plan) {
    child_report report;
    const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        run_child(plan, &report);  // NOLINT(clang-analyzer-unix.Vfork)
    }
    if (child < 0) {
        return {.pid = -1, .failed = child_step::fork, .error = errno};
    }
    return {.pid = child, .failed = report.failed, .error = report.error};
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
