#include "security/at_osf.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include "security/at_types.h"

namespace {

constexpr int attempts_max = 100;
constexpr long pause_us = 100;

// Repeats an interrupted call, at most a hundred times in 10 ms: a signal storm must not hold the
// process. `call` returns whether it succeeded, errno tells why not.
template <class Call>
bool retry(Call call) {
    for (int attempt = 0; attempt < attempts_max; ++attempt) {
        if (call()) {
            return true;
        }
        if (errno != EINTR) {
            return false;
        }
        (void)at_os_sleep_i(pause_us);
    }
    return false;
}

int result_of(int call_result) {
    return call_result == 0 ? 0 : errno;
}

int open_result(int fd, int* out) {
    *out = fd;
    return fd >= 0 ? 0 : errno;
}

// By lstat: what a symbolic link leads to belongs to somebody else.
int remove_entry(const std::string& path) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        return errno;
    }
    return S_ISDIR(st.st_mode) ? at_os_rmdir_i(path.c_str()) : result_of(unlink(path.c_str()));
}

}  // namespace

// The flag is set by the open itself: a second call would leave a moment in which a child started
// by another thread inherits the descriptor.
std::FILE* fopen_cloexec(const char* path, const char* mode) {
    return std::fopen(path, (std::string(mode) + "e").c_str());
}

int at_os_fopen_nr(const char* path, const char* mode, std::FILE** out) {
    *out = fopen_cloexec(path, mode);
    return *out != nullptr ? 0 : errno;
}

int at_os_fopen_r(const char* path, const char* mode, std::FILE** out) {
    if (retry([&] { return (*out = fopen_cloexec(path, mode)) != nullptr; })) {
        return 0;
    }
    switch (errno) {
        case EACCES:
            return at_permission_denied;
        case ENOENT:
            return at_not_available;
        case ENOSPC:
            return at_no_space;
        default:
            return at_file_error;
    }
}

int open_cloexec(const char* path, int flags, mode_t mode) {
    return open(path, flags | O_CLOEXEC, mode);
}

int at_os_open_nr(const char* path, int flags, int* out) {
    return at_os_open2_nr(path, flags, 0, out);
}

int at_os_open_r(const char* path, int flags, int* out) {
    return at_os_open2_r(path, flags, 0, out);
}

int at_os_open2_nr(const char* path, int flags, mode_t mode, int* out) {
    return open_result(open_cloexec(path, flags, mode), out);
}

int at_os_open2_r(const char* path, int flags, mode_t mode, int* out) {
    *out = -1;
    (void)retry([&] { return (*out = open_cloexec(path, flags, mode)) >= 0; });
    return open_result(*out, out);
}

int at_os_opendir_i(const char* path, DIR** out) {
    *out = opendir(path);
    return *out != nullptr ? 0 : errno;
}

int at_os_readdir_i(DIR* directory, dirent** out) {
    errno = 0;  // the end and a failure look alike otherwise
    *out = readdir(directory);
    return *out != nullptr ? 0 : errno;
}

int at_os_closedir_i(DIR* directory) {
    return result_of(closedir(directory));
}

int at_os_emptydir_i(const char* path) {
    if (path == nullptr || *path == '\0') {
        return at_invalid_argument;
    }
    DIR* directory = nullptr;
    if (const int error = at_os_opendir_i(path, &directory); error != 0) {
        return error;
    }
    int result = 0;
    dirent* entry = nullptr;
    while (result == 0 && (result = at_os_readdir_i(directory, &entry)) == 0 && entry != nullptr) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) {
            result = remove_entry(std::string(path) + "/" + name);
        }
    }
    (void)at_os_closedir_i(directory);
    return result;
}

int at_os_rmdir_i(const char* path) {
    const int result = at_os_emptydir_i(path);
    return result != 0 ? result : result_of(rmdir(path));
}

int at_os_stat_i(const char* path, struct stat* buffer) {
    if (retry([&] { return stat(path, buffer) == 0; })) {
        return 0;
    }
    switch (errno) {
        case ENOENT:
            return at_not_available;
        case EACCES:
            return at_permission_denied;
        default:
            return at_stat_failed;
    }
}

int at_os_is_same_file(const char* a, const char* b, int* out) {
    *out = 0;
    if (a == nullptr || b == nullptr) {
        return at_invalid_argument;
    }
    if (std::strcmp(a, b) == 0) {
        *out = 1;
        return 0;
    }
    struct stat first {};
    struct stat second {};
    for (const auto& [path, st] : {std::pair{a, &first}, std::pair{b, &second}}) {
        if (const int result = at_os_stat_i(path, st); result != 0) {
            return result;
        }
    }
    *out = first.st_dev == second.st_dev && first.st_ino == second.st_ino ? 1 : 0;
    return 0;
}

int at_os_chmod_i(const char* path, mode_t mode) {
    return result_of(chmod(path, mode));
}

int at_os_mkdir_i(const char* path, mode_t mode) {
    return result_of(mkdir(path, mode));
}

int at_os_chdir_i(const char* path) {
    return result_of(chdir(path));
}

int at_os_fclose_i(std::FILE* file) {
    return result_of(std::fclose(file));
}

int at_os_fseek_i(std::FILE* file, long offset, int whence) {
    return result_of(std::fseek(file, offset, whence));
}

int at_os_rename_i(const char* from, const char* to) {
    return std::rename(from, to) == 0 ? 0 : int{at_rename_failed};
}

int at_os_sleep_i(long microseconds) {
    const timespec pause{.tv_sec = 0, .tv_nsec = microseconds * 1000};
    return result_of(nanosleep(&pause, nullptr));
}
