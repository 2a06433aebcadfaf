/* What a preloaded library with a clock_gettime() of its own needs besides: the older calls, told by
 * the same clock. */
#include <stddef.h>
#include <sys/time.h>
#include <time.h>

time_t time(time_t* result) {
    struct timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    if (result != NULL) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

int gettimeofday(struct timeval* restrict result, void* restrict zone) {
    struct timespec now;
    (void)zone;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    result->tv_sec = now.tv_sec;
    result->tv_usec = (suseconds_t)(now.tv_nsec / 1000);
    return 0;
}
