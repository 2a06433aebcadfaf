// Proves the look-ups of names against name servers that the test plays: what is remembered, what
// is bounded, who is visited.
#include "core/resolver.h"

#include <netdb.h>

#include <atomic>

#include "core/background.h"
#include "core/endpoint.h"
#include "tests/support/engine_fixture.h"

namespace {

// Name servers that know some names, or stay silent. The thread may outlive a test.
std::atomic<bool> silent = false;
std::atomic<int> asked = 0;

void wait_while_silent() {
    ++asked;
    while (silent) {
        std::this_thread::yield();
    }
}

host_address host_of(const char* text) {
    const sockaddr_storage found = address_of(text);
    host_address address{};
    std::memcpy(&address, &found, sizeof address);
    return address;
}

class Resolver : public testing::Test {
  protected:
    Resolver() {
        silent = false;
        asked = 0;
        refresh_clocks();
        set_resolver_backend({
            .addresses =
                [](const std::string& host) {
                    wait_while_silent();
                    name_answer answer;
                    if (host.starts_with("good")) {
                        answer.addresses = {host_of("192.0.2.7")};
                    } else {
                        answer.code = EAI_NONAME;
                    }
                    return answer;
                },
            .name =
                [](const host_address& address) {
                    wait_while_silent();
                    const bool v6 = address.any.sa_family == AF_INET6;
                    return name_answer{
                        .code = 0, .name = v6 ? "six.test" : "peer.test", .addresses = {}};
                },
            .name_servers = [] { return 1; },
        });
    }
    ~Resolver() override {
        silent = false;
        resolver_fini();
    }

    static name_answer wait_for(const lookup_ptr& lookup) {
        while (!lookup_done(lookup.get())) {
            finish_background_jobs();
        }
        return *lookup_answer(lookup.get());
    }
    static name_answer find_host(const char* host) {
        return wait_for(lookup_ptr(look_up_addresses(host, nullptr)));
    }
    static std::string find_name(const char* address) {
        const host_address known = host_of(address);
        return wait_for(lookup_ptr(look_up_name(&known.any, known.length(), nullptr))).name;
    }
};

// First, while the C library keeps no stack of an earlier thread.
TEST_F(Resolver, WithoutAThreadThereIsNoName) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer needs more address space than this test leaves";
#endif
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    {
        const lowered_limit tight(RLIMIT_AS, pages * 4096 + (1U << 20));
        const lookup_ptr lookup(look_up_addresses("good.test", nullptr));
        ASSERT_TRUE(lookup_done(lookup.get()));
        EXPECT_EQ(lookup_answer(lookup.get())->code, EAI_AGAIN);
    }
    EXPECT_EQ(find_host("good.test").code, 0) << "nor is that remembered";
}

TEST_F(Resolver, AnswersAreRememberedForAWhile) {
    const struct {
        int seconds;  // since the step before
        const char* address;
        const char* name;  // in place of an address: the host that is looked for
        int asked;         // so far
    } steps[] = {
        {0, "192.0.2.1", "peer.test", 1},   {0, "::ffff:192.0.2.1", "peer.test", 1},
        {299, "192.0.2.1", "peer.test", 1}, {1, "192.0.2.1", "peer.test", 2},
        {0, "2001:db8::1", "six.test", 3},  {0, nullptr, "good.test", 4},
        {0, nullptr, "GOOD.Test", 4},       {0, nullptr, "bad.test", 5},
        {59, nullptr, "bad.test", 5},       {1, nullptr, "bad.test", 6},
    };
    for (const auto& s : steps) {
        monotonic_seconds += s.seconds;
        if (s.address != nullptr) {
            EXPECT_EQ(find_name(s.address), s.name) << s.asked;
        } else {
            EXPECT_EQ(find_host(s.name).code, *s.name == 'b' ? EAI_NONAME : 0) << s.asked;
        }
        EXPECT_EQ(asked, s.asked);
    }
    // A bounded number: the one that is too many displaces the others.
    for (int i = 0; i < 257; ++i) {
        EXPECT_EQ(find_host(("good" + std::to_string(i)).c_str()).code, 0);
    }
    asked = 0;
    EXPECT_EQ(find_host("good256").code + find_host("good0").code, 0);
    EXPECT_EQ(asked, 1);
}

TEST_F(Resolver, WhatNeedsNoServerAsksNone) {
    struct row {
        const char* host;
        std::size_t addresses;
    };
    for (const row& r : {row{"192.0.2.9", 1}, row{"2001:db8::2", 1}, row{"", 0}}) {
        const lookup_ptr lookup(look_up_addresses(r.host, nullptr));
        ASSERT_TRUE(lookup_done(lookup.get())) << r.host;
        EXPECT_EQ(lookup_answer(lookup.get())->addresses.size(), r.addresses) << r.host;
    }
    const lookup_ptr cut(look_up_addresses(std::string_view("good\0.test", 10), nullptr));
    EXPECT_EQ(lookup_answer(cut.get())->code, EAI_NONAME);
    host_address address = host_of("2001:db8::2");
    address.set_port(8080);
    EXPECT_EQ(ntohs(address.v6.sin6_port), 8080);
    EXPECT_EQ(asked, 0);
}

TEST_F(Resolver, ASilentServerIsAskedOnceAndThenLeftAlone) {
    EXPECT_EQ(find_host("good.known").code, 0);
    silent = true;
    const lookup_ptr first(look_up_addresses("good.late", nullptr));
    const lookup_ptr second(look_up_addresses("good.queued", nullptr));
    const lookup_ptr given_up(look_up_addresses("good.unwanted", nullptr));
    EXPECT_FALSE(lookup_done(first.get()));
    EXPECT_EQ(wait_for(first).code, EAI_AGAIN);
    EXPECT_EQ(wait_for(second).code, EAI_AGAIN);
    // Nobody else waits now, not even for the queue.
    for (const char* host : {"good.other", "good.another"}) {
        const lookup_ptr lookup(look_up_addresses(host, nullptr));
        ASSERT_TRUE(lookup_done(lookup.get()));
        EXPECT_EQ(lookup_answer(lookup.get())->code, EAI_AGAIN);
    }
    EXPECT_EQ(find_name("192.0.2.1"), "");
    EXPECT_EQ(find_host("good.known").code, 0);
    EXPECT_EQ(find_host("localhost").addresses.size(), 2U);
    EXPECT_EQ(asked, 2) << "the known one and the first";
    EXPECT_EQ(find_host("good.late").code, EAI_AGAIN) << "a failure is remembered";
    silent = false;
    while (find_host("good.late").code != 0) {
        finish_background_jobs();  // until the late answer has come
    }
    EXPECT_EQ(find_host("good.queued").code, EAI_AGAIN) << "what nobody waited for was not asked";
}

TEST_F(Resolver, ManyWhoAskAndGoLeaveNothing) {
    silent = true;
    std::vector<lookup_ptr> lookups;
    for (int i = 0; i < 500; ++i) {
        lookups.emplace_back(look_up_addresses("good" + std::to_string(i % 50), nullptr));
    }
    for (std::size_t i = 0; i < lookups.size(); i += 2) {
        lookups[i].reset();
    }
    silent = false;
    int found = 0;
    for (const lookup_ptr& lookup : lookups) {
        found += lookup != nullptr && wait_for(lookup).code == 0 ? 1 : 0;
    }
    EXPECT_EQ(found, 250);
    EXPECT_LE(asked, 51) << "who asks for the same shares the answer";
}

// An endpoint that answers with the number of addresses of its query's host.
void count_addresses(shttpd_call_arg* arg) {
    struct wait : endpoint_wait {
        lookup_ptr lookup;
    };
    std::unique_ptr<wait> asking;
    const wait* kept = waiting_for<wait>(arg);
    if (kept == nullptr) {
        asking = std::make_unique<wait>();
        asking->lookup.reset(look_up_addresses(query_text(arg), arg->connection));
        kept = asking.get();
    }
    const name_answer* answer = lookup_answer(kept->lookup.get());
    if (answer == nullptr) {
        not_yet(arg, std::move(asking));
        return;
    }
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n%zu", answer->addresses.size());
}

TEST_F(Resolver, TheAskerIsVisitedWhenItsAnswerIsThereOrItsTimeIsOver) {
    static constexpr endpoint row = {"/count", endpoint_method::any, endpoint_body::ignored,
                                     count_addresses};
    test_engine engine;
    register_endpoints(engine.ctx, {&row, 1});
    for (const bool answers : {true, false}) {
        silent = true;
        const unique_fd client = engine.connect();
        const std::string uri = answers ? "/count?good.one" : "/count?good.two";
        EXPECT_EQ(engine.exchange_on(client, get(uri), 20), "");
        silent = !answers;
        std::string reply;
        // Waits that only the thread or the deadline can end.
        for (int pass = 0; pass < 4 && reply.empty(); ++pass) {
            shttpd_poll(engine.ctx, 60000);
            reply = engine.exchange_on(client, "", 1);
        }
        EXPECT_EQ(body_of(reply), answers ? "1" : "0");
    }
    // A client that leaves withdraws its question.
    silent = true;
    resolver_fini();
    (void)engine.exchange(get("/count?good.three"), 20);
    while (shttpd_active(engine.ctx) > 0) {
        engine.poll();
    }
}

}  // namespace
