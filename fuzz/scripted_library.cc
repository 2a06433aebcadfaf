#include "fuzz/scripted_library.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>

#include "fuzz/check.h"
#include "security/api.h"
#include "security/at_types.h"

namespace {

struct scripted_channel {
    int fd = -1;
    bool open = false;
    std::string held;       // received, not given out yet
    std::string unwritten;  // what a write that has to be repeated began with
};

int channels = 0;
std::array<std::uint64_t, 64> sent{};

scripted_channel* channel_of(void* channel) {
    return static_cast<scripted_channel*>(channel);
}

std::uint32_t drop(void** channel) {
    delete channel_of(*channel);
    *channel = nullptr;
    --channels;
    return at_channel_failed;
}

std::uint32_t shake_hands(int fd, void** channel, std::uint32_t done) {
    if (*channel == nullptr) {
        *channel = new scripted_channel{.fd = fd};
        ++channels;
    }
    check(channel_of(*channel)->fd == fd);
    switch (scripted::next() % 8) {
        case 1:
        case 2:
            return at_again;
        case 3:
            return drop(channel);
        default:
            channel_of(*channel)->open = true;
            return done;
    }
}

// What has nothing to do with bytes: errors, and counts that can't be. 0: go on.
std::int32_t odd_count(unsigned mood, std::int32_t length, int error) {
    constexpr std::array<int, 16> errors = {0, 0, ECONNRESET, 0, 0, EAGAIN};
    errno = errors[mood % 16] == ECONNRESET ? error : errors[mood % 16];
    switch (mood % 16) {
        case 1:
        case 2:
        case 5:
            return -1;
        case 3:
            return length + 1;
        case 4:
            return std::int32_t{at_not_available};
        default:
            return 0;
    }
}

std::size_t piece_of(unsigned mood) {
    return std::size_t{1} << (mood / 16 == 0 ? 14 : mood / 16 - 1);
}

}  // namespace

namespace scripted {

std::string_view script;

unsigned next() {
    const auto mood = script.empty() ? 0U : static_cast<unsigned char>(script.front());
    script.remove_prefix(script.empty() ? 0 : 1);
    return mood;
}

int open_channels() {
    return channels;
}

std::uint64_t take_sent(int fd) {
    const std::uint64_t count = sent.at(static_cast<std::size_t>(fd));
    sent.at(static_cast<std::size_t>(fd)) = 0;
    return count;
}

}  // namespace scripted

void* molbatGetSymbol(int, const char*) {
    return &sent;
}

std::uint32_t molbAtSecConnAcceptWithCommExtn(void*, int fd, void*, std::uint32_t, void*,
                                              std::uint32_t, std::uint32_t, void** channel,
                                              void** client_credential) {
    const std::uint32_t result = shake_hands(fd, channel, at_no_credential);
    const bool known = result == at_no_credential && scripted::next() % 2 == 1;
    *client_credential = known ? &sent : nullptr;
    return known ? std::uint32_t{at_ok} : result;
}

std::uint32_t molbAtSecConnConnect(int fd, void*, std::uint32_t, void** channel, char** error) {
    *error = nullptr;
    return shake_hands(fd, channel, at_ok);
}

// Less than was asked for only when nothing is held back: callers rely on it.
std::int32_t molbAtSecConnRead(void* channel, void* buffer, std::int32_t length) {
    scripted_channel* c = channel_of(channel);
    check(c->open && length > 0);
    const unsigned mood = scripted::next();
    if (const std::int32_t count = odd_count(mood, length, ECONNRESET); count != 0) {
        return count;
    }
    const auto asked = static_cast<std::size_t>(length);
    if (c->held.size() < asked) {
        std::array<char, 16384> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        const ssize_t n = recv(c->fd, piece.data(), piece_of(mood), MSG_DONTWAIT);
        for (ssize_t i = 0; i < n; ++i) {
            c->held += scripted::sealed(piece[static_cast<std::size_t>(i)]);
        }
        if (c->held.empty()) {
            return n == 0 ? 0 : -1;
        }
    }
    const std::size_t given = c->held.copy(static_cast<char*>(buffer), asked);
    c->held.erase(0, given);
    return static_cast<std::int32_t>(given);
}

std::int32_t molbAtSecConnWrite(void* channel, const void* data, std::int32_t length) {
    scripted_channel* c = channel_of(channel);
    check(c->open && length > 0);
    const std::string_view bytes(static_cast<const char*>(data), static_cast<std::size_t>(length));
    check(bytes.starts_with(c->unwritten));  // the same as before, and maybe more
    const unsigned mood = scripted::next();
    if (const std::int32_t count = odd_count(mood, length, EPIPE); count != 0) {
        c->unwritten = errno == EAGAIN ? bytes : "";
        return count;
    }
    std::string piece(bytes.substr(0, piece_of(mood)));
    for (char& byte : piece) {
        byte = scripted::sealed(byte);
    }
    const ssize_t n = send(c->fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    c->unwritten = n < 0 && errno == EAGAIN ? bytes : "";
    sent.at(static_cast<std::size_t>(c->fd)) += static_cast<std::uint64_t>(std::max<ssize_t>(n, 0));
    return static_cast<std::int32_t>(n);
}

std::uint32_t molbAtSecConnClose(void** channel) {
    (void)drop(channel);
    return at_ok;
}

std::uint32_t molbAtExtractInfo(void*, void*, molb_info** info) {
    static std::array<char[8], 3> texts = {"box", "local", "known"};
    static molb_info known{texts[0], texts[1], texts[2]};
    *info = &known;
    return at_ok;
}

std::uint32_t molbAtAuthenticate(void*, const molb_identity*, std::uint32_t, void** credential) {
    *credential = nullptr;
    return at_refused;
}

std::uint32_t molbAtFree(void*) {
    return at_ok;
}

std::uint32_t molbatLibraryControl(const char*, void*) {
    return at_ok;
}

// What is asked for at the start only.

std::uint32_t molbAtInit(const molb_version*, void**) {
    return at_not_available;
}

std::uint32_t molbAtTerminate(void*) {
    return at_not_available;
}

std::uint32_t molbAtGetCredentials(void*, const molb_identity*, std::uint32_t, void***,
                                   std::int32_t*) {
    return at_not_available;
}

std::uint32_t molbAtGetDomainInfos(void*, std::uint32_t, molb_domain_info**, std::int32_t*) {
    return at_not_available;
}

std::uint32_t molbAtInitEx(const molb_version*, void**, const molb_init*, std::uintptr_t,
                           std::uintptr_t, std::uintptr_t) {
    return at_not_available;
}
