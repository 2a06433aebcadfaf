/* A preloaded library under which a program's time passes only while it waits, and at once: a wait
 * with nothing to wait for moves both of its clocks on by its length, however fast the machine is.
 * No time passes while a child runs. FAST_CLOCK="BEGIN_S HOLD_S END_S RECORD": the wall clock
 * begins at BEGIN_S, stands still at HOLD_S until there is RECORD.go, and at END_S for ever;
 * RECORD.held and RECORD.end are made then. Each program that is started is noted in RECORD with
 * its moment and the last word of its command. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { nap_ms = 1, longest_child_ms = 20000, most_words = 64 };
static const int64_t second = 1000000000;

static int64_t begin_ns, hold_ns, end_ns;
static int64_t passed_ns;
static char record[4096];

__attribute__((constructor)) static void read_setting(void) {
    long long begin = 0, hold = 0, end = 0;
    const char* text = getenv("FAST_CLOCK");
    if (text == NULL || sscanf(text, "%lld %lld %lld %4000s", &begin, &hold, &end, record) != 4) {
        abort();
    }
    begin_ns = begin * second;
    hold_ns = hold * second;
    end_ns = end * second;
}

int clock_gettime(clockid_t id, struct timespec* result) {
    int64_t now = passed_ns;
    if (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) {
        now += begin_ns;
    } else if (id == CLOCK_MONOTONIC || id == CLOCK_MONOTONIC_COARSE || id == CLOCK_BOOTTIME) {
        now += 1000 * second;
    } else {
        return (int)syscall(SYS_clock_gettime, id, result);
    }
    result->tv_sec = (time_t)(now / second);
    result->tv_nsec = (long)(now % second);
    return 0;
}

static int stand(const char* end, int flags) {
    char path[sizeof record + 8];
    (void)snprintf(path, sizeof path, "%s.%s", record, end);
    const int fd = open(path, flags | O_CLOEXEC, 0644);
    if (fd >= 0) {
        (void)close(fd);
    }
    return fd >= 0;
}

/* What the clock must not pass now. */
static int64_t limit(void) {
    if (begin_ns + passed_ns < hold_ns) {
        return hold_ns;
    }
    return begin_ns + passed_ns == hold_ns && !stand("go", O_RDONLY) ? hold_ns : end_ns;
}

static void pass(int64_t ns) {
    static int child_ms;
    siginfo_t info;
    if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
        ++child_ms < longest_child_ms) {
        return;
    }
    child_ms = 0;
    const int64_t most = limit() - begin_ns;
    const int64_t before = passed_ns;
    passed_ns = passed_ns + ns < most ? passed_ns + ns : most;
    if (before < passed_ns && passed_ns == most) {
        (void)stand(begin_ns + most == hold_ns ? "held" : "end", O_WRONLY | O_CREAT);
    }
}

/* Whether the caller's waits move the clock: helpers of a program wait for real. */
static int moves(void) {
    return gettid() == getpid();
}

static void nap(const struct timespec* length) {
    (void)syscall(SYS_nanosleep, length, NULL);
}

int nanosleep(const struct timespec* wanted, struct timespec* left) {
    (void)left;
    if (!moves()) {
        nap(wanted);
        return 0;
    }
    const struct timespec short_nap = {0, nap_ms * 1000000L};
    const int64_t until = passed_ns + (int64_t)wanted->tv_sec * second + wanted->tv_nsec;
    while (passed_ns < until) {
        nap(&short_nap);
        pass(until - passed_ns);
    }
    return 0;
}

unsigned sleep(unsigned seconds) {
    const struct timespec wanted = {(time_t)seconds, 0};
    (void)nanosleep(&wanted, NULL);
    return 0;
}

static int shorter(int timeout) {
    return timeout < 0 || timeout > nap_ms ? nap_ms : timeout;
}

int poll(struct pollfd* fds, nfds_t count, int timeout) {
    const int found = (int)syscall(SYS_poll, fds, count, moves() ? shorter(timeout) : timeout);
    if (found == 0 && moves()) {
        pass(timeout * (second / 1000));
    }
    return found;
}

int epoll_wait(int fd, struct epoll_event* events, int count, int timeout) {
    const int wait = moves() ? shorter(timeout) : timeout;
    const int found = (int)syscall(SYS_epoll_pwait, fd, events, count, wait, NULL, 8);
    if (found == 0 && moves()) {
        pass(timeout * (second / 1000));
    }
    return found;
}

static void note(char* const words[]) {
    char line[512];
    const char* last = "";
    for (int i = 0; words[i] != NULL; ++i) {
        last = words[i];
    }
    const int64_t now = begin_ns + passed_ns;
    const int length = snprintf(line, sizeof line, "%lld %s\n", (long long)(now / second), last);
    const int fd = open(record, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0 || write(fd, line, (size_t)length) != length) {
        abort();
    }
    (void)close(fd);
}

int execve(const char* path, char* const words[], char* const environment[]) {
    note(words);
    return (int)syscall(SYS_execve, path, words, environment);
}

int execle(const char* path, const char* word, ...) {
    char* words[most_words];
    va_list rest;
    va_start(rest, word);
    int count = 0;
    for (const char* next = word; next != NULL && count < most_words - 1; ++count) {
        words[count] = (char*)(uintptr_t)next;
        next = va_arg(rest, const char*);
    }
    words[count] = NULL;
    char* const* environment = va_arg(rest, char* const*);
    va_end(rest);
    return execve(path, words, environment);
}
