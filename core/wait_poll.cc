// Waiting with poll(2): the kernel is handed all slots on every call.
#include "core/wait_backend.h"

namespace {

int waker = -1;

bool open_poll(int wake_fd) {
    waker = wake_fd;
    return true;
}

void close_poll() {
    waker = -1;
}

bool watch_poll(int /*index*/, const pollfd& /*wanted*/) {
    return true;
}

void forget_poll(int /*index*/) {}

bool wait_poll(std::span<pollfd> slots, int timeout_ms, std::vector<int>* ready, bool* woken) {
    pollfd& wake = slots.back();
    const pollfd spare = wake;
    wake = {.fd = waker, .events = POLLIN, .revents = 0};
    const int result = poll(slots.data(), slots.size(), timeout_ms);
    *woken = result > 0 && wake.revents != 0;
    wake = spare;
    for (std::size_t i = 0; result > 0 && i + 1 < slots.size(); ++i) {
        if (slots[i].revents != 0) {
            ready->push_back(static_cast<int>(i));
        }
    }
    return result >= 0;
}

}  // namespace

const wait_backend poll_backend = {.open = open_poll,
                                   .close = close_poll,
                                   .watch = watch_poll,
                                   .forget = forget_poll,
                                   .wait = wait_poll};
