// What nearly every test needs: GoogleTest, the standard containers that results are compared with,
// and the system's files, sockets and processes.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "lib/unique_fd.h"

// A folder that disappears with the object.
class temporary_folder {
  public:
    temporary_folder() {
        std::string name = std::filesystem::temp_directory_path() / "dovmad.XXXXXX";
        path_ = mkdtemp(name.data());
    }
    ~temporary_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    // Writes a file below the folder, making missing folders.
    std::filesystem::path write(std::string_view name, std::string_view content) const {
        const std::filesystem::path file = path_ / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

  private:
    std::filesystem::path path_;
};

inline std::string read_whole_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::size_t count_of(std::string_view text, std::string_view piece) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(piece, at)) != std::string_view::npos; ++at) {
        ++found;
    }
    return found;
}

inline testing::AssertionResult contains(std::string_view text, std::string_view piece) {
    const bool found = text.find(piece) != std::string_view::npos;
    return (found ? testing::AssertionSuccess() : testing::AssertionFailure()) << text;
}

// What is said on standard error meanwhile.
inline std::string stderr_of(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

// Begins a check in a child process; whether it held there is asked with `held`.
inline pid_t begin_in_child(const std::function<bool()>& check) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(check() ? 0 : 1);
    }
    return child;
}

inline bool held(pid_t child) {
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

inline bool holds_in_child(const std::function<bool()>& check) {
    return held(begin_in_child(check));
}

// The socket address of a text without a port; of no family when it is none.
inline sockaddr_storage address_of(const std::string& text, in_port_t port = 0) {
    sockaddr_storage storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        storage.ss_family = AF_INET;
    } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
        storage.ss_family = AF_INET6;
    }
    v4->sin_port = htons(port);  // the same place for both families
    return storage;
}

// Both ends of a connection.
inline std::pair<unique_fd, unique_fd> connected_pair(int flags = 0) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0, ends), 0);
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

// A listener on a loopback port of its own.
struct loopback_listener {
    explicit loopback_listener(int backlog = 8, int flags = 0)
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)) {
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof at;
        EXPECT_EQ(bind(fd.get(), address(), length) + listen(fd.get(), backlog), 0);
        EXPECT_EQ(getsockname(fd.get(), address(), &length), 0);
    }
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&at); }
    [[nodiscard]] int port() const { return ntohs(at.sin_port); }
    unique_fd client(int flags = 0) {
        unique_fd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
        EXPECT_TRUE(connect(made.get(), address(), sizeof at) == 0 || errno == EINPROGRESS);
        return made;
    }

    unique_fd fd;
    sockaddr_in at{};
};

// As long as it lives, the process may have less of something.
class lowered_limit {
  public:
    lowered_limit(decltype(RLIMIT_NOFILE) what, rlim_t most) : what_(what) {
        EXPECT_EQ(getrlimit(what, &usual_), 0);
        const rlimit lower{most, usual_.rlim_max};
        EXPECT_EQ(setrlimit(what, &lower), 0);
    }
    ~lowered_limit() { EXPECT_EQ(setrlimit(what_, &usual_), 0); }
    lowered_limit(const lowered_limit&) = delete;
    lowered_limit& operator=(const lowered_limit&) = delete;

  private:
    decltype(RLIMIT_NOFILE) what_;
    rlimit usual_{};
};

inline std::ptrdiff_t descriptors_in_use() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// The number that the next descriptor gets.
inline rlim_t next_descriptor() {
    return static_cast<rlim_t>(unique_fd(dup(0)).get());
}
