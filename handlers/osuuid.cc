#include "handlers/osuuid.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string_view>

#include "core/compat_unix.h"
#include "core/paths.h"
#include "lib/unique_fd.h"

namespace {

constexpr std::size_t guid_bytes = 38;  // braces included
// Kept: a shorter file, one with nothing but the GUID for instance, shows as "UNKNOWN".
constexpr std::size_t shortest_file = 46;
constexpr std::size_t longest_read = 99;

std::array<char, guid_bytes + 1> guid{};  // empty: not read

// The first file that opens decides, even when it holds no GUID. Without waiting, should one be a
// pipe.
unique_fd open_guid_file() {
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
    unique_fd fd(my_open(paths.host_guid, flags, 0));
    return fd ? std::move(fd) : unique_fd(my_open(paths.os_uuid, flags, 0));
}

void read_guid() {
    const unique_fd fd = open_guid_file();
    if (!fd) {
        return;
    }
    std::array<char, longest_read> buffer{};
    const ssize_t length = read(fd.get(), buffer.data(), buffer.size());
    if (length < static_cast<ssize_t>(shortest_file)) {
        return;
    }
    const std::string_view text(buffer.data(), static_cast<std::size_t>(length));
    const std::size_t brace = text.find('{');
    // A GUID that is cut by the end of what was read is none.
    if (brace != std::string_view::npos && text.size() - brace >= guid_bytes) {
        std::memcpy(guid.data(), text.data() + brace, guid_bytes);
    }
}

}  // namespace

const char* get_osuuid() {
    if (guid[0] == '\0') {
        read_guid();
    }
    return guid[0] != '\0' ? guid.data() : nullptr;
}

void forget_osuuid() {
    guid.fill('\0');
}
