// An engine whose handlers talk to other processes or sockets: its tests wait for events instead
// of counting passes.
#pragma once

#include <chrono>

#include "core/pass_work.h"
#include "tests/support/engine_fixture.h"

class relay_fixture : public ::testing::Test {
  protected:
    relay_fixture() { std::signal(SIGCHLD, SIG_IGN); }  // children leave no zombies
    ~relay_fixture() override { std::signal(SIGCHLD, SIG_DFL); }

    // Sends the bytes and returns what comes back until the engine closes, until `enough` has come,
    // or for 20 seconds. `meanwhile` runs after every pass.
    std::string talk_on(const unique_fd& client, std::string_view bytes,
                        std::string_view enough = {}, const std::function<void()>& meanwhile = {}) {
        using clock = std::chrono::steady_clock;
        std::string reply;
        const int fd = client.get();
        for (const auto end = clock::now() + std::chrono::seconds(20); clock::now() < end;) {
            const ssize_t sent =
                bytes.empty() ? 0
                              : send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
            shttpd_poll(engine.ctx, sent > 0 ? 0 : 10);
            if (meanwhile) {
                meanwhile();
            }
            char buffer[65536];
            const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got > 0) {
                reply.append(buffer, static_cast<std::size_t>(got));
            }
            if (got == 0 || (got < 0 && errno != EAGAIN) ||
                (!enough.empty() && reply.size() >= enough.size())) {
                return reply;
            }
        }
        ADD_FAILURE() << "no end after 20 seconds; so far: " << reply.substr(0, 500);
        return reply;
    }
    std::string talk(std::string_view bytes, const std::function<void()>& meanwhile = {}) {
        const unique_fd client = engine.connect();
        return talk_on(client, bytes, {}, meanwhile);
    }
    // Sends a request on a new connection that has room for little of the reply.
    conn* begin_stalled(const unique_fd& client, std::string_view request) {
        conn* c = engine.ctx->connections.first();
        const int small = 4096;
        EXPECT_EQ(setsockopt(c->remote.channel.fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
        engine.say(client, request);
        return c;
    }
    void passes(int count) {
        for (int i = 0; i < count; ++i) {
            shttpd_poll(engine.ctx, 10);
        }
    }

    // One pass in which a client older than all others takes the time for starts of programs. How
    // many connections wait for a turn behind it.
    int pass_without_starts(const unique_fd& oldest) {
        shttpd_register_uri(
            engine.ctx, "/spend",
            [](shttpd_call_arg* arg) {
                const pass_work_timer time(pass_work::starts);
                usleep(11000);
                arg->flags |= ARG_END_OF_OUTPUT;
            },
            nullptr);
        engine.say(oldest, get("/spend"));
        shttpd_poll(engine.ctx, 0);
        int waiting = 0;
        for (const conn& c : engine.ctx->connections) {
            waiting += waits_for_turn(&c, pass_work::starts) ? 1 : 0;
        }
        return waiting;
    }

    test_engine engine{true};
};
