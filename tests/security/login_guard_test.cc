// Proves who is listened to, on a clock that the test drives.
#include "security/login_guard.h"

#include "tests/support/testing.h"

namespace {

constexpr std::int64_t second = 1000;

class logins : public testing::Test {
  protected:
    // A wrong login; whether the library was asked.
    bool wrong(const std::string& from, const std::string& user) {
        if (!guard.may_ask(address_of(from), user, now)) {
            return false;
        }
        guard.note_refused(address_of(from), user, now);
        return true;
    }
    // A right one; whether it got in.
    bool right(const std::string& from, const std::string& user) {
        if (!guard.may_ask(address_of(from), user, now)) {
            return false;
        }
        guard.note_accepted(address_of(from), user, now);
        return true;
    }
    // How many of `tries` wrong logins, `every` ms apart, reach the library.
    int asked(const std::string& from, const std::string& user, int tries, std::int64_t every) {
        int count = 0;
        for (int i = 0; i < tries; ++i, now += every) {
            count += wrong(from, user) ? 1 : 0;
        }
        return count;
    }

    login_guard guard;
    std::int64_t now = 1'000'000'000;
};

TEST_F(logins, ten_refusals_a_minute_and_then_ever_longer_pauses) {
    std::vector<std::int64_t> moments;  // of the calls, since the tenth
    const std::int64_t start = now;
    for (; now < start + 400 * second; now += 20) {
        if (wrong("192.0.2.1", "d\\root")) {
            moments.push_back((now - start) / second);
        }
    }
    EXPECT_EQ(moments, (std::vector<std::int64_t>{0, 0, 0,  0,  0,  0,   0,   0,   0,   0,
                                                  2, 6, 14, 30, 62, 122, 182, 242, 302, 362}));
    now += 59 * second;
    EXPECT_TRUE(wrong("192.0.2.1", "d\\root"));
    EXPECT_FALSE(wrong("192.0.2.1", "d\\root")) << "that was not quiet for a minute";
    now += 60 * second;
    EXPECT_EQ(asked("192.0.2.1", "d\\root", 50, 0), 10) << "now it was";
}

TEST_F(logins, refusals_that_are_far_apart_are_forgotten) {
    EXPECT_EQ(asked("192.0.2.1", "d\\x", 500, 6700), 500) << "nine a minute";
}

TEST_F(logins, nobody_else_is_shut_out) {
    int listened = 0;
    for (int i = 0; i < 1000; ++i, now += 20) {  // fifty a second for twenty seconds
        listened += wrong("127.0.0.2", "d\\root") ? 1 : 0;
        EXPECT_TRUE(right("192.0.2.1", "d\\root"));
        EXPECT_TRUE(right("127.0.0.1", "d\\root"));
        EXPECT_TRUE(right("::1", "d\\root"));
        EXPECT_TRUE(right("2001:db8::2", "d\\root"));
    }
    EXPECT_EQ(listened, 13);
    EXPECT_FALSE(right("127.0.0.2", "d\\alice")) << "the address is shut out as a whole";
    EXPECT_FALSE(right("::ffff:127.0.0.2", "d\\alice")) << "by whichever kind of socket";
}

TEST_F(logins, this_host_has_sixty_a_minute) {
    EXPECT_EQ(asked("127.0.0.1", "d\\x", 40, 10) + asked("::1", "d\\x", 40, 10), 60);
    EXPECT_FALSE(right("::ffff:127.0.0.1", "d\\y"));
    EXPECT_FALSE(right("", "d\\y")) << "a peer without address is on this host";
    EXPECT_TRUE(right("127.0.0.3", "d\\y"));
}

TEST_F(logins, a_known_user_has_a_budget_of_his_own) {
    EXPECT_TRUE(right("192.0.2.1", "d\\alice"));
    EXPECT_TRUE(right("192.0.2.1", "d\\bob"));
    EXPECT_EQ(asked("192.0.2.1", "d\\eve", 100, 10), 10);
    EXPECT_TRUE(right("192.0.2.1", "d\\alice")) << "the others' refusals are not his";
    EXPECT_EQ(asked("192.0.2.1", "d\\bob", 100, 10), 10);
    EXPECT_TRUE(right("192.0.2.1", "d\\alice"));
    EXPECT_FALSE(right("192.0.2.1", "d\\carol")) << "never seen before, from a bad address";
    EXPECT_EQ(asked("192.0.2.2", "d\\bob", 100, 0), 10) << "known there, not here";
    now += 3'600 * second;
    (void)asked("192.0.2.1", "d\\eve", 20, 10);
    EXPECT_FALSE(right("192.0.2.1", "d\\alice")) << "an hour ago";
}

TEST_F(logins, a_success_does_not_clear_the_count) {
    EXPECT_EQ(asked("192.0.2.1", "d\\x", 9, 10), 9);
    EXPECT_TRUE(right("192.0.2.1", "d\\y"));
    EXPECT_EQ(asked("192.0.2.1", "d\\x", 9, 10), 1);
}

TEST_F(logins, tables_forget_whoever_was_silent_longest) {
    EXPECT_EQ(asked("192.0.2.1", "d\\x", 10, 0), 10);
    EXPECT_EQ(asked("192.0.2.2", "d\\x", 10, 0), 10);
    for (int i = 0; i < 100'000; ++i) {
        const std::string from =
            "2001:db8::" + std::to_string(i % 10000) + ":" + std::to_string(i / 10000);
        (void)right(from, "d\\" + std::to_string(i));
        (void)wrong(from, "d\\y");
        if (i % 1000 == 0) {
            EXPECT_FALSE(wrong("192.0.2.2", "d\\x")) << "whoever goes on is not forgotten";
        }
    }
    EXPECT_EQ(guard.addresses(), login_guard::addresses_max);
    EXPECT_EQ(guard.users(), login_guard::users_max);
    EXPECT_TRUE(wrong("192.0.2.1", "d\\x"));
}

}  // namespace
