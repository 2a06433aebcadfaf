// Who may log in with a password, and how often anybody may try.
#include <crypt.h>

#include <array>
#include <filesystem>

#include "tests/provider/provider_fixture.h"

namespace {

namespace fs = std::filesystem;

// Cheap to compute, and made with the C library alone.
std::string quick_hash(const char* password, const char* salt = "$6$rounds=1000$pepper$") {
    return crypt(password, salt);
}

}  // namespace

class login_test : public provider_test {
  protected:
    void SetUp() override {
        provider_test::SetUp();
        fs::create_directories(site() / "users");
        write_file(site() / "domains",
                   "# comment\n\nlocal:password:box\ncert:certificate:box\nsecond:password:box\n");
        add_user("alice", quick_hash("wonder"));
        ASSERT_EQ(start_in(data_dir, &handle), at_ok);
        clock_ms += 3'600'000;
    }

    void add_user(const std::string& name, const std::string& hash, const char* options = "") {
        write_file(site() / "users" / name, name + ":" + hash + options + "\n", 0600);
    }

    void fail(const char* name, int times) const {
        for (int i = 0; i < times; ++i) {
            EXPECT_EQ(log_in("local", name, "no"), at_refused);
            clock_ms += 50;  // what one attempt earns back
        }
    }
};

TEST_F(login_test, service_identity_is_three_null_pointers) {
    fs::remove_all(data_dir);
    ASSERT_EQ(molbAtTerminate(handle), at_ok);
    handle = nullptr;
    set_up();
    std::string who;
    EXPECT_EQ(log_in(nullptr, nullptr, nullptr, &who), at_ok);
    EXPECT_EQ(who, "localhost/service/service");
    for (const auto& [domain, name, password] : std::array<std::array<const char*, 3>, 8>{{
             {"", "", ""},
             {nullptr, "", ""},
             {nullptr, nullptr, ""},
             {"", nullptr, nullptr},
             {"local", nullptr, nullptr},
             {"local", "root", ""},
             {"local", "root", nullptr},
             {"", "root", root_password.c_str()},
         }}) {
        EXPECT_EQ(log_in(domain, name, password), at_refused);
    }
    const molb_identity elsewhere{"example", nullptr, nullptr, nullptr};
    void* credential = &credential;
    EXPECT_EQ(molbAtAuthenticate(handle, &elsewhere, 0, &credential), at_invalid_argument);
    EXPECT_EQ(credential, nullptr);
    EXPECT_EQ(molbAtAuthenticate(handle, nullptr, 0, &credential), at_invalid_argument);
}

TEST_F(login_test, users_are_told_apart_by_domain_and_option) {
    add_user("bob", quick_hash("builder"), ":os");
    std::string who;
    EXPECT_EQ(log_in("local", "alice", "wonder", &who), at_ok);
    EXPECT_EQ(who, "box/local/alice");
    EXPECT_EQ(log_in("second", "alice", "wonder", &who), at_ok);
    EXPECT_EQ(who, "box/second/alice");
    EXPECT_EQ(log_in("local", "bob", "builder", &who), at_ok);
    EXPECT_EQ(who, "localhost/local/bob");
    EXPECT_EQ(log_in("cert", "alice", "wonder"), at_refused);
    EXPECT_EQ(log_in("nowhere", "alice", "wonder"), at_refused);
    EXPECT_EQ(log_in("local", "Alice", "wonder"), at_refused);
    EXPECT_EQ(log_in("local", "../users/alice", "wonder"), at_refused);
    EXPECT_EQ(log_in("local", "alice", "wonder "), at_refused);
}

TEST_F(login_test, only_strong_hashes_and_known_options_count) {
    add_user("strong", quick_hash("pw", "$y$j75$saltsaltsalt$"));
    EXPECT_EQ(log_in("local", "strong", "pw"), at_ok);
    const std::array<std::string, 8> bad_lines = {
        "nonsense",                                         // looks like a DES salt
        quick_hash("pw", "ab"),                             // and is one
        quick_hash("pw", "$2b$04$saltsaltsaltsaltsaltse"),  // bcrypt
        quick_hash("pw", "$1$saltsalt$"),                   // MD5
        quick_hash("pw", "$5$rounds=1000$salt$"),           // SHA-256
        "pw",
        "",
        "!" + quick_hash("pw"),
    };
    for (const std::string& hash : bad_lines) {
        add_user("carol", hash);
        EXPECT_EQ(log_in("local", "carol", "pw"), at_refused) << hash;
        clock_ms += 60'000;
    }
    add_user("carol", quick_hash("pw"), ":future");
    EXPECT_EQ(log_in("local", "carol", "pw"), at_refused);
    write_file(site() / "users" / "carol", "dave:" + quick_hash("pw") + "\n", 0600);
    EXPECT_EQ(log_in("local", "carol", "pw"), at_refused);
    clock_ms += 60'000;
    // These would be taken for the administrator, whose name they begin.
    for (const char* name : {"r", "ro", "Roo", "ROOT"}) {
        add_user(name, quick_hash("pw"), ":os");
        EXPECT_EQ(log_in("local", name, "pw"), at_refused) << name;
    }
    add_user("roots", quick_hash("pw"), ":os");
    EXPECT_EQ(log_in("local", "roots", "pw"), at_ok);
    add_user("empty", quick_hash(""));
    EXPECT_EQ(log_in("local", "empty", ""), at_refused);
}

TEST_F(login_test, changed_files_count_at_once) {
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    add_user("alice", quick_hash("changed"));
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_refused);
    EXPECT_EQ(log_in("local", "alice", "changed"), at_ok);
    add_user("alice", quick_hash("changed"), ":off");
    EXPECT_EQ(log_in("local", "alice", "changed"), at_refused);
    add_user("alice", quick_hash("changed"));
    EXPECT_EQ(log_in("local", "alice", "changed"), at_ok);
    fs::remove(site() / "users" / "alice");
    EXPECT_EQ(log_in("local", "alice", "changed"), at_refused);
    write_file(site() / "domains", "fresh:password:box\n");
    add_user("alice", quick_hash("changed"));
    EXPECT_EQ(log_in("local", "alice", "changed"), at_refused);
    EXPECT_EQ(log_in("fresh", "alice", "changed"), at_ok);
}

TEST_F(login_test, failures_lock_a_name_for_longer_and_longer) {
    fail("alice", 5);
    for (const std::int64_t lock_s : {1, 2, 4, 8, 16, 30, 30}) {
        clock_ms += lock_s * 1000 - 51;
        EXPECT_EQ(log_in("local", "alice", "wonder"), at_refused) << lock_s;
        clock_ms += 1;
        fail("alice", 1);  // the next attempt is heard, and wrong
    }
    EXPECT_EQ(log_in("second", "alice", "wonder"), at_ok);  // another name
    clock_ms += 30'000;
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    for (const char* password : {"first", "second"}) {  // each success begins the count anew
        add_user("alice", quick_hash(password));
        fail("alice", 4);
        EXPECT_EQ(log_in("local", "alice", password), at_ok);
    }
}

TEST_F(login_test, everybody_together_has_a_budget) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(log_in("local", ("guess" + std::to_string(i)).c_str(), "no"), at_refused);
    }
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_refused);
    clock_ms += 49;
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_refused);
    clock_ms += 1;
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    EXPECT_EQ(log_in("second", "alice", "wonder"), at_refused);  // spent
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);        // remembered
}

TEST_F(login_test, whoever_was_right_is_not_hurt_by_the_failures_of_others) {
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    fail("alice", 8);
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    clock_ms += 299'000 - 8 * 50;
    fail("alice", 5);
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_ok);
    clock_ms += 1'000 - 5 * 50;
    EXPECT_EQ(log_in("local", "alice", "wonder"), at_refused);  // forgotten, and locked
}

TEST_F(login_test, domains_come_in_order_and_without_dangerous_ones) {
    const auto listed = [&] {
        molb_domain_info* list = nullptr;
        std::int32_t count = 0;
        std::string text = std::to_string(molbAtGetDomainInfos(handle, 0, &list, &count));
        for (std::int32_t i = 0; i < count; ++i) {
            text += std::string(" ") + list[i].kind + "=" + list[i].name;
        }
        EXPECT_EQ(molbAtFree(list), at_ok);
        return text;
    };
    EXPECT_EQ(listed(), "0 password=local certificate=cert password=second");
    write_file(site() / "domains",
               "one:password:localhost\ntwo:password:LocalHost\nthree:password:qz\n"
               "four:password:a.qz\nfive:other:box\nsix:password:\n:password:box\n"
               "a b:password:box\nseven:password:box:more\nlast:certificate:z\n");
    EXPECT_EQ(listed(), "0 certificate=last");
    write_file(site() / "domains", "# nothing\n");
    EXPECT_EQ(listed(), std::to_string(at_not_available));
}
