// Every descriptor that the daemon waits on, each in a slot of its own that is used again.
//
// Two sources of events stand behind the same functions: epoll, whose passes cost what is ready,
// and poll(), whose passes cost what is open, for where the first can't be had. A descriptor has
// one slot at most and stays open while its slot is neither parked nor given back; the daemon
// closes a descriptor and then gives its slot back, or the other way round, within one pass. A
// descriptor that can't be waited for (a regular file) is ready at once. Entries are addressed by
// index, never by a pointer kept across a call: the array moves when it grows. A parked slot is
// kept but not waited for. Not thread-safe, wake_poll_set() excepted.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/fwd.h"

struct listener_record;

inline constexpr int max_poll_slots = 32768;

enum class wait_source : std::uint8_t { epoll, poll };

// What the next set waits with; epoll unless this says otherwise. A set that is in use keeps its
// source. For tests: the results are the same.
void prefer_wait_source(wait_source source);
// What the set waits with. A set whose epoll can't be made, or that outgrows what the system
// allows, waits with poll().
wait_source current_wait_source();

void init_poll_fd_set();
void clean_poll_fd_set();

// A slot for `fd`, requesting readability, without returned events; -1 when all are taken.
int get_poll_index(int fd);

// Gives a slot back. Free slots and -1 are ignored; an index above 32767 is logged.
void put_poll_index(int index);

// The connection that a slot's events concern; null for listeners.
void set_poll_owner(int index, conn* owner);
conn* poll_owner(int index);

// Requests events (POLLIN, POLLOUT, ...) on a slot of `fd`. The kernel hears of it before the next
// wait, and only when something differs from what it knows.
void set_poll_events(int index, int fd, short events);

// Keeps a slot without waiting for it.
void park_poll_index(int index);

// The same, done with at once: for a descriptor that is closed next and lives on in a duplicate,
// through which the kernel would go on watching it.
void unwatch_poll_index(int index);

// The events that the last wait returned for a slot; 0 for index -1.
short poll_revents(int index);
void clear_poll_revents(int index);

// The lowest slot at or above `from` that has returned events, -1 when there is none. A pass walks
// the ready slots with it: for (int i = next_ready_slot(0); i >= 0; i = next_ready_slot(i + 1)).
int next_ready_slot(int from);

// Waits like poll(2); the number of ready slots or -1. Signals that ask the daemon to end wake it,
// also when they came just before. A failure other than EINTR is logged once and takes 0.1 s.
int wait_for_events(int timeout_ms);

// Ends the current or the next wait at once. Async-signal-safe, and safe from any thread.
void wake_poll_set();

// One more than the highest slot in use.
int poll_high_water();

// Records a listener's slot.
void set_lp_poll_position(int index, listener_record* listener);
void remove_lp_poll_position(std::size_t position);

struct listener_position {
    int poll_index = -1;  // -1: free
    listener_record* listener = nullptr;
};

// The pair at a position; a free pair beyond the end.
listener_position lp_at(std::size_t position);
