/* A preloaded library under which a program's time begins at another moment and runs faster:
 * FAST_CLOCK="REAL_NS BEGIN_S SPEED". At REAL_NS of the system's clock the program's own says
 * BEGIN_S; both of its clocks run SPEED times as fast, and its waits are as much shorter. */
#define _GNU_SOURCE
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

static int64_t real_ns, begin_s, speed;

__attribute__((constructor)) static void read_setting(void) {
    long long real = 0, begin = 0, times = 1;
    const char* text = getenv("FAST_CLOCK");
    if (text == NULL || sscanf(text, "%lld %lld %lld", &real, &begin, &times) != 3) {
        abort();
    }
    real_ns = real;
    begin_s = begin;
    speed = times;
}

int clock_gettime(clockid_t id, struct timespec* result) {
    const long status = syscall(SYS_clock_gettime, id, result);
    int64_t now = (int64_t)result->tv_sec * 1000000000 + result->tv_nsec;
    if (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) {
        now = begin_s * 1000000000 + (now - real_ns) * speed;
    } else if (id == CLOCK_MONOTONIC || id == CLOCK_MONOTONIC_COARSE || id == CLOCK_BOOTTIME) {
        now *= speed;
    }
    result->tv_sec = (time_t)(now / 1000000000);
    result->tv_nsec = (long)(now % 1000000000);
    return (int)status;
}

int nanosleep(const struct timespec* wanted, struct timespec* left) {
    const int64_t ns = ((int64_t)wanted->tv_sec * 1000000000 + wanted->tv_nsec) / speed;
    const struct timespec shorter = {(time_t)(ns / 1000000000), (long)(ns % 1000000000)};
    return (int)syscall(SYS_nanosleep, &shorter, left);
}

unsigned sleep(unsigned seconds) {
    const struct timespec wanted = {(time_t)seconds, 0};
    (void)nanosleep(&wanted, NULL);
    return 0;
}

static int shorter_ms(int ms) {
    return ms <= 0 ? ms : (int)((ms + speed - 1) / speed);
}

int poll(struct pollfd* fds, nfds_t count, int timeout) {
    return (int)syscall(SYS_poll, fds, count, shorter_ms(timeout));
}

int epoll_wait(int fd, struct epoll_event* events, int count, int timeout) {
    return (int)syscall(SYS_epoll_pwait, fd, events, count, shorter_ms(timeout), NULL, 8);
}
