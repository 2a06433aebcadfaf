#include "core/poll_set.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <vector>

#include "core/globals.h"
#include "core/log.h"

namespace {

constexpr int free_slot = -1;    // also what poll() skips
constexpr int parked_slot = -2;  // taken, but skipped by poll() as well
constexpr int end_of_list = -1;
constexpr std::size_t slot_step = 32;
constexpr std::size_t listener_step = 4;
// Long enough to keep a processor free, short enough to notice that things are better.
constexpr int failed_wait_ms = 100;

// What the engine waits on. The pollfd array is handed to the kernel as it is; what only the
// engine needs stands beside it, so that a pass over the events touches eight bytes per slot.
struct poll_fd_set {
    std::vector<pollfd> fds;  // one more than there are slots, see wait_unless_ending
    std::vector<conn*> owners;
    std::vector<int> next_free;
    std::vector<listener_position> lp;
    int first_free = end_of_list;
    int high_water = 0;
    bool initialised = false;
    bool failure_logged = false;
};

poll_fd_set set;

// Written to by the signal handler.
std::atomic<int> wake_fd = -1;

int slot_count() {
    return static_cast<int>(set.next_free.size());
}

pollfd& slot(int index) {
    return set.fds[static_cast<std::size_t>(index)];
}

bool in_use(int index) {
    return index >= 0 && index < slot_count() && slot(index).fd != free_slot;
}

// Adds a step of free slots, lowest first on the free list. Requires: the free list is empty.
void grow() {
    const int old_count = slot_count();
    const std::size_t new_count = set.next_free.size() + slot_step;
    set.fds.resize(new_count + 1, pollfd{.fd = free_slot, .events = 0, .revents = 0});
    set.owners.resize(new_count, nullptr);
    set.next_free.resize(new_count, end_of_list);
    for (int i = old_count; i < slot_count() - 1; ++i) {
        set.next_free[static_cast<std::size_t>(i)] = i + 1;
    }
    set.first_free = old_count;
}

// A wait that fails for another reason than a signal would otherwise be repeated at full speed.
void note_failure(int error) {
    if (!set.failure_logged) {
        set.failure_logged = true;
        elog(elog_info, nullptr, "poll of %d descriptors failed: %s", set.high_water,
             std::strerror(error));
    }
    const timespec pause = {.tv_sec = 0, .tv_nsec = failed_wait_ms * 1000000L};
    (void)nanosleep(&pause, nullptr);  // a signal may end it early
}

// A signal that arrives between the test of exit_flag and the wait must not be missed. The handler
// writes to a descriptor that takes the free entry behind the slots in use during the call, which
// costs no change of the signal mask on every pass.
int wait_unless_ending(int timeout_ms) {
    if (exit_flag != 0) {
        errno = EINTR;
        return -1;
    }
    pollfd& wake = slot(set.high_water);
    wake = {.fd = wake_fd, .events = POLLIN, .revents = 0};
    int result = poll(set.fds.data(), static_cast<nfds_t>(set.high_water) + 1, timeout_ms);
    if (result > 0 && wake.revents != 0) {
        --result;
        std::uint64_t count = 0;
        (void)!read(wake_fd, &count, sizeof count);  // a child that was signalled wrote it, too
    }
    wake = {.fd = free_slot, .events = 0, .revents = 0};
    return result;
}

}  // namespace

void init_poll_fd_set() {
    if (set.initialised) {
        return;
    }
    set.initialised = true;
    if (wake_fd < 0) {
        wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    grow();
    set.lp.resize(listener_step);
}

void clean_poll_fd_set() {
    for (const listener_position& position : set.lp) {
        // Kept: positions behind a free one keep their descriptors.
        if (position.poll_index < 0) {
            break;
        }
        if (in_use(position.poll_index) && slot(position.poll_index).fd >= 0) {
            (void)close(slot(position.poll_index).fd);
        }
    }
    set = poll_fd_set();
    if (wake_fd >= 0) {
        (void)close(wake_fd);
        wake_fd = -1;
    }
}

void wake_poll_set() {
    const int error = errno;
    const std::uint64_t one = 1;
    (void)!write(wake_fd, &one, sizeof one);  // without a poll set there is nobody to wake
    errno = error;
}

int get_poll_index(int fd) {
    init_poll_fd_set();
    if (set.first_free == end_of_list) {
        if (slot_count() >= max_poll_slots) {
            return -1;
        }
        grow();
    }
    const int index = set.first_free;
    const auto position = static_cast<std::size_t>(index);
    set.first_free = set.next_free[position];
    set.next_free[position] = end_of_list;
    // A slot that changes hands within a pass must not show its last owner's events or be his.
    set.owners[position] = nullptr;
    slot(index) = pollfd{.fd = fd, .events = POLLIN, .revents = 0};
    // Kept: the mark sinks only here. Free slots below it cost poll() a look each until then.
    if (index >= set.high_water) {
        set.high_water = index + 1;
    } else {
        while (slot(set.high_water - 1).fd == free_slot) {
            --set.high_water;
        }
    }
    return index;
}

void put_poll_index(int index) {
    if (index >= max_poll_slots) {
        elog(elog_info, nullptr, "Trying to free invalid poll index = %d\n", index);
        return;
    }
    if (!in_use(index)) {
        return;
    }
    const auto position = static_cast<std::size_t>(index);
    slot(index) = pollfd{.fd = free_slot, .events = 0, .revents = 0};
    set.owners[position] = nullptr;
    set.next_free[position] = set.first_free;
    set.first_free = index;
}

void set_poll_owner(int index, conn* owner) {
    if (in_use(index)) {
        set.owners[static_cast<std::size_t>(index)] = owner;
    }
}

conn* poll_owner(int index) {
    return in_use(index) ? set.owners[static_cast<std::size_t>(index)] : nullptr;
}

void set_poll_events(int index, int fd, short events) {
    if (in_use(index)) {
        slot(index).fd = fd;
        slot(index).events = events;
    }
}

void park_poll_index(int index) {
    if (in_use(index)) {
        slot(index).fd = parked_slot;
    }
}

short poll_revents(int index) {
    return index >= 0 && index < slot_count() ? slot(index).revents : short{0};
}

void clear_poll_revents(int index) {
    if (index >= 0 && index < slot_count()) {
        slot(index).revents = 0;
    }
}

int next_ready_slot(int from) {
    const auto start = set.fds.begin() + std::clamp(from, 0, set.high_water);
    const auto end = set.fds.begin() + set.high_water;
    const auto found = std::find_if(start, end, [](const pollfd& s) { return s.revents != 0; });
    return found == end ? -1 : static_cast<int>(found - set.fds.begin());
}

int wait_for_events(int timeout_ms) {
    init_poll_fd_set();
    const int result = wait_unless_ending(timeout_ms);
    if (result >= 0) {
        set.failure_logged = false;
    } else if (errno != EINTR) {
        note_failure(errno);
    }
    return result;
}

int poll_high_water() {
    return set.high_water;
}

void set_lp_poll_position(int index, listener_record* listener) {
    init_poll_fd_set();
    auto place = std::find_if(set.lp.begin(), set.lp.end(), [](const listener_position& position) {
        return position.poll_index < 0;
    });
    if (place == set.lp.end()) {
        const std::size_t first_new = set.lp.size();
        set.lp.resize(first_new + listener_step);
        place = set.lp.begin() + static_cast<std::ptrdiff_t>(first_new);
    }
    *place = {.poll_index = index, .listener = listener};
}

void remove_lp_poll_position(std::size_t position) {
    if (position < set.lp.size()) {
        set.lp[position] = listener_position();
    }
}

listener_position lp_at(std::size_t position) {
    return position < set.lp.size() ? set.lp[position] : listener_position();
}
