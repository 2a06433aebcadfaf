/* A preloaded library that lets system calls and allocations of a program fail where another process
 * says so, counts its calls and live allocations, and moves its clock. FAULT_CONTROL names the file
 * through which both talk; see faults.py, which lays it out. Calls inside the C library are not
 * seen, only the program's own and those of its other libraries. */
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum kind { k_malloc, k_open, k_read, k_write, k_fsync, k_rename, k_fork, k_socket, k_accept,
            k_connect, k_wait, k_stat };

struct control {
    _Atomic int64_t armed;  /* 1 + the kind whose calls are counted; 0: none */
    _Atomic int64_t left;   /* so many of them succeed, the next one fails, the others succeed */
    _Atomic int64_t error;  /* the errno value of the failure */
    _Atomic int64_t calls;  /* since it was armed */
    _Atomic int64_t hits;   /* failures */
    _Atomic int64_t live;   /* allocations that have not been freed */
    _Atomic int64_t clock_s; /* added to the wall clock */
    _Atomic int64_t foreign; /* whether it was the C library's own allocation that failed */
    char part[224];         /* only calls about a path that contains this count; empty: all do */
};

static struct control none;
static struct control* control = &none;

extern void* __libc_malloc(size_t);
extern void* __libc_calloc(size_t, size_t);
extern void* __libc_realloc(void*, size_t);
extern void __libc_free(void*);

__attribute__((visibility("hidden"))) void* real_vfork;

static void* real(const char* name) { return dlsym(RTLD_NEXT, name); }

__attribute__((constructor)) static void attach(void) {
    real_vfork = real("vfork");
    const char* path = getenv("FAULT_CONTROL");
    const int fd = path == NULL ? -1 : (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* page = mmap(NULL, sizeof(struct control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    (void)syscall(SYS_close, fd);
    if (page != MAP_FAILED) {
        control = page;
    }
}

/* For an allocation that has just failed: whether the C library itself has asked for it. */
static void tell_whose(void* caller) {
    const int saved = errno;
    Dl_info asked;
    Dl_info library;
    control->foreign = dladdr(caller, &asked) != 0 && dladdr((void*)&__libc_malloc, &library) != 0 &&
                       asked.dli_fbase == library.dli_fbase;
    errno = saved;
}

static int concerns(int fd, const char* path) {
    char own[4096];
    if (control->part[0] == '\0') {
        return 1;
    }
    if (path == NULL) {
        char link[64];
        (void)snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
        const ssize_t n = readlink(link, own, sizeof own - 1);
        own[n < 0 ? 0 : n] = '\0';
        path = own;
    }
    return strstr(path, control->part) != NULL;
}

/* Whether this call fails; then errno is set. */
static int fails(enum kind kind, int fd, const char* path) {
    if (atomic_load_explicit(&control->armed, memory_order_relaxed) != (int64_t)kind + 1) {
        return 0;
    }
    const int saved = errno;
    if (!concerns(fd, path)) {
        errno = saved;
        return 0;
    }
    errno = saved;
    atomic_fetch_add(&control->calls, 1);
    if (atomic_fetch_sub(&control->left, 1) != 0) {
        return 0;
    }
    atomic_fetch_add(&control->hits, 1);
    errno = (int)control->error;
    return 1;
}

/* Declares NAME with its arguments, which fails as one of KIND about FD or PATH. */
#define CALL(kind, fd, path, type, name, arguments, values) \
    type name arguments {                                   \
        static type(*next) arguments;                       \
        if (fails(kind, fd, path)) {                        \
            return (type)-1;                                \
        }                                                   \
        if (next == NULL) {                                 \
            next = (type(*) arguments)real(#name);          \
        }                                                   \
        return next values;                                 \
    }

static int no_memory(void* caller) {
    const int failed = fails(k_malloc, -1, "");
    if (failed) {
        tell_whose(caller);
    }
    return failed;
}

void* malloc(size_t size) {
    void* p = no_memory(__builtin_return_address(0)) ? NULL : __libc_malloc(size);
    control->live += p != NULL;
    return p;
}

void* calloc(size_t count, size_t size) {
    void* p = no_memory(__builtin_return_address(0)) ? NULL : __libc_calloc(count, size);
    control->live += p != NULL;
    return p;
}

void* realloc(void* old, size_t size) {
    if (no_memory(__builtin_return_address(0))) {
        return NULL;
    }
    void* p = __libc_realloc(old, size);
    control->live += old == NULL && p != NULL;
    control->live -= old != NULL && size == 0;
    return p;
}

void free(void* p) {
    control->live -= p != NULL;
    __libc_free(p);
}

static int open_with(int folder, const char* path, int flags, va_list arguments) {
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    return fails(k_open, -1, path) ? -1 : (int)syscall(SYS_openat, folder, path, flags, mode);
}

#define OPEN(name)                                        \
    int name(const char* path, int flags, ...) {          \
        va_list arguments;                                \
        va_start(arguments, flags);                       \
        const int fd = open_with(AT_FDCWD, path, flags, arguments); \
        va_end(arguments);                                \
        return fd;                                        \
    }
OPEN(open)
OPEN(open64)

#define OPENAT(name)                                      \
    int name(int folder, const char* path, int flags, ...) { \
        va_list arguments;                                \
        va_start(arguments, flags);                       \
        const int fd = open_with(folder, path, flags, arguments); \
        va_end(arguments);                                \
        return fd;                                        \
    }
OPENAT(openat)
OPENAT(openat64)

#define POINTER(kind, path, type, name, arguments, values) \
    type name arguments {                                  \
        static type(*next) arguments;                      \
        if (fails(kind, -1, path)) {                       \
            return NULL;                                   \
        }                                                  \
        if (next == NULL) {                                \
            next = (type(*) arguments)real(#name);         \
        }                                                  \
        return next values;                                \
    }
POINTER(k_open, path, FILE*, fopen, (const char* path, const char* mode), (path, mode))
POINTER(k_open, path, FILE*, fopen64, (const char* path, const char* mode), (path, mode))
POINTER(k_open, path, DIR*, opendir, (const char* path), (path))

CALL(k_read, fd, NULL, ssize_t, read, (int fd, void* to, size_t n), (fd, to, n))
CALL(k_read, fd, NULL, ssize_t, pread, (int fd, void* to, size_t n, off_t at), (fd, to, n, at))
CALL(k_read, fd, NULL, ssize_t, pread64, (int fd, void* to, size_t n, off_t at), (fd, to, n, at))
CALL(k_read, fd, NULL, ssize_t, recv, (int fd, void* to, size_t n, int flags), (fd, to, n, flags))
CALL(k_read, fd, NULL, ssize_t, __read_chk, (int fd, void* to, size_t n, size_t m), (fd, to, n, m))
CALL(k_read, fd, NULL, ssize_t, __pread_chk, (int fd, void* to, size_t n, off_t at, size_t m),
     (fd, to, n, at, m))
CALL(k_read, fd, NULL, ssize_t, __recv_chk, (int fd, void* to, size_t n, size_t m, int flags),
     (fd, to, n, m, flags))
CALL(k_write, fd, NULL, ssize_t, write, (int fd, const void* from, size_t n), (fd, from, n))
CALL(k_write, fd, NULL, ssize_t, writev, (int fd, const struct iovec* v, int n), (fd, v, n))
CALL(k_write, fd, NULL, ssize_t, send, (int fd, const void* from, size_t n, int flags),
     (fd, from, n, flags))
CALL(k_write, fd, NULL, ssize_t, sendfile, (int fd, int in, off_t* at, size_t n), (fd, in, at, n))
CALL(k_write, fd, NULL, ssize_t, sendfile64, (int fd, int in, off_t* at, size_t n), (fd, in, at, n))
CALL(k_write, fd, NULL, int, fallocate, (int fd, int mode, off_t at, off_t n), (fd, mode, at, n))
CALL(k_write, fd, NULL, int, fallocate64, (int fd, int mode, off_t at, off_t n), (fd, mode, at, n))
CALL(k_write, fd, NULL, int, ftruncate, (int fd, off_t n), (fd, n))
CALL(k_write, fd, NULL, int, fchmod, (int fd, mode_t mode), (fd, mode))
CALL(k_fsync, fd, NULL, int, fsync, (int fd), (fd))
CALL(k_fsync, fd, NULL, int, fdatasync, (int fd), (fd))
CALL(k_rename, -1, to, int, rename, (const char* from, const char* to), (from, to))
CALL(k_rename, -1, to, int, renameat, (int a, const char* from, int b, const char* to),
     (a, from, b, to))
CALL(k_rename, -1, path, int, unlink, (const char* path), (path))
CALL(k_rename, -1, path, int, mkdirat, (int at, const char* path, mode_t mode), (at, path, mode))
CALL(k_socket, -1, "", int, socket, (int a, int b, int c), (a, b, c))
CALL(k_socket, -1, "", int, pipe2, (int ends[2], int flags), (ends, flags))
CALL(k_accept, -1, "", int, accept4, (int fd, struct sockaddr* a, socklen_t* n, int flags),
     (fd, a, n, flags))
CALL(k_connect, -1, "", int, connect, (int fd, const struct sockaddr* a, socklen_t n), (fd, a, n))
CALL(k_wait, -1, "", int, epoll_wait, (int fd, struct epoll_event* e, int n, int ms), (fd, e, n, ms))
CALL(k_wait, -1, "", int, epoll_ctl, (int fd, int op, int which, struct epoll_event* e),
     (fd, op, which, e))
CALL(k_wait, -1, "", int, poll, (struct pollfd* p, nfds_t n, int ms), (p, n, ms))
CALL(k_wait, -1, "", pid_t, waitpid, (pid_t pid, int* status, int options), (pid, status, options))
CALL(k_stat, -1, path, int, stat, (const char* path, struct stat* s), (path, s))
CALL(k_stat, -1, path, int, stat64, (const char* path, struct stat64* s), (path, s))
CALL(k_stat, -1, path, int, lstat, (const char* path, struct stat* s), (path, s))
CALL(k_stat, fd, NULL, int, fstat, (int fd, struct stat* s), (fd, s))
CALL(k_stat, fd, NULL, int, fstat64, (int fd, struct stat64* s), (fd, s))
CALL(k_stat, -1, path, int, fstatat, (int at, const char* path, struct stat* s, int flags),
     (at, path, s, flags))
CALL(k_fork, -1, "", pid_t, fork, (void), ())

/* It returns twice into its caller's frame, so the real one must find the stack as it was. */
__attribute__((used, visibility("hidden"))) int vfork_fails(void) { return fails(k_fork, -1, ""); }
#ifdef __x86_64__
__asm__(
    ".text\n.globl vfork\n.type vfork, @function\nvfork:\n"
    "subq $8, %rsp\ncall vfork_fails\naddq $8, %rsp\n"
    "testl %eax, %eax\njnz 1f\njmp *real_vfork(%rip)\n"
    "1: movq $-1, %rax\nret\n.size vfork, .-vfork\n");
#endif

/* --- The wall clock --- */

int clock_gettime(clockid_t id, struct timespec* result) {
    const int status = (int)syscall(SYS_clock_gettime, id, result);
    if (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) {
        result->tv_sec += control->clock_s;
    }
    return status;
}
