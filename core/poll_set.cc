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
#include <span>
#include <vector>

#include "core/globals.h"
#include "core/log.h"
#include "core/wait_backend.h"

namespace {

constexpr int free_slot = -1;    // also what a wait skips
constexpr int parked_slot = -2;  // taken, but skipped as well
constexpr int end_of_list = -1;
constexpr std::size_t slot_step = 32;
constexpr std::size_t listener_step = 4;
// Long enough to keep a processor free, short enough to notice that things are better.
constexpr int failed_wait_ms = 100;

// What the engine waits on. The pollfd array is what poll() takes; what only the engine needs
// stands beside it.
struct poll_fd_set {
    const wait_backend* backend = nullptr;
    std::vector<pollfd> fds;  // one more than there are slots, see wait_backend::wait
    std::vector<conn*> owners;
    std::vector<int> next_free;
    std::vector<bool> is_changed;  // for each slot whether it stands in the next list
    std::vector<int> changed;      // of these the backend has not heard yet
    std::vector<int> ready;        // the slots that the last wait returned, lowest first
    std::vector<listener_position> lp;
    int first_free = end_of_list;
    int high_water = 0;
    bool initialised = false;
    bool failure_logged = false;
};

poll_fd_set set;

wait_source preferred = wait_source::epoll;

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
    set.is_changed.resize(new_count, false);
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

void note_change(int index) {
    const auto position = static_cast<std::size_t>(index);
    if (!set.is_changed[position]) {
        set.is_changed[position] = true;
        set.changed.push_back(index);
    }
}

// The slots are the same for both.
void turn_to_poll(int error) {
    elog(elog_info, nullptr, "epoll: %s, waiting with poll", std::strerror(error));
    set.backend->close();
    set.backend = &poll_backend;
    (void)set.backend->open(wake_fd);
}

void tell_changes() {
    for (const int index : set.changed) {
        set.is_changed[static_cast<std::size_t>(index)] = false;
        if (in_use(index) && !set.backend->watch(index, slot(index))) {
            turn_to_poll(errno);
        }
    }
    set.changed.clear();
}

void forget_events() {
    for (const int index : set.ready) {
        slot(index).revents = 0;
    }
    set.ready.clear();
}

// A signal that arrives between the test of exit_flag and the wait must not be missed. The handler
// writes to a descriptor that is waited for, too, which costs no change of the signal mask on every
// pass.
int wait_unless_ending(int timeout_ms) {
    forget_events();
    if (exit_flag != 0) {
        errno = EINTR;
        return -1;
    }
    tell_changes();
    bool woken = false;
    const std::span slots(set.fds.data(), static_cast<std::size_t>(set.high_water) + 1);
    if (!set.backend->wait(slots, timeout_ms, &set.ready, &woken)) {
        const int error = errno;
        forget_events();
        errno = error;
        return -1;
    }
    if (woken) {
        std::uint64_t count = 0;
        (void)!read(wake_fd, &count, sizeof count);  // a child that was signalled wrote it, too
    }
    std::sort(set.ready.begin(), set.ready.end());
    return static_cast<int>(set.ready.size());
}

}  // namespace

void prefer_wait_source(wait_source source) {
    preferred = source;
}

wait_source current_wait_source() {
    init_poll_fd_set();
    return set.backend == &epoll_backend ? wait_source::epoll : wait_source::poll;
}

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
    set.backend = preferred == wait_source::epoll ? &epoll_backend : &poll_backend;
    if (!set.backend->open(wake_fd)) {
        turn_to_poll(errno);
    }
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
    if (set.backend != nullptr) {
        set.backend->close();
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
    note_change(index);
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
    set.backend->forget(index);
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
    if (in_use(index) && (slot(index).fd != fd || slot(index).events != events)) {
        slot(index).fd = fd;
        slot(index).events = events;
        note_change(index);
    }
}

void unwatch_poll_index(int index) {
    park_poll_index(index);
    if (in_use(index)) {
        (void)set.backend->watch(index, slot(index));
    }
}

void park_poll_index(int index) {
    if (in_use(index) && slot(index).fd != parked_slot) {
        slot(index).fd = parked_slot;
        note_change(index);
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
    // Events that were taken back, with their slot or alone, leave their index behind.
    const auto found =
        std::find_if(std::lower_bound(set.ready.begin(), set.ready.end(), from), set.ready.end(),
                     [](int index) { return slot(index).revents != 0; });
    return found == set.ready.end() ? -1 : *found;
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
