// The connection to a proxy target, driven state by state: whatever happens in one, nothing waits,
// nothing is left behind, and the failure says why.

#include "handlers/target.h"

#include <netdb.h>

#include <atomic>

#include "core/background.h"
#include "core/poll_set.h"
#include "tests/handlers/relay_fixture.h"
#include "tests/security/fake_library.h"

namespace {

// What connecting comes to, address by address; the last one repeats.
enum class path : std::uint8_t { open, refused, no_descriptor, black_hole };

struct {
    std::vector<path> paths;
    int attempts = 0;
    unique_fd peer;                     // the other end of an open path
    loopback_listener* hole = nullptr;  // with a full queue: drops further connection requests
} net;

int connect_by_hand(const sockaddr*, socklen_t) {
    const auto at =
        std::min<std::size_t>(static_cast<std::size_t>(net.attempts++), net.paths.size() - 1);
    switch (net.paths[at]) {
        case path::open: {
            auto [ours, theirs] = connected_pair(SOCK_NONBLOCK);
            net.peer = std::move(theirs);
            return ours.release();
        }
        case path::refused:
            errno = ECONNREFUSED;
            return -1;
        case path::no_descriptor:
            errno = EMFILE;
            return -1;
        case path::black_hole:
            break;
    }
    unique_fd fd = net.hole->client(SOCK_NONBLOCK);
    EXPECT_EQ(errno, EINPROGRESS);
    return fd.release();
}

std::atomic<bool> names_are_silent = false;
std::atomic<int> addresses_known = 1;

name_answer addresses_by_hand(const std::string&) {
    while (names_are_silent) {
        std::this_thread::yield();
    }
    name_answer answer;
    host_address loopback{};
    loopback.v4.sin_family = AF_INET;
    loopback.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    answer.addresses.assign(static_cast<std::size_t>(addresses_known), loopback);
    answer.code = addresses_known == 0 ? EAI_NONAME : 0;
    return answer;
}

class target_states : public relay_fixture {
  protected:
    target_states() {
        resolver_fini();
        set_resolver_backend({.addresses = addresses_by_hand,
                              .name = [](const host_address&) { return name_answer(); },
                              .name_servers = [] { return 1; }});
        set_target_connector(connect_by_hand);
        net.paths = {path::open};
        net.attempts = 0;
        addresses_known = 1;
        fake = fake_library();
        for (int i = 0; i < 4; ++i) {
            fillers.push_back(hole.client(SOCK_NONBLOCK));
        }
        net.hole = &hole;
        client = engine.connect();
        shttpd_poll(engine.ctx, 0);
        c = engine.ctx->connections.first();
        descriptors = descriptors_in_use();
    }
    ~target_states() override {
        names_are_silent = false;
        c->target.reset();
        set_target_connector(nullptr);
        resolver_fini();
    }
    target& begin(const char* host, bool secure = false, std::int64_t limit_ms = 30000) {
        c->target.reset(new target(c, host, 80, secure, monotonic_ms() + limit_ms));
        return *c->target;
    }
    // Lets time and the resolver go on until the state is left.
    target_state leave(target_state state) {
        while (c->target->advance() == state) {
            std::this_thread::yield();
            finish_background_jobs();
        }
        return c->target->state;
    }
    void expect_nothing_left() {
        net.peer.reset();
        EXPECT_EQ(c->target->slot, -1);
        EXPECT_EQ(c->target->channel, nullptr);
        EXPECT_EQ(descriptors_in_use(), descriptors);
    }

    loopback_listener hole{0};
    std::vector<unique_fd> fillers;
    unique_fd client;
    conn* c = nullptr;
    std::ptrdiff_t descriptors = 0;
};

TEST_F(target_states, names_lead_to_addresses_or_to_a_reason) {
    EXPECT_EQ(begin("127.0.0.1").state, target_state::ready) << "a number need not be asked for";
    EXPECT_EQ(begin("good").state, target_state::looking_up);
    EXPECT_EQ(leave(target_state::looking_up), target_state::ready);
    addresses_known = 0;
    (void)begin("bad");
    EXPECT_EQ(leave(target_state::looking_up), target_state::failed);
    EXPECT_EQ(c->target->failure, gai_strerror(EAI_NONAME));
    for (const std::string& host : {std::string(256, 'h'), std::string()}) {
        EXPECT_EQ(begin(host.c_str()).state, target_state::failed);
    }
    names_are_silent = true;
    (void)begin("silent", false, 20);
    EXPECT_EQ(c->target->state, target_state::looking_up);
    EXPECT_EQ(leave(target_state::looking_up), target_state::failed);
    EXPECT_EQ(c->target->failure, "no answer within 4 seconds");
    expect_nothing_left();
}

TEST_F(target_states, every_address_is_tried_until_the_time_is_over) {
    net.paths = {path::refused, path::no_descriptor, path::open};
    addresses_known = 3;
    (void)begin("third");
    EXPECT_EQ(leave(target_state::looking_up), target_state::ready);
    // One that swallows packets leaves time for the others.
    net.attempts = 0;
    net.paths = {path::black_hole, path::open};
    (void)begin("second", false, 200);
    (void)leave(target_state::looking_up);
    EXPECT_EQ(leave(target_state::connecting), target_state::ready);
    EXPECT_EQ(net.attempts, 2);
    net.paths = {path::black_hole};
    (void)begin("127.0.0.1", false, 50);
    EXPECT_EQ(c->target->state, target_state::connecting);
    EXPECT_EQ(leave(target_state::connecting), target_state::failed);
    expect_nothing_left();
    for (const auto& [way, why] :
         {std::pair(path::refused, ECONNREFUSED), std::pair(path::no_descriptor, EMFILE)}) {
        net.paths = {way};
        net.attempts = 0;
        addresses_known = 5000;
        (void)begin(way == path::refused ? "thousands" : "exhausted");
        EXPECT_EQ(leave(target_state::looking_up), target_state::failed);
        EXPECT_EQ(c->target->failure, strerror(why));
        EXPECT_GT(net.attempts, 100);
        expect_nothing_left();
    }
    // Without a slot of the poll set there is nothing to wait with.
    net.paths = {path::black_hole};
    addresses_known = 2;
    std::vector<int> slots;
    for (int slot = get_poll_index(0); slot >= 0; slot = get_poll_index(0)) {
        slots.push_back(slot);
    }
    (void)begin("crowded");
    EXPECT_EQ(leave(target_state::looking_up), target_state::failed);
    EXPECT_EQ(c->target->failure, strerror(EMFILE));
    expect_nothing_left();
    std::for_each(slots.begin(), slots.end(), put_poll_index);
}

TEST_F(target_states, channel_is_set_up_in_steps_or_not_at_all) {
    fake.connects = {at_again, at_again, at_ok};
    EXPECT_EQ(begin("127.0.0.1", true).state, target_state::securing);
    EXPECT_EQ(c->target->advance(), target_state::securing);
    EXPECT_EQ(c->target->advance(), target_state::ready);
    EXPECT_NE(c->target->channel, nullptr);
    fake.connects = {at_channel_failed};
    EXPECT_EQ(begin("127.0.0.1", true).state, target_state::failed);
    expect_nothing_left();
    fake.connects.assign(1000000, at_again);
    (void)begin("127.0.0.1", true, 20);
    EXPECT_EQ(leave(target_state::securing), target_state::failed);
    expect_nothing_left();
}

TEST_F(target_states, kept_one_serves_again_only_while_it_is_silent_and_the_same) {
    target& kept = begin("127.0.0.1");
    EXPECT_FALSE(kept.serves("127.0.0.1", 80, false)) << "it serves somebody";
    kept.keep();
    EXPECT_TRUE(kept.serves("127.0.0.1", 80, false));
    EXPECT_FALSE(kept.serves("127.0.0.2", 80, false));
    EXPECT_FALSE(kept.serves("127.0.0.1", 81, false));
    EXPECT_FALSE(kept.serves("127.0.0.1", 80, true));
    EXPECT_EQ(send(net.peer.get(), "x", 1, 0), 1);
    EXPECT_FALSE(kept.serves("127.0.0.1", 80, false)) << "a stray byte";
    begin("127.0.0.1").keep();
    net.peer.reset();
    EXPECT_FALSE(c->target->serves("127.0.0.1", 80, false)) << "closed";
    // The next pass ends it.
    passes(1);
    EXPECT_EQ(c->target, nullptr);
}

// The client goes while its target is in each of the states.
TEST_F(target_states, client_that_leaves_takes_its_target_along) {
    client.reset();
    passes(3);
    const std::ptrdiff_t before = descriptors_in_use();
    names_are_silent = true;
    const struct {
        const char* host;
        std::vector<path> paths;
        target_state state;
    } rows[] = {{"unknown", {path::open}, target_state::looking_up},
                {"127.0.0.1", {path::black_hole}, target_state::connecting},
                {"127.0.0.1", {path::open}, target_state::securing}};
    for (const auto& row : rows) {
        net.paths = row.paths;
        fake.connects.assign(1000, at_again);
        client = engine.connect();
        engine.say(client, get("/https://" + std::string(row.host) + "/x"));
        passes(3);
        c = engine.ctx->connections.first();
        ASSERT_NE(c->target, nullptr);
        EXPECT_EQ(c->target->state, row.state);
        client.reset();
        passes(3);
        EXPECT_EQ(engine.ctx->connections.first(), nullptr);
        net.peer.reset();
        EXPECT_EQ(descriptors_in_use(), before);
    }
    client = engine.connect();
    passes(1);
    c = engine.ctx->connections.first();
}

}  // namespace
