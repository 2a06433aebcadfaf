#include "security/io_molbat.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>
#include <string>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/io_class.h"
#include "tests/security/fake_library.h"

namespace {

class molbat : public testing::Test {
  protected:
    molbat() {
        fake = fake_library();
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
        ctx.service_credential = &service;
        c.ctx = &ctx;
        c.remote.connection = &c;
        c.remote.channel.fd = ends[0];
        c.handshake = handshake_state::pending;
    }
    ~molbat() override {
        (void)close(ends[1]);
        if (c.remote.channel.fd >= 0) {
            (void)close(ends[0]);
        }
        fake = fake_library();
    }

    ssize_t read() {
        errno = 0;
        return io_molbat.read(&c.remote, buffer.data(), buffer.size());
    }
    ssize_t write() {
        errno = 0;
        return io_molbat.write(&c.remote, buffer.data(), buffer.size());
    }

    std::array<int, 2> ends{};
    std::array<char, 100> buffer{};
    shttpd_ctx ctx;
    conn c;
    int service = 0;
    int client = 0;
};

TEST_F(molbat, an_unfinished_handshake_is_tried_by_every_read) {
    fake.handshakes = {at_again, at_again, at_ok};
    molbat_handshake(&c.remote);
    EXPECT_EQ(c.handshake, handshake_state::pending);
    EXPECT_FALSE(c.remote_pending) << "nothing to do before the client sends more";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    fake.accept_credential = &client;
    fake.counts = {7};
    EXPECT_EQ(read(), 7) << "the read goes on where the handshake ends";
    EXPECT_EQ(c.handshake, handshake_state::done);
    EXPECT_TRUE(c.remote.has(sf_handshake_done));
    EXPECT_EQ(c.client_credential, &client);
    EXPECT_EQ(fake.server_credential, &service);
    EXPECT_EQ(fake.accept_params, &ctx.accept_params);
    EXPECT_EQ(fake.accept_mode, 4U);
    EXPECT_EQ(fake.accept_flags, 1U);
    fake.handshakes = {at_channel_failed};
    molbat_handshake(&c.remote);
    EXPECT_EQ(c.handshake, handshake_state::done) << "a finished handshake is not repeated";
}

TEST_F(molbat, the_outcome_of_a_handshake_shows_at_the_next_read) {
    fake.accept_credential = &client;
    for (const std::uint32_t result : {at_no_credential, at_channel_failed, at_not_available}) {
        c.handshake = handshake_state::pending;
        c.remote_pending = false;
        fake.handshakes = {result};
        molbat_handshake(&c.remote);
        EXPECT_TRUE(c.remote_pending) << "a request may have come with the handshake";
        EXPECT_FALSE(c.remote.has(sf_closed));
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, result == at_no_credential ? EAGAIN : EPROTO);
        if (result == at_no_credential) {
            EXPECT_EQ(c.client_credential, nullptr);
            EXPECT_EQ(fake.times_freed(&client), 1);
        }
    }
}

TEST_F(molbat, a_channel_that_cannot_move_bytes_is_not_used) {
    for (const char* missing :
         {"molbAtSecConnRead", "molbAtSecConnWrite", "molbAtSecConnClose", "channel"}) {
        for (const std::uint32_t result : {at_ok, at_no_credential}) {
            c.handshake = handshake_state::pending;
            fake.lacking = {missing};
            fake.channel = missing == std::string("channel") ? nullptr : &fake;
            fake.handshakes = {result};
            EXPECT_EQ(read(), -1);
            EXPECT_EQ(errno, EPROTO);
            EXPECT_FALSE(c.remote.has(sf_handshake_done));
        }
    }
}

TEST_F(molbat, only_counts_reach_the_engine) {
    c.handshake = handshake_state::done;
    struct row {
        std::int32_t answer;
        ssize_t result;
        bool pending;
    };
    const std::vector<row> rows = {
        {100, 100, true}, {99, 99, false},
        {1, 1, false},    {0, 0, false},
        {101, -1, false}, {static_cast<std::int32_t>(at_not_available), -1, false},
        {-2, -1, false},  {std::numeric_limits<std::int32_t>::min(), -1, false},
    };
    for (const row& r : rows) {
        fake.counts = {r.answer, r.answer};
        c.remote_pending = !r.pending;
        EXPECT_EQ(read(), r.result) << r.answer;
        EXPECT_EQ(c.remote_pending, r.pending) << r.answer;
        EXPECT_EQ(errno, r.result < 0 ? EIO : 0);
        EXPECT_EQ(write(), r.result) << r.answer;
        EXPECT_EQ(errno, r.result < 0 ? EIO : 0);
    }
    c.remote_pending = true;
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(c.remote_pending) << "emptied";
    fake.counts = {-1};
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EIO) << "a failure without a reason must not look like a wait";
}

TEST_F(molbat, closing_releases_channel_credential_and_socket_once) {
    fake.handshakes = {at_ok};
    fake.accept_credential = &client;
    molbat_handshake(&c.remote);
    for (int i = 0; i < 2; i++) {
        io_molbat.close(&c.remote);
        EXPECT_EQ(fake.closes, 1);
        EXPECT_EQ(fake.times_freed(&client), 1);
        EXPECT_EQ(fake.times_freed(&service), 0) << "the service's own credential stays";
        EXPECT_EQ(c.client_credential, nullptr);
        EXPECT_EQ(c.server_credential, nullptr);
        EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    }
}

}  // namespace
