#include "security/auth.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "core/context.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "tests/security/fake_library.h"
#include "tests/security/rights_fixture.h"

namespace {

std::string base64(const std::string& text) {
    std::string out(4 * ((text.size() + 2) / 3) + 1, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::string basic(const std::string& login) {
    return "Basic " + base64(login);
}

class auth : public rights_test {
  protected:
    auth() {
        fake = fake_library();
        ctx.security = &security;
        ctx.at_handle = &ctx;
        start();
        c.request.role = "pub";
    }
    ~auth() override { fake = fake_library(); }

    int ask(const std::string& value) {
        header = value;
        c.request.headers.authorization = header;
        return check_authorization(&c);
    }

    void forget() {
        caller("");
        c.client_credential = nullptr;
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
    char info_domain[6] = "local";
};

TEST_F(auth, splits_the_login_into_domain_name_and_password) {
    const std::vector<std::pair<std::string, fake_identity>> logins = {
        {"alice:pw", {"localhost", "CORP", "alice", "pw"}},
        {"alice:p:w", {"localhost", "CORP", "alice", "p:w"}},
        {"alice:", {"localhost", "CORP", "alice", ""}},
        {"LAB\\alice:p\\w", {"localhost", "LAB", "alice", "p\\w"}},
        {"LAB\\al\\ice:pw", {"localhost", "LAB", "al\\ice", "pw"}},
        {"\\alice:pw", {"localhost", "", "alice", "pw"}},
    };
    for (const auto& [login, identity] : logins) {
        EXPECT_EQ(ask(basic(login)), 0) << login;
        ASSERT_FALSE(fake.asked.empty());
        EXPECT_EQ(fake.asked.back(), identity) << login;
        EXPECT_EQ(c.client_credential, nullptr) << "a refused login leaves nothing behind";
    }
    EXPECT_EQ(fake.asked.size(), logins.size());
    fake.asked.clear();
    EXPECT_EQ(ask("bAsIc  " + base64("alice:pw") + " "), 0) << "blanks around the text are no part";
    EXPECT_EQ(fake.asked.size(), 1U);
}

TEST_F(auth, unacceptable_headers_do_not_reach_the_library) {
    const std::string fits(42, 'x');
    std::vector<std::string> refused = {
        "",
        "Basic ",
        "Basic YT",
        basic(""),
        basic(":"),
        basic("\\:"),
        basic("CORP\\:pw"),
        basic("alice"),
        basic(std::string("al\0ce:pw", 8)),
        basic(":pw"),
        "Digest YWxpY2U6cHc=",
        "Basic" + base64("alice:pw"),
        "Basic \xff\xff\xff\xff",
        "Basic " + base64("al:" + fits),  // 45 bytes are 60 characters: 66 in all
    };
    for (const std::string& value : refused) {
        EXPECT_EQ(ask(value), 0) << value;
    }
    EXPECT_TRUE(fake.asked.empty());
    const std::string longest = "Basic " + base64("al:" + std::string(39, 'x')) + "  ";
    ASSERT_EQ(longest.size(), 64U);
    EXPECT_EQ(ask(longest), 0);
    EXPECT_EQ(fake.asked.size(), 1U);
    EXPECT_EQ(ask(longest + " "), 0) << "padding counts";
    EXPECT_EQ(fake.asked.size(), 1U);
}

TEST_F(auth, a_login_is_kept_for_the_life_of_the_connection) {
    fake.logins[{"localhost", "CORP", "alice", "pw"}] = &credential;
    fake.info = {host, info_domain, name};
    fake.handed_out = &fake.info;
    EXPECT_EQ(ask(basic("alice:pw")), 1);
    EXPECT_EQ(c.client_credential, &credential);
    EXPECT_EQ(c.user_name, "alice@local.host");
    EXPECT_EQ(c.request.recorded_role, "pub");
    EXPECT_EQ(fake.times_freed(&fake.info), 1);

    c.request.recorded_role.clear();
    c.request.role = "operator";
    EXPECT_EQ(ask(""), 2) << "known, and not allowed";
    EXPECT_EQ(c.request.recorded_role, "");
    c.request.role = "pub";
    EXPECT_EQ(ask(basic("mallory:no")), 1) << "the connection is alice's";
    EXPECT_EQ(fake.asked.size(), 1U);
    EXPECT_EQ(fake.extracts, 1);
    EXPECT_EQ(fake.times_freed(&credential), 0);
}

TEST_F(auth, the_user_name_is_plain_only_for_users_of_this_system) {
    struct row {
        molb_info info;
        const char* user_name;
    };
    char localhost[10] = "localhost";
    char other_case[10] = "LOCALHOST";
    char empty[1] = "";
    const std::vector<row> rows = {
        {{localhost, info_domain, name}, "alice"},
        {{other_case, info_domain, name}, "alice@local.LOCALHOST"},
        {{host, info_domain, name}, "alice@local.host"},
        {{nullptr, nullptr, name}, "alice@."},
        {{host, info_domain, nullptr}, ""},
        {{host, info_domain, empty}, ""},
        {{localhost, info_domain, empty}, ""},
    };
    for (const row& r : rows) {
        forget();
        c.client_credential = &credential;
        fake.info = r.info;
        fake.handed_out = &fake.info;
        EXPECT_EQ(is_authorized_at(&c), r.user_name[0] != '\0' ? 1 : 2) << r.user_name;
        EXPECT_EQ(c.user_name, r.user_name);
    }
    forget();
    c.client_credential = &credential;
    fake.handed_out = nullptr;
    EXPECT_EQ(is_authorized_at(&c), 2);
    fake.extract_result = at_invalid_argument;
    EXPECT_EQ(is_authorized_at(&c), 2);
}

TEST_F(auth, groups_are_those_of_the_system_user) {
    char localhost[10] = "localhost";
    char user[5] = "root";
    c.client_credential = &credential;
    fake.info = {localhost, info_domain, user};
    fake.handed_out = &fake.info;
    ASSERT_EQ(is_authorized_at(&c), 1);

    std::set<std::string> expected;
    expected.insert(getgrgid(getpwnam("root")->pw_gid)->gr_name);
    setgrent();
    while (const group* entry = getgrent()) {
        for (char** member = entry->gr_mem; *member != nullptr; member++) {
            if (std::string(*member) == "root") {
                expected.insert(entry->gr_name);
            }
        }
    }
    endgrent();
    ASSERT_NE(c.groups, nullptr);
    std::set<std::string> found;
    for (void* entry : qz_each(c.groups)) {
        found.insert(qz_as<const char>(entry));
    }
    EXPECT_EQ(found, expected);

    forget();
    c.client_credential = &credential;
    fake.info = {host, info_domain, user};
    ASSERT_EQ(is_authorized_at(&c), 1);
    EXPECT_EQ(c.groups, nullptr) << "root@local.host is no user of this system";
    c.request.role = "admin";
    EXPECT_EQ(is_authorized_at(&c), 2) << "and no administrator";
}

TEST_F(auth, the_world_role_needs_nobody) {
    for (const char* role : {"w", "wor", "world"}) {
        c.request.role = role;
        c.request.recorded_role.clear();
        EXPECT_EQ(ask(""), 1) << role;
        EXPECT_EQ(c.request.recorded_role, role);
    }
    for (const char* role : {"", "worldx", "World", "x"}) {
        c.request.role = role;
        EXPECT_EQ(ask(""), 0) << role;
    }
    c.request.role = std::string("world\0admin", 11);
    EXPECT_EQ(ask(""), 0);
}

}  // namespace
