#include "security/auth.h"

#include "lib/base64.h"
#include "tests/security/fake_library.h"
#include "tests/security/rights_fixture.h"

namespace {

std::string basic(const std::string& login) {
    std::array<char, 128> out{};
    const int length =
        base64_encode(out.data(), out.size(), login.data(), static_cast<int>(login.size()));
    return "Basic " + std::string(out.data(), static_cast<std::size_t>(length));
}

class auth : public rights_test {
  protected:
    auth() {
        fake = fake_library();
        security.default_domain = domain;
        ctx.security = &security;
        start();
        c.request.role = "pub";
    }
    ~auth() override { fake = fake_library(); }

    int ask(const std::string& value) {
        header = value;
        c.request.headers.authorization = header;
        return check_authorization(&c);
    }

    char domain[5] = "CORP";
    security_info security{};
    std::string header;
};

TEST_F(auth, splits_the_login_into_domain_name_and_password) {
    const std::vector<std::pair<std::string, std::string>> logins = {
        {"alice:pw", "localhost|CORP|alice|pw"},
        {"alice:p:w", "localhost|CORP|alice|p:w"},
        {"alice:", "localhost|CORP|alice|"},
        {"LAB\\alice:p\\w", "localhost|LAB|alice|p\\w"},
        {"LAB\\al\\ice:pw", "localhost|LAB|al\\ice|pw"},
        {"\\alice:pw", "localhost||alice|pw"},
    };
    for (const auto& [login, identity] : logins) {
        EXPECT_EQ(ask(basic(login)), 0) << login;
        EXPECT_EQ(fake.asked, std::vector<std::string>{identity});
        EXPECT_EQ(c.client_credential, nullptr) << "a refused login leaves nothing behind";
        fake.asked.clear();
    }
}

TEST_F(auth, an_address_that_was_refused_often_is_not_asked_about) {
    static std::int64_t now = 0;
    now = 1'000'000'000;
    login_clock = [] { return now; };
    c.peer = address_of("192.0.2.1");
    for (int i = 0; i < 1000; ++i, now += 20) {
        EXPECT_EQ(ask(basic("u" + std::to_string(i) + ":pw")), 0);
    }
    EXPECT_EQ(fake.peer, "192.0.2.1");
    EXPECT_EQ(fake.asked.size(), 13U) << "ten at once, then after 2, 6 and 14 seconds";
    login_clock = monotonic_ms;
}

TEST_F(auth, unacceptable_headers_do_not_reach_the_library) {
    const std::vector<std::string> refused = {
        "",
        basic(":"),  // with an empty name the service itself would be meant
        basic("\\:"),
        basic("CORP\\:pw"),
        basic("alice"),
        basic(std::string("al\0ce:pw", 8)),
        "Digest YWxpY2U6cHc=",
        "BasicYWxpY2U6cHc=",
        "Basic \xff\xff\xff\xff",
        basic("al:" + std::string(42, 'x')),  // 66 characters
    };
    for (const std::string& value : refused) {
        EXPECT_EQ(ask(value), 0) << value;
    }
    EXPECT_TRUE(fake.asked.empty());
    std::string longest = basic("al:" + std::string(39, 'x')) + "  ";
    ASSERT_EQ(longest.size(), 64U);
    EXPECT_EQ(ask(longest.replace(0, 5, "bAsIc")), 0);
    EXPECT_EQ(ask(longest + " "), 0) << "padding counts";
    EXPECT_EQ(fake.asked.size(), 1U);
    // What the open role's name begins with is as open.
    for (const std::string_view role : {std::string_view("world\0admin", 11), {"w"}, {"world"}}) {
        c.request.role = role;
        EXPECT_EQ(ask(""), role.size() > 5 ? 0 : 1) << role;
    }
}

TEST_F(auth, the_user_name_is_plain_only_for_users_of_this_system) {
    const struct {
        const char *qualifier, *domain, *name, *user_name;
    } rows[] = {
        {"localhost", "local", "alice", "alice"},
        {"LOCALHOST", "local", "alice", "alice@local.LOCALHOST"},
        {"host", "local", "root", "root@local.host"},
        {nullptr, nullptr, "alice", "alice@."},
    };
    c.client_credential = &fake;
    for (const auto& r : rows) {
        const molb_info info{const_cast<char*>(r.qualifier), const_cast<char*>(r.domain),
                             const_cast<char*>(r.name)};
        caller("");
        c.request.role = "pub";
        fake.extracted = &info;
        EXPECT_EQ(is_authorized_at(&c), 1) << r.user_name;
        EXPECT_EQ(c.user_name, r.user_name);
        EXPECT_EQ(c.groups, nullptr) << "no user of this system";
        EXPECT_EQ(fake.freed.size(), 1U);
        fake.freed.clear();
        c.request.role = "admin";
        EXPECT_EQ(is_authorized_at(&c), 2) << r.user_name;
        EXPECT_EQ(c.request.recorded_role, "pub") << "granted, not asked for";
    }
    char empty[1] = "";
    const molb_info nobody{empty, empty, empty};
    for (const molb_info* info : {&nobody, static_cast<const molb_info*>(nullptr)}) {
        caller("");
        fake.extracted = info;
        EXPECT_EQ(is_authorized_at(&c), 2) << "no name begins every name";
    }
}

}  // namespace
