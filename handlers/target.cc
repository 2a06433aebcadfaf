#include "handlers/target.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/poll_set.h"
#include "core/string.h"

namespace {

constexpr std::size_t host_max = 255;
constexpr int port_max = 65535;
constexpr const char* too_late = "no answer within 4 seconds";

// A signal does not stop a connect: it goes on in the background like one in progress. A Unix
// service whose queue is full answers EAGAIN and counts as absent: there is nothing to wait on.
int start_connect(const sockaddr* address, socklen_t length) {
    unique_fd fd(socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        return -1;
    }
    const bool started = connect(fd.get(), address, length) == 0 || errno == EINPROGRESS ||
                         errno == EINTR || errno == EALREADY || errno == EEXIST;
    return started ? fd.release() : -1;
}

target_connector connector = start_connect;

// What one call moves at most. A library that can't serve a call answers it with a result code,
// which a larger request would take for a count: the reply would get bytes that nobody sent.
constexpr std::size_t transfer_max = 16384;
static_assert(transfer_max < at_invalid_argument, "every result code is a larger number");

std::int32_t transfer_length(std::size_t length) {
    return static_cast<std::int32_t>(std::min(length, transfer_max));
}

// The library's count with errno as recv and send would leave it.
ssize_t checked_count(std::int32_t count, std::int32_t length) {
    if (count >= 0 && count <= length) {
        return count;
    }
    if (count != -1 || errno == 0) {
        errno = count == std::int32_t{at_again} ? EAGAIN : EIO;
    }
    return -1;
}

}  // namespace

target::target(conn* client, std::string_view host_name, int port_number, bool use_channel,
               std::int64_t deadline)
    : owner(client),
      host(host_name),
      port(port_number),
      secure(use_channel),
      deadline_ms_(deadline) {
    if (host.size() > host_max || port > port_max) {
        fail("no such target");
        return;
    }
    lookup_.reset(look_up_addresses(host, owner));
    (void)advance();
}

target::target(conn* client, const char* socket_path, std::int64_t deadline)
    : owner(client), state(target_state::connecting), deadline_ms_(deadline) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (std::strlen(socket_path) >= sizeof(address.sun_path)) {
        fail("the socket's path is too long");
        return;
    }
    std::memcpy(address.sun_path, socket_path, std::strlen(socket_path));
    if (!begin_connect(reinterpret_cast<const sockaddr*>(&address), sizeof(address))) {
        fail(std::strerror(last_error_));
        return;
    }
    (void)advance();
}

target_state target::advance() {
    bool goes_on = true;
    while (goes_on) {
        switch (state) {
            case target_state::looking_up:
                goes_on = read_addresses();
                break;
            case target_state::connecting:
                goes_on = check_connect();
                break;
            case target_state::securing:
                goes_on = set_up_channel();
                break;
            case target_state::ready:
            case target_state::kept:
            case target_state::failed:
                return state;
        }
    }
    if (monotonic_ms() >= deadline_ms_) {
        fail(too_late);
    } else {
        visit_at(owner, state == target_state::connecting ? attempt_ends_ms_ : deadline_ms_);
    }
    return state;
}

// The steps return whether the next one may be tried at once.

bool target::read_addresses() {
    const name_answer* answer = lookup_answer(lookup_.get());
    if (answer == nullptr) {
        return false;
    }
    if (answer->code != 0 || answer->addresses.empty()) {
        fail(gai_strerror(answer->code != 0 ? answer->code : EAI_NONAME));
        return false;
    }
    addresses_.assign(answer->addresses.rbegin(), answer->addresses.rend());
    lookup_.reset();
    state = target_state::connecting;
    connect_next();
    return true;
}

// "localhost" may have an address that nobody listens on in front of the right one.
void target::connect_next() {
    drop_attempt();
    while (!addresses_.empty()) {
        host_address address = addresses_.back();
        addresses_.pop_back();
        address.set_port(static_cast<std::uint16_t>(port));
        if (begin_connect(&address.any, address.length())) {
            return;
        }
    }
    fail(std::strerror(last_error_));
}

// Half of the time that is left, while others are to be tried: one address that swallows packets
// must not use it all up.
bool target::begin_connect(const sockaddr* address, socklen_t length) {
    fd.reset(connector(address, length));
    last_error_ = errno;
    if (!fd) {
        return false;
    }
    slot = get_poll_index(fd.get());
    if (slot < 0) {
        last_error_ = EMFILE;
        fd.reset();
        return false;
    }
    set_poll_owner(slot, owner);
    set_poll_events(slot, fd.get(), POLLOUT);
    const std::int64_t now = monotonic_ms();
    attempt_ends_ms_ = addresses_.empty() ? deadline_ms_ : now + (deadline_ms_ - now) / 2;
    return true;
}

bool target::check_connect() {
    if (IsSktWriteable(fd.get(), 0) > 0) {
        socklen_t length = sizeof(last_error_);
        if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &last_error_, &length) != 0) {
            last_error_ = errno;
        }
        if (last_error_ == 0) {
            if (!secure) {
                become_ready();
                return false;
            }
            stop_delays();
            set_poll_events(slot, fd.get(), POLLIN);
            state = target_state::securing;
            return true;
        }
    } else if (monotonic_ms() < attempt_ends_ms_) {
        return false;
    } else {
        last_error_ = ETIMEDOUT;
    }
    connect_next();
    return true;
}

// Heads and bodies are written in one piece where that is possible, so nothing is gained by holding
// small packets back.
void target::stop_delays() {
    const int on = 1;
    (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// A secure target is never spoken to in clear text.
bool target::set_up_channel() {
    constexpr std::uint32_t connect_mode = 1;
    char* text = nullptr;
    const std::uint32_t result =
        molbAtSecConnConnect(fd.get(), owner->ctx->at_handle, connect_mode, &channel, &text);
    std::string why = text != nullptr ? text : "no secure channel";
    if (text != nullptr) {
        (void)molbAtFree(text);
    }
    if (result == at_ok && channel != nullptr) {
        become_ready();
    } else if (result != at_again) {
        fail(std::move(why));
    }
    return false;
}

// What the slot last reported is older than this use.
void target::become_ready() {
    state = target_state::ready;
    clear_poll_revents(slot);
}

void target::fail(std::string why) {
    close();
    failure = std::move(why);
    state = target_state::failed;
}

// The slot first: one whose descriptor is closed would be reported for ever.
void target::drop_attempt() {
    put_poll_index(slot);
    slot = -1;
    fd.reset();
}

void target::close() {
    lookup_.reset();
    addresses_.clear();
    if (channel != nullptr) {
        (void)molbAtSecConnClose(&channel);
        channel = nullptr;
    }
    drop_attempt();
}

bool target::serves(std::string_view host_name, int port_number, bool use_channel) const {
    if (state != target_state::kept || port != port_number || secure != use_channel ||
        !equals_nocase(host, host_name)) {
        return false;
    }
    pollfd entry = {.fd = fd.get(), .events = POLLIN | POLLOUT, .revents = 0};
    return poll(&entry, 1, 0) > 0 && entry.revents == POLLOUT;
}

// Anything that happens on it while it is idle ends it; see drop_idle_target().
void target::keep() {
    state = target_state::kept;
    set_poll_events(slot, fd.get(), POLLIN);
    clear_poll_revents(slot);
}

void target::reuse() {
    reused = true;
    become_ready();
}

ssize_t target::receive(void* buffer, std::size_t length) {
    if (channel == nullptr) {
        return recv(fd.get(), buffer, length, 0);
    }
    const std::int32_t asked = transfer_length(length);
    errno = 0;
    const std::int32_t count = molbAtSecConnRead(channel, buffer, asked);
    // Only a read that got less than it asked for has emptied the channel.
    owner->local.channel.holds_bytes = count == asked;
    return checked_count(count, asked);
}

ssize_t target::deliver(const void* bytes, std::size_t length) {
    if (channel == nullptr) {
        if (writes_ < 2 && ++writes_ == 2) {
            stop_delays();  // the first one is never held back, and mostly the only one
        }
        return send(fd.get(), bytes, length, MSG_NOSIGNAL);
    }
    const std::int32_t offered = transfer_length(length);
    errno = 0;
    return checked_count(molbAtSecConnWrite(channel, bytes, offered), offered);
}

void target_ending::operator()(target* ended) const {
    delete ended;
}

void drop_idle_target(conn* c) {
    if (c->target != nullptr && c->target->state == target_state::kept &&
        poll_revents(c->target->slot) != 0) {
        c->target.reset();
    }
}

int IsSktWriteable(int fd, int timeout_ms) {
    const std::int64_t deadline = monotonic_ms() + timeout_ms;
    pollfd entry = {.fd = fd, .events = POLLOUT, .revents = 0};
    for (;;) {
        const std::int64_t left = std::max<std::int64_t>(0, deadline - monotonic_ms());
        const int ready = poll(&entry, 1, static_cast<int>(left));
        if (ready >= 0) {
            return ready;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return 0;
        }
    }
}

void set_target_connector(target_connector replacement) {
    connector = replacement != nullptr ? replacement : start_connect;
}
