#include "core/background.h"

#include <poll.h>

#include <atomic>

#include "core/endpoint.h"
#include "core/poll_set.h"
#include "tests/support/engine_fixture.h"

namespace {

struct test_job : background_job {
    std::function<void()> on_thread;
    std::function<void()> on_loop;
    test_job(std::function<void()> first, std::function<void()> then)
        : on_thread(std::move(first)), on_loop(std::move(then)) {}
    void run() override { on_thread(); }
    void finish() override { on_loop(); }
};

std::unique_ptr<background_job> job(std::function<void()> first, std::function<void()> then) {
    return std::make_unique<test_job>(std::move(first), std::move(then));
}

TEST(Background, JobsRunInOrderOnAnotherThreadAndFinishOnThisOne) {
    const auto loop_thread = std::this_thread::get_id();
    background_thread thread;
    std::vector<int> ran;
    std::vector<int> finished;
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(thread.submit(job(
            [&, i] {
                EXPECT_NE(std::this_thread::get_id(), loop_thread);
                ran.push_back(i);
            },
            [&, i] {
                EXPECT_EQ(std::this_thread::get_id(), loop_thread);
                finished.push_back(i);
                if (i == 150) {  // a result may ask for more work, and is waited for
                    ASSERT_TRUE(thread.submit(job([] {}, [&] { finished.push_back(1000); })));
                }
            })));
        thread.collect();
    }
    thread.drain();
    ASSERT_EQ(ran.size(), 200U);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
    EXPECT_EQ(std::erase(finished, 1000), 1U);
    EXPECT_EQ(finished, ran);
}

TEST(Background, AnAbandonedThreadFinishesNothing) {
    auto released = std::make_shared<std::atomic<bool>>(false);
    auto ended = std::make_shared<std::atomic<int>>(0);
    auto begun = std::make_shared<std::atomic<bool>>(false);
    bool finished = false;
    {
        background_thread thread;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(thread.submit(job(
                [=] {
                    *begun = true;
                    while (!*released) {
                        std::this_thread::yield();
                    }
                    ++*ended;
                },
                [&] { finished = true; })));
        }
        while (!*begun) {
            std::this_thread::yield();
        }
    }
    *released = true;
    while (*ended == 0) {
        std::this_thread::yield();
    }
    finish_background_jobs();
    EXPECT_FALSE(finished);
    EXPECT_EQ(*ended, 1) << "what had not begun is dropped";
}

// An endpoint whose answer is made by a background thread.
struct slow_answer {
    background_thread thread;
    std::atomic<bool> may_go = false;
    conn* waiter = nullptr;
    bool ready = false;
    int calls = 0;
    int farewells = 0;

    static void answer(shttpd_call_arg* arg) {
        auto* self = static_cast<slow_answer*>(arg->user_data);
        ++self->calls;
        if ((arg->flags & ARG_CONNECTION_ERROR) != 0) {
            ++self->farewells;
            self->waiter = nullptr;
            return;
        }
        if (self->ready) {
            show_success(arg);
            return;
        }
        if (self->waiter == nullptr) {
            self->waiter = arg->connection;
            ASSERT_TRUE(self->thread.submit(job(
                [self] {
                    while (!self->may_go) {
                        std::this_thread::yield();
                    }
                },
                [self] {
                    self->ready = true;
                    if (self->waiter != nullptr) {
                        visit_soon(self->waiter);
                    }
                })));
        }
        hold_reply(arg);
    }
};

TEST(Background, AHeldReplyIsNotCalledAgainBeforeItsResultAndEndsTheWait) {
    test_engine engine;
    slow_answer slow;
    shttpd_register_uri(engine.ctx, "/slow", slow_answer::answer, &slow);
    const unique_fd client = engine.connect();
    EXPECT_EQ(engine.exchange_on(client, get("/slow"), 20), "");
    EXPECT_EQ(slow.calls, 1);
    slow.may_go = true;
    shttpd_poll(engine.ctx, 60000);  // the result ends this wait
    EXPECT_TRUE(contains(engine.exchange_on(client, "", 20), "Success"));
    EXPECT_EQ(slow.calls, 2);
}

TEST(Background, AClientThatGoesWhileItsReplyIsHeldLeavesNothingToVisit) {
    test_engine engine;
    slow_answer slow;
    shttpd_register_uri(engine.ctx, "/slow", slow_answer::answer, &slow);
    {
        const unique_fd client = engine.connect();
        EXPECT_EQ(engine.exchange_on(client, get("/slow"), 20), "");
        // The visit that is asked for meets a connection that dies in the same pass.
        visit_soon(slow.waiter);
    }
    while (slow.farewells == 0) {
        engine.poll();
    }
    slow.may_go = true;
    slow.thread.drain();
    engine.poll();
    EXPECT_TRUE(slow.ready);
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

}  // namespace
