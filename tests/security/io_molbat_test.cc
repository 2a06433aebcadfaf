#include "security/io_molbat.h"

#include "core/connection.h"
#include "core/context.h"
#include "core/io_class.h"
#include "tests/security/fake_library.h"

namespace {

class molbat : public testing::Test {
  protected:
    molbat() {
        fake = fake_library();
        fake.accept_credential = &client;
        ctx.service_credential = &service;
        c.ctx = &ctx;
        c.remote.connection = &c;
        c.remote.channel.fd = -1;
        c.client.handshake = handshake_state::pending;
    }
    ~molbat() override { fake = fake_library(); }

    ssize_t read() {
        errno = 0;
        return io_molbat.read(&c.remote, buffer.data(), buffer.size());
    }

    std::array<char, 100> buffer{};
    shttpd_ctx ctx;
    conn c;
    int service = 0;
    int client = 0;
};

TEST_F(molbat, an_unfinished_handshake_is_tried_by_every_read) {
    fake.handshakes = {at_again, at_again, at_ok, at_channel_failed};
    molbat_handshake(&c.remote);
    EXPECT_EQ(c.client.handshake, handshake_state::pending);
    EXPECT_FALSE(c.client.may_hold_bytes) << "nothing to do before the client sends more";
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    fake.counts = {7};
    EXPECT_EQ(read(), 7) << "the read goes on where the handshake ends";
    EXPECT_EQ(c.client_credential, &client);
    EXPECT_EQ(fake.server_credential, &service);
    EXPECT_EQ(fake.accept_params, &ctx.accept_params);
    EXPECT_EQ(fake.accept_mode, 4U);
    EXPECT_EQ(fake.accept_flags, 1U);
    molbat_handshake(&c.remote);
    EXPECT_EQ(c.client.handshake, handshake_state::done) << "a finished handshake is not repeated";
    const int fd = c.remote.channel.fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    fake.freed.clear();
    io_molbat.close(&c.remote);
    EXPECT_EQ(fake.freed, (std::vector<const void*>{fake.channel, &client}));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(molbat, the_outcome_of_a_handshake_shows_at_the_next_read) {
    const struct {
        std::uint32_t result;
        const char* missing;  // an entry point of the library, or the channel
        int error;            // of the read
    } rows[] = {
        {at_no_credential, "", EAGAIN},
        {at_channel_failed, "", EPROTO},
        {at_not_available, "", EPROTO},
        {at_ok, "molbAtSecConnRead", EPROTO},
        {at_no_credential, "molbAtSecConnWrite", EPROTO},
        {at_ok, "molbAtSecConnClose", EPROTO},
        {at_ok, "channel", EPROTO},
    };
    for (const auto& r : rows) {
        c.client.handshake = handshake_state::pending;
        c.client.may_hold_bytes = false;
        fake.handshakes = {r.result};
        fake.lacking = {r.missing};
        fake.channel = r.missing == std::string("channel") ? nullptr : &fake;
        molbat_handshake(&c.remote);
        EXPECT_TRUE(c.client.may_hold_bytes) << "a request may have come with the handshake";
        EXPECT_FALSE(c.remote.has(sf_closed));
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(errno, r.error) << r.result << r.missing;
        if (r.result == at_no_credential) {
            EXPECT_EQ(c.client_credential, nullptr);
            EXPECT_EQ(fake.freed.back(), &client);
        }
    }
}

TEST_F(molbat, only_counts_reach_the_engine) {
    c.client.handshake = handshake_state::done;
    const struct {
        std::int32_t answer;
        ssize_t result;
        bool pending;
    } rows[] = {
        {100, 100, true}, {99, 99, false},
        {1, 1, false},    {0, 0, false},
        {101, -1, false}, {static_cast<std::int32_t>(at_not_available), -1, false},
        {-2, -1, false},  {std::numeric_limits<std::int32_t>::min(), -1, false},
        {-1, -1, false},  // a failure without a reason must not look like a wait
    };
    for (const auto& r : rows) {
        fake.counts = {r.answer, r.answer};
        c.client.may_hold_bytes = !r.pending;
        EXPECT_EQ(read(), r.result) << r.answer;
        EXPECT_EQ(c.client.may_hold_bytes, r.pending) << r.answer;
        EXPECT_EQ(errno, r.result < 0 ? EIO : 0);
        EXPECT_EQ(io_molbat.write(&c.remote, buffer.data(), buffer.size()), r.result) << r.answer;
    }
    c.client.may_hold_bytes = true;
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(c.client.may_hold_bytes) << "emptied";
}

}  // namespace
