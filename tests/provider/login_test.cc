// Who may log in with a password, and how often anybody may try.
#include <crypt.h>

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

    // Tries `times` times, and waits for what one attempt takes from the common budget.
    void fail(const char* name, int times) const {
        for (int i = 0; i < times; ++i) {
            EXPECT_EQ(log_in("local", name, "no"), refused);
            clock_ms += 50;
        }
    }

    const std::string alice = "box/local/alice";
};

TEST_F(login_test, users_are_told_apart_by_domain_and_option) {
    add_user("bob", quick_hash("builder"), ":os");
    struct {
        const char *domain, *name, *password;
        std::string who;
    } const cases[] = {
        {"local", "alice", "wonder", alice},
        {"second", "alice", "wonder", "box/second/alice"},
        {"local", "bob", "builder", "localhost/local/bob"},
        {"cert", "alice", "wonder", refused},
        {"nowhere", "alice", "wonder", refused},
        {"local", "Alice", "wonder", refused},
        {"local", "../users/alice", "wonder", refused},
        {"local", "alice", "wonder ", refused},
        // Empty texts come from the network and are never the service, which is three null
        // pointers.
        {"", "", "", refused},
        {nullptr, "", "", refused},
        {nullptr, nullptr, "", refused},
        {"", nullptr, nullptr, refused},
        {"local", nullptr, nullptr, refused},
        {"local", "alice", "", refused},
        {"local", "alice", nullptr, refused},
        {"", "alice", "wonder", refused},
    };
    for (const auto& [domain, name, password, who] : cases) {
        EXPECT_EQ(log_in(domain, name, password), who);
    }
    const molb_identity elsewhere{"example", "local", "alice", "wonder"};
    void* credential = &credential;
    EXPECT_EQ(molbAtAuthenticate(handle, &elsewhere, 0, &credential), at_invalid_argument);
    EXPECT_EQ(credential, nullptr);
    EXPECT_EQ(molbAtAuthenticate(handle, nullptr, 0, &credential), at_invalid_argument);
}

TEST_F(login_test, only_strong_hashes_and_known_options_count) {
    struct {
        std::string name, line;
        bool good;
    } const cases[] = {
        {"carol", "carol:" + quick_hash("pw", "$y$j75$saltsaltsalt$"), true},
        {"carol", "carol:nonsense", false},  // looks like a DES salt
        {"carol", "carol:" + quick_hash("pw", "ab"), false},
        {"carol", "carol:" + quick_hash("pw", "$2b$04$saltsaltsaltsaltsaltse"), false},
        {"carol", "carol:" + quick_hash("pw", "$1$saltsalt$"), false},
        {"carol", "carol:" + quick_hash("pw", "$5$rounds=1000$salt$"), false},
        {"carol", "carol:pw", false},
        {"carol", "carol:", false},
        {"carol", "carol:!" + quick_hash("pw"), false},
        {"carol", "carol:" + quick_hash("pw") + ":future", false},
        {"carol", "dave:" + quick_hash("pw"), false},
        // These would be taken for the administrator, whose name they begin.
        {"r", "r:" + quick_hash("pw") + ":os", false},
        {"Roo", "Roo:" + quick_hash("pw") + ":os", false},
        {"ROOT", "ROOT:" + quick_hash("pw") + ":os", false},
        {"roots", "roots:" + quick_hash("pw") + ":os", true},
    };
    for (const auto& [name, line, good] : cases) {
        write_file(site() / "users" / name, line + "\n", 0600);
        EXPECT_EQ(log_in("local", name.c_str(), "pw") != refused, good) << line;
        clock_ms += 60'000;
    }
}

TEST_F(login_test, changed_files_count_at_once) {
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    fs::remove(site() / "users" / "alice");
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);
    write_file(site() / "domains", "fresh:password:box\n");
    add_user("alice", quick_hash("changed"));
    EXPECT_EQ(log_in("local", "alice", "changed"), refused);
    EXPECT_EQ(log_in("fresh", "alice", "changed"), "box/fresh/alice");
}

TEST_F(login_test, failures_lock_a_name_for_longer_and_longer) {
    fail("alice", 5);
    for (const std::int64_t lock_s : {1, 2, 4, 8, 16, 30, 30}) {
        clock_ms += lock_s * 1000 - 51;
        EXPECT_EQ(log_in("local", "alice", "wonder"), refused) << lock_s;
        clock_ms += 1;
        fail("alice", 1);  // the next attempt is heard, and wrong
    }
    EXPECT_NE(log_in("second", "alice", "wonder"), refused);  // another name
    clock_ms += 30'000;
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    for (const char* password : {"first", "second"}) {  // each success begins the count anew
        add_user("alice", quick_hash(password));
        fail("alice", 4);
        EXPECT_EQ(log_in("local", "alice", password), alice);
    }
}

TEST_F(login_test, everybody_together_has_a_budget) {
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(log_in("local", ("guess" + std::to_string(i)).c_str(), "no"), refused);
    }
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);
    clock_ms += 49;
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);
    clock_ms += 1;
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    EXPECT_EQ(log_in("second", "alice", "wonder"), refused);  // spent
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);     // remembered
}

TEST_F(login_test, whoever_was_right_is_not_hurt_by_the_failures_of_others) {
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    fail("alice", 8);
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    clock_ms += 299'000 - 8 * 50;
    fail("alice", 5);
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    clock_ms += 1'000 - 5 * 50;
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);  // forgotten, and locked
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
