// A whole engine inside a test program: a context over a temporary document root, clients over
// socket pairs, and passes of the main loop on demand. No authentication library is involved.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "core/context.h"
#include "lib/unique_fd.h"

// A folder that disappears with the object.
class temporary_folder {
  public:
    temporary_folder();
    ~temporary_folder();
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    // Writes a file below the folder, making missing folders.
    std::filesystem::path write(std::string_view name, std::string_view content) const;

  private:
    std::filesystem::path path_;
};

std::string read_whole_file(const std::filesystem::path& path);

// How a connection was when an exchange on it was over.
enum class connection_end : std::uint8_t { open, closed, reset };

class test_engine {
  public:
    // The option `noauth` is set; subsystems are initialised as at start-up unless `bare`.
    explicit test_engine(bool bare = false);
    ~test_engine();
    test_engine(const test_engine&) = delete;
    test_engine& operator=(const test_engine&) = delete;

    shttpd_ctx* ctx = nullptr;
    temporary_folder root;
    connection_end ended = connection_end::open;  // of the last exchange

    // A client whose other end is a connection of the engine (no handshake).
    unique_fd connect();
    // Passes of the main loop that do not wait.
    void poll(int passes = 1);
    // Sends the bytes on a new connection and returns everything until the engine closes it, or
    // until nothing has moved for `quiet_passes` passes.
    std::string exchange(std::string_view bytes, int quiet_passes = 50);
    // The same on a connection that stays open.
    std::string exchange_on(int fd, std::string_view bytes, int quiet_passes = 50);
};

// "METHOD uri HTTP/1.1" with an optional body and its length.
std::string make_request(std::string_view method, std::string_view uri, std::string_view body = "");
// What stands behind the first blank line.
std::string body_of(std::string_view reply);
