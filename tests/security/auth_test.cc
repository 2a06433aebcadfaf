#include "security/auth.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "core/context.h"
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
    security_info security{.reserved = 0,
                           .default_domain = domain,
                           .identity = {"localhost", nullptr, nullptr, nullptr},
                           .flags = 0,
                           .credential = nullptr};
    std::string header;
    int credential = 0;
    char name[6] = "alice";
    char host[5] = "host";
    char localhost[10] = "localhost";
    char info_domain[6] = "local";
    char empty[1] = "";
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

TEST_F(auth, unacceptable_headers_do_not_reach_the_library) {
    const std::vector<std::string> refused = {
        "",
        "Basic ",
        "Basic YT",
        basic(""),
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
    c.request.role = std::string("world\0admin", 11);
    EXPECT_EQ(ask(""), 0) << "not the open role";
}

TEST_F(auth, the_user_name_is_plain_only_for_users_of_this_system) {
    struct row {
        molb_info info;
        const char* user_name;
    };
    char other_case[10] = "LOCALHOST";
    char root[5] = "root";
    const std::vector<row> rows = {
        {{localhost, info_domain, name}, "alice"},
        {{other_case, info_domain, name}, "alice@local.LOCALHOST"},
        {{host, info_domain, root}, "root@local.host"},
        {{nullptr, nullptr, name}, "alice@."},
        {{host, info_domain, nullptr}, ""},
        {{localhost, info_domain, empty}, ""},
    };
    c.client_credential = &credential;
    for (const row& r : rows) {
        caller("");
        fake.extracted = &r.info;
        const bool named = r.user_name[0] != '\0';
        EXPECT_EQ(is_authorized_at(&c), named ? 1 : 2) << "no name begins every name";
        EXPECT_EQ(c.user_name, r.user_name);
        EXPECT_EQ(c.groups, nullptr) << "no user of this system";
        c.request.role = "admin";
        EXPECT_EQ(is_authorized_at(&c), 2) << r.user_name;
        c.request.role = "pub";
    }
    caller("");
    fake.extracted = nullptr;
    EXPECT_EQ(is_authorized_at(&c), 2) << "nobody, as far as the library says";
}

}  // namespace
