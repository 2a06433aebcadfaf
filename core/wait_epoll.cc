// Waiting with epoll(7), level-triggered: the kernel remembers what is wanted and is told of
// differences alone, so that a wait costs what is ready.
//
// The kernel forgets a descriptor when it is closed, so that most slots are given back without a
// call. One that lives on without a slot is taken out when it reports something. What is closed
// here but lives on elsewhere, as a duplicate or in another process, can't be taken out any more:
// then a new epoll takes the place of the old one.
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "core/wait_backend.h"
#include "lib/unique_fd.h"

namespace {

constexpr int nothing = -1;
constexpr std::uint64_t wake_mark = UINT64_MAX;

// What the kernel knows of a slot.
struct registration {
    int fd = nothing;
    std::uint32_t events = 0;
    std::uint32_t serial = 0;  // differs between any two uses of the slot that meet
    short always = 0;          // not in the kernel: these events count as there, when wanted
};

struct epoll_state {
    int fd = nothing;
    int waker = nothing;
    std::vector<registration> slots;
    std::vector<int> slot_of;      // by descriptor
    std::vector<int> not_watched;  // slots whose descriptors epoll refuses
    std::vector<epoll_event> events;
};

epoll_state state;

// What an event carries: slot, descriptor and use of the slot. Slots fit 16 bits, and no system
// hands out descriptors of 24.
constexpr unsigned fd_shift = 16;
constexpr unsigned serial_shift = 40;
constexpr std::uint32_t serial_mask = 0xffffff;

std::uint64_t mark_of(int index, const registration& slot) {
    return static_cast<std::uint64_t>(index) | static_cast<std::uint64_t>(slot.fd) << fd_shift |
           static_cast<std::uint64_t>(slot.serial) << serial_shift;
}

registration& slot_at(int index) {
    const auto position = static_cast<std::size_t>(index);
    if (position >= state.slots.size()) {
        state.slots.resize(position + 1);
    }
    return state.slots[position];
}

int& slot_of(int fd) {
    const auto position = static_cast<std::size_t>(fd);
    if (position >= state.slot_of.size()) {
        state.slot_of.resize(position + 1, nothing);
    }
    return state.slot_of[position];
}

bool control(int operation, int index, const registration& slot) {
    epoll_event event{};
    event.events = slot.events;
    event.data.u64 = mark_of(index, slot);
    return epoll_ctl(state.fd, operation, slot.fd, &event) == 0;
}

void drop(int index, registration* slot) {
    if (slot->always != 0) {
        std::erase(state.not_watched, index);
        slot->always = 0;
    }
    if (slot->fd >= 0 && slot_of(slot->fd) == index) {
        slot_of(slot->fd) = nothing;
    }
    slot->fd = nothing;
    slot->serial = (slot->serial + 1) & serial_mask;
}

void take_out(int index, registration* slot) {
    if (slot->fd >= 0 && slot->always == 0) {
        (void)epoll_ctl(state.fd, EPOLL_CTL_DEL, slot->fd, nullptr);
    }
    drop(index, slot);
}

// An epoll that waits for the wake descriptor, or -1 with errno.
int make_epoll(int wake_fd) {
    unique_fd fd(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wake_mark;
    if (fd && epoll_ctl(fd.get(), EPOLL_CTL_ADD, wake_fd, &event) == 0) {
        return fd.release();
    }
    const int error = errno;
    fd.reset();
    errno = error;
    return nothing;
}

bool open_epoll(int wake_fd) {
    state.waker = wake_fd;
    state.fd = make_epoll(wake_fd);
    return state.fd >= 0;
}

void close_epoll() {
    if (state.fd >= 0) {
        (void)close(state.fd);
    }
    state = epoll_state();
}

bool watch_epoll(int index, const pollfd& wanted) {
    registration& slot = slot_at(index);
    if (wanted.fd < 0) {
        take_out(index, &slot);
        return true;
    }
    const auto events = static_cast<std::uint32_t>(static_cast<unsigned short>(wanted.events));
    if (slot.fd == wanted.fd) {
        const bool same = slot.events == events || slot.always != 0;
        slot.events = events;
        if (same || control(EPOLL_CTL_MOD, index, slot)) {
            return true;
        }
    }
    take_out(index, &slot);
    slot.fd = wanted.fd;
    slot.events = events;
    slot_of(slot.fd) = index;
    if (control(EPOLL_CTL_ADD, index, slot) ||
        (errno == EEXIST && control(EPOLL_CTL_MOD, index, slot))) {
        return true;
    }
    // What poll() would say of them.
    slot.always = errno == EPERM ? short{POLLIN | POLLOUT} : short{0};
    slot.always = errno == EBADF ? short{POLLNVAL} : slot.always;
    if (slot.always == 0) {
        const int error = errno;
        drop(index, &slot);
        errno = error;
        return false;
    }
    state.not_watched.push_back(index);
    return true;
}

void forget_epoll(int index) {
    drop(index, &slot_at(index));
}

short events_of(const registration& slot) {
    return slot.always == POLLNVAL
               ? slot.always
               : static_cast<short>(static_cast<unsigned>(slot.always) & slot.events);
}

// An event of a descriptor that has lost its slot; its number may be another's by now. False when
// it can't be taken out.
bool take_out_stray(int fd) {
    return slot_of(fd) == nothing && epoll_ctl(state.fd, EPOLL_CTL_DEL, fd, nullptr) == 0;
}

// Leaves everything as it is where the system refuses: then the stray ends some waits early.
void begin_anew() {
    const int fresh = make_epoll(state.waker);
    if (fresh < 0) {
        return;
    }
    (void)close(state.fd);
    state.fd = fresh;
    for (std::size_t i = 0; i < state.slots.size(); ++i) {
        const registration& slot = state.slots[i];
        if (slot.fd >= 0 && slot.always == 0) {
            (void)control(EPOLL_CTL_ADD, static_cast<int>(i), slot);
        }
    }
}

// False when the event is a stray that will come again.
bool note_event(const epoll_event& event, std::span<pollfd> slots, std::vector<int>* ready) {
    const std::uint64_t mark = event.data.u64;
    const auto index = static_cast<int>(mark & 0xffff);
    if (slot_at(index).fd < 0 || mark != mark_of(index, slot_at(index))) {
        return take_out_stray(static_cast<int>((mark >> fd_shift) & 0xffffff));
    }
    slots[static_cast<std::size_t>(index)].revents = static_cast<short>(event.events);
    ready->push_back(index);
    return true;
}

bool wait_epoll(std::span<pollfd> slots, int timeout_ms, std::vector<int>* ready, bool* woken) {
    for (const int index : state.not_watched) {
        const short events = events_of(slot_at(index));
        slots[static_cast<std::size_t>(index)].revents = events;
        if (events != 0) {
            ready->push_back(index);
        }
    }
    if (state.events.size() < slots.size()) {
        state.events.resize(slots.size());
    }
    const int count =
        epoll_wait(state.fd, state.events.data(), static_cast<int>(state.events.size()),
                   ready->empty() ? timeout_ms : 0);
    *woken = false;
    bool has_strays = false;
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = state.events[static_cast<std::size_t>(i)];
        if (event.data.u64 == wake_mark) {
            *woken = true;
        } else {
            has_strays = !note_event(event, slots, ready) || has_strays;
        }
    }
    if (has_strays) {
        begin_anew();
    }
    return count >= 0;
}

}  // namespace

const wait_backend epoll_backend = {.open = open_epoll,
                                    .close = close_epoll,
                                    .watch = watch_epoll,
                                    .forget = forget_epoll,
                                    .wait = wait_epoll};
