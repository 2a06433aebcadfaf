// The two ways in which the poll set can wait; only poll_set.cc uses them.
//
// A set opens one of them and keeps it. Slots are named by their index; an entry whose descriptor
// is negative is not waited for.
#pragma once

#include <poll.h>

#include <span>
#include <vector>

struct wait_backend {
    // Begins; the wake descriptor is waited for from now on. False, with errno, when the system
    // refuses.
    bool (*open)(int wake_fd);
    void (*close)();

    // Something about a slot in use may have changed since the last wait: `wanted` is what holds
    // now. False, with errno, when the system refuses to wait for more.
    bool (*watch)(int index, const pollfd& wanted);

    // A slot was given back. Its descriptor may be closed by now, or live on elsewhere.
    void (*forget)(int index);

    // Waits like poll(2), sets the returned events of every slot that is ready and appends its
    // index; `woken` tells whether the wake descriptor was among them. False, with errno, when the
    // wait failed. `slots` ends in a spare entry that a backend may use during the call.
    bool (*wait)(std::span<pollfd> slots, int timeout_ms, std::vector<int>* ready, bool* woken);
};

extern const wait_backend epoll_backend;
extern const wait_backend poll_backend;
