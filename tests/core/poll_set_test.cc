// Proves the poll set against a model under random use, and its waiting with real descriptors and
// signals.
#include "core/poll_set.h"

#include <poll.h>
#include <signal.h>

#include <chrono>

#include "core/compat_unix.h"
#include "core/globals.h"
#include "tests/support/testing.h"

namespace {

class PollSet : public testing::TestWithParam<wait_source> {
  protected:
    PollSet() {
        clean_poll_fd_set();
        prefer_wait_source(GetParam());
        exit_flag = 0;
    }
    ~PollSet() override {
        clean_poll_fd_set();
        prefer_wait_source(wait_source::epoll);
    }
};

INSTANTIATE_TEST_SUITE_P(BothSources, PollSet,
                         testing::Values(wait_source::epoll, wait_source::poll),
                         [](const auto& source) {
                             return source.param == wait_source::epoll ? "Epoll" : "Poll";
                         });

struct pipe_pair {
    unique_fd out;
    unique_fd in;
    pipe_pair() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        out.reset(ends[0]);
        in.reset(ends[1]);
    }
    void feed() const { EXPECT_EQ(write(in.get(), "x", 1), 1); }
};

// Never followed: the set only carries the pointers.
conn* fake_conn(std::uintptr_t number) {
    return reinterpret_cast<conn*>(number * 16);
}

listener_record* fake_listener(std::uintptr_t number) {
    return reinterpret_cast<listener_record*>(number * 16);
}

std::set<int> ready_slots() {
    std::set<int> ready;
    for (int i = next_ready_slot(0); i >= 0; i = next_ready_slot(i + 1)) {
        ready.insert(i);
    }
    return ready;
}

TEST_P(PollSet, SlotsAreOwnedOnceUnderRandomUse) {
    std::mt19937 random(42);
    std::map<int, conn*> model;
    int highest_ever = -1;
    for (int round = 0; round < 20000; ++round) {
        if (random() % 100 < (round / 2000 % 2 == 0 ? 60U : 40U)) {
            const int index = get_poll_index(5);
            ASSERT_GE(index, 0);
            ASSERT_EQ(model.count(index), 0U) << "slot given out twice";
            ASSERT_EQ(poll_owner(index), nullptr);
            ASSERT_EQ(poll_revents(index), 0);
            conn* owner = fake_conn(static_cast<std::uintptr_t>(round) + 1);
            set_poll_owner(index, owner);
            model[index] = owner;
            highest_ever = std::max(highest_ever, index);
        } else if (!model.empty()) {
            const auto victim =
                std::next(model.begin(), static_cast<std::ptrdiff_t>(random() % model.size()));
            const int index = victim->first;
            if (random() % 3 == 0) {
                park_poll_index(index);
            }
            model.erase(victim);
            put_poll_index(index);
            put_poll_index(index);  // and again: must not enter the free list twice
            ASSERT_EQ(poll_owner(index), nullptr);
        }
        ASSERT_GT(poll_high_water(), model.empty() ? -1 : model.rbegin()->first);
        ASSERT_LE(poll_high_water(), highest_ever + 1);
    }
    for (const auto& [index, owner] : model) {
        ASSERT_EQ(poll_owner(index), owner);
    }
}

TEST_P(PollSet, HoldsExactlyItsLimitAndSinksWhenASlotIsTakenAgain) {
    for (int i = 0; i < max_poll_slots; ++i) {
        ASSERT_EQ(get_poll_index(5), i);
    }
    EXPECT_EQ(get_poll_index(5), -1);
    put_poll_index(1234);
    EXPECT_EQ(get_poll_index(5), 1234);
    EXPECT_EQ(get_poll_index(5), -1);
    EXPECT_EQ(stderr_of([] { put_poll_index(32768); }),
              "Trying to free invalid poll index = 32768\n\n");
    for (int i = 10; i < max_poll_slots; ++i) {
        put_poll_index(i);
    }
    put_poll_index(3);
    EXPECT_EQ(poll_high_water(), max_poll_slots);
    for (const int foreign : {-1, -2, 3, 1000, 40000}) {
        set_poll_owner(foreign, fake_conn(1));
        set_poll_events(foreign, 5, POLLIN);
        park_poll_index(foreign);
        clear_poll_revents(foreign);
        EXPECT_EQ(poll_owner(foreign), nullptr);
        EXPECT_EQ(poll_revents(foreign), 0);
    }
    EXPECT_EQ(get_poll_index(5), 3);
    EXPECT_EQ(poll_high_water(), 10);
}

TEST_P(PollSet, ReportsReadySlotsAndSkipsParkedOnes) {
    const std::array<pipe_pair, 70> pipes;
    std::vector<int> slots;
    for (const pipe_pair& p : pipes) {
        slots.push_back(get_poll_index(p.out.get()));
    }
    EXPECT_EQ(wait_for_events(0), 0);
    for (const std::size_t i : {0U, 33U, 69U}) {
        pipes[i].feed();
    }
    park_poll_index(slots[33]);
    EXPECT_EQ(wait_for_events(1000), 2);
    EXPECT_EQ(ready_slots(), (std::set<int>{slots[0], slots[69]}));
    EXPECT_EQ(poll_revents(slots[0]), POLLIN);
    set_poll_events(slots[33], pipes[33].out.get(), POLLIN);
    set_poll_events(slots[0], pipes[0].out.get(), POLLOUT);
    EXPECT_EQ(wait_for_events(0), 2);
    EXPECT_EQ(ready_slots(), (std::set<int>{slots[33], slots[69]}));
    clear_poll_revents(slots[33]);
    put_poll_index(slots[69]);
    EXPECT_EQ(ready_slots(), std::set<int>());
    EXPECT_EQ(poll_revents(get_poll_index(5)), 0);  // the slot of 69, without its events
}

TEST_P(PollSet, ListenerPositionsAreReusedAndClosedUpToTheFirstFreeOne) {
    std::array<pipe_pair, 6> pipes;
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        set_lp_poll_position(get_poll_index(pipes[i].out.get()), fake_listener(i + 1));
    }
    EXPECT_EQ(lp_at(5).listener, fake_listener(6));
    EXPECT_EQ(lp_at(6).poll_index + lp_at(1000).poll_index, -2);
    remove_lp_poll_position(1);
    set_lp_poll_position(77, fake_listener(9));
    EXPECT_EQ(lp_at(1).listener, fake_listener(9));
    remove_lp_poll_position(4);
    remove_lp_poll_position(1000);
    clean_poll_fd_set();
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        const bool closed = fcntl(pipes[i].out.get(), F_GETFD) == -1;
        EXPECT_EQ(closed, i == 0 || i == 2 || i == 3) << i;
        if (closed) {
            (void)pipes[i].out.release();
        }
    }
    EXPECT_EQ(poll_high_water(), 0);
}

// A missed signal hangs these waits for ever.
TEST_P(PollSet, AnEndingSignalBeforeTheWaitOrBehindItsTestEndsIt) {
    init_poll_fd_set();
    signal_handler(SIGTERM);
    EXPECT_EQ(wait_for_events(-1), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(exit_flag, SIGTERM);
    exit_flag = 0;  // as it was when the wait looked
    EXPECT_EQ(wait_for_events(-1), 0);
    const pipe_pair ready;
    const int index = get_poll_index(ready.out.get());
    ready.feed();
    wake_poll_set();
    EXPECT_EQ(wait_for_events(-1), 1);  // the waking itself does not count
    EXPECT_EQ(ready_slots(), std::set<int>{index});
}

// Slots come and go, their descriptors before or after them or not at all; parked ones and those
// that want something else. Whatever happens between two waits, the next says what poll() says.
TEST_P(PollSet, AgreesWithPollOverDescriptorsThatComeAndGo) {
    struct watched {
        unique_fd ours;
        unique_fd theirs;
        short events = POLLIN;
        bool parked = false;
    };
    std::mt19937 random(7);
    std::map<int, watched> model;
    std::vector<unique_fd> left_open;  // descriptors without a slot
    const auto pick = [&] {
        return std::next(model.begin(), static_cast<std::ptrdiff_t>(random() % model.size()));
    };
    for (int round = 0; round < 1500; ++round) {
        for (auto step = random() % 6; step > 0; --step) {
            const auto action = model.size() < 3 ? 0 : random() % 8;
            if (action <= 1 && model.size() < 100) {
                auto [ours, theirs] = connected_pair();
                const int index = get_poll_index(ours.get());
                model[index] = {.ours = std::move(ours), .theirs = std::move(theirs)};
            } else if (action == 2) {
                const auto gone = pick();
                if (random() % 3 == 0) {
                    put_poll_index(gone->first);
                    left_open.push_back(std::move(gone->second.ours));
                } else if (random() % 2 == 0) {
                    put_poll_index(gone->first);
                } else {
                    gone->second.ours.reset();
                    put_poll_index(gone->first);
                }
                model.erase(gone);
            } else if (action == 3 && !left_open.empty()) {
                const int fd = left_open.back().get();  // finds a slot again
                model[get_poll_index(fd)] = {.ours = std::move(left_open.back()),
                                             .theirs = unique_fd()};
                left_open.pop_back();
            } else if (action == 4) {
                const auto changed = pick();
                changed->second.events = static_cast<short>(random() % 2 == 0 ? POLLIN : POLLOUT);
                changed->second.parked = false;
                set_poll_events(changed->first, changed->second.ours.get(), changed->second.events);
            } else if (action == 5) {
                const auto parked = pick();
                parked->second.parked = true;
                park_poll_index(parked->first);
            } else if (action == 6) {
                pick()->second.theirs.reset();
            } else if (const auto fed = pick(); fed->second.theirs) {
                (void)!send(fed->second.theirs.get(), "x", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
            }
        }
        std::map<int, short> expected;
        for (const auto& [index, slot] : model) {
            pollfd entry = {.fd = slot.ours.get(), .events = slot.events, .revents = 0};
            if (!slot.parked && poll(&entry, 1, 0) > 0) {
                expected[index] = entry.revents;
            }
        }
        std::map<int, short> returned;
        ASSERT_EQ(wait_for_events(0), static_cast<int>(expected.size())) << round;
        for (const int index : ready_slots()) {
            returned[index] = poll_revents(index);
        }
        ASSERT_EQ(returned, expected) << round;
    }
    EXPECT_EQ(current_wait_source(), GetParam());
}

// The kernel goes on reporting a closed descriptor whose duplicate is open, unless it was told.
TEST_P(PollSet, WhatLivesOnElsewhereEndsOneWaitAtMost) {
    const pipe_pair other;
    const int kept = get_poll_index(other.out.get());
    for (const bool unwatched : {false, true}) {
        const pipe_pair shared;
        unique_fd duplicate(dup(shared.out.get()));
        const int index = get_poll_index(duplicate.get());
        shared.feed();
        EXPECT_EQ(wait_for_events(0), 1);
        if (unwatched) {
            unwatch_poll_index(index);
        }
        duplicate.reset();
        put_poll_index(index);
        EXPECT_EQ(unwatched ? 0 : wait_for_events(0), 0);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(wait_for_events(50), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(45));
    }
    other.feed();
    EXPECT_EQ(wait_for_events(-1), 1);
    EXPECT_EQ(ready_slots(), std::set<int>{kept});
}

TEST_P(PollSet, WhatCannotBeWaitedForIsReadyAtOnce) {
    const unique_fd file(open("/proc/self/exe", O_RDONLY));
    const int index = get_poll_index(file.get());
    const int closed = get_poll_index(1000000);
    EXPECT_EQ(wait_for_events(-1), 2);
    EXPECT_EQ(poll_revents(index), POLLIN);
    EXPECT_EQ(poll_revents(closed), POLLNVAL);
    put_poll_index(closed);
    set_poll_events(index, file.get(), POLLIN | POLLOUT);
    EXPECT_EQ(wait_for_events(-1), 1);
    EXPECT_EQ(poll_revents(index), POLLIN | POLLOUT);
    set_poll_events(index, file.get(), 0);
    EXPECT_EQ(wait_for_events(0), 0);
    set_poll_events(index, file.get(), POLLIN);
    park_poll_index(index);
    EXPECT_EQ(wait_for_events(0), 0);
    const pipe_pair ready;
    set_poll_events(index, ready.out.get(), POLLIN);
    EXPECT_EQ(wait_for_events(0), 0);
    ready.feed();
    EXPECT_EQ(wait_for_events(-1), 1);
    EXPECT_EQ(current_wait_source(), GetParam());
}

TEST_P(PollSet, WaitsWithPollWhereEpollCannotBeMade) {
    const std::string said = stderr_of([] {
        const lowered_limit one_more(RLIMIT_NOFILE, next_descriptor() + 1);  // for waking
        init_poll_fd_set();
    });
    EXPECT_EQ(said == "epoll: Too many open files, waiting with poll\n",
              GetParam() == wait_source::epoll);
    EXPECT_EQ(current_wait_source(), wait_source::poll);
    const pipe_pair ready;
    const int index = get_poll_index(ready.out.get());
    ready.feed();
    EXPECT_EQ(wait_for_events(-1), 1);
    EXPECT_EQ(poll_revents(index), POLLIN);
}

TEST_P(PollSet, AWaitThatTheKernelRefusesIsLoggedOnce) {
    if (GetParam() == wait_source::epoll) {
        GTEST_SKIP() << "it has no limit that a test could lower";
    }
    for (int i = 0; i < 64; ++i) {
        (void)get_poll_index(0);
    }
    const std::string said = stderr_of([] {
        const lowered_limit tiny(RLIMIT_NOFILE, 40);
        EXPECT_EQ(wait_for_events(0), -1);
        EXPECT_EQ(wait_for_events(0), -1);
    });
    EXPECT_GE(wait_for_events(0), 0);
    EXPECT_EQ(said, "poll of 64 descriptors failed: Invalid argument\n");
}

}  // namespace
