// Who may log in with a password, and how often anybody may try.
#include <crypt.h>
#include <dlfcn.h>

#include "tests/provider/provider_fixture.h"

namespace {

namespace fs = std::filesystem;

// The methods of the hashes that the library has computed, in order: y or 6.
std::string hashes;
bool stand_ins_are_free = false;

// Whether it is a method and a salt only.
bool is_stand_in(std::string_view setting) {
    return std::count(setting.begin(), setting.end(), '$') == (setting[1] == 'y' ? 3 : 2);
}

}  // namespace

// Stands in front of the C library's function: counts, and saves the time of hashes that nobody
// looks at.
extern "C" char* crypt_rn(const char* phrase, const char* setting, void* data, int size) noexcept {
    static const auto real = reinterpret_cast<decltype(&crypt_rn)>(dlsym(RTLD_NEXT, "crypt_rn"));
    hashes += setting[1];
    if (stand_ins_are_free && is_stand_in(setting)) {
        return nullptr;
    }
    return real(phrase, setting, data, size);
}

namespace {

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
        stand_ins_are_free = true;
    }

    void TearDown() override {
        stand_ins_are_free = false;
        provider_test::TearDown();
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

TEST_F(login_test, failures_of_one_peer_lock_out_that_peer_alone) {
    const auto peer_is = [](const char* text) {
        EXPECT_EQ(molbatLibraryControl("Peer", const_cast<char*>(text)), at_ok);
    };
    peer_is("192.0.2.1");
    fail("alice", 7);
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused) << "locked there";
    for (const char* other : {"192.0.2.2", static_cast<const char*>(nullptr)}) {
        peer_is(other);
        EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
        for (int i = 0; i < 20; ++i) {
            EXPECT_EQ(log_in("local", "alice", "no"), refused);  // until memory forgets him
        }
        clock_ms += 60'000;
    }
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
    add_user("alice", quick_hash("changed"));
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused) << "remembered no longer";
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

TEST_F(login_test, a_flood_of_unknown_names_shuts_nobody_out) {
    add_user("bob", quick_hash("builder"));
    const auto flood = [&](int guesses) {
        hashes.clear();
        for (int i = 0; i < guesses; ++i) {
            EXPECT_EQ(log_in("local", ("guess" + std::to_string(i)).c_str(), "no"), refused);
        }
        return hashes.size() / 2;
    };
    EXPECT_EQ(flood(100), 10U);
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    clock_ms += 50;
    EXPECT_EQ(flood(100), 0U) << "what alice has used is given back first";
    clock_ms += 50;
    EXPECT_EQ(flood(100), 1U);
    // Those who exist have 10 more together, and then what the time brings.
    for (const char* password : {"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}) {
        add_user("alice", quick_hash(password));
        EXPECT_EQ(log_in("local", "alice", password), alice);
    }
    EXPECT_EQ(log_in("local", "bob", "builder"), refused);
    EXPECT_EQ(log_in("local", "alice", "9"), alice) << "remembered";
    clock_ms += 49;
    EXPECT_EQ(log_in("local", "bob", "builder"), refused);
    clock_ms += 1;
    EXPECT_EQ(log_in("local", "bob", "builder"), "box/local/bob");
}

TEST_F(login_test, memory_answers_twenty_guesses_and_no_more) {
    // Failures of others do not hurt whoever was right, but for a while only.
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    fail("alice", 19);
    hashes.clear();
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    EXPECT_EQ(hashes, "");
    fail("alice", 1);
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);  // locked like everybody
    clock_ms += 30'000;
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    // Guesses for other names do not count, and the count begins anew with each real login.
    fail("bob", 30);
    fail("alice", 19);
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    clock_ms += 300'000;
    fail("alice", 5);
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);  // over after five minutes
}

TEST_F(login_test, refusals_cost_the_same_whoever_is_meant) {
    add_user("yes", quick_hash("pw", "$y$j75$saltsaltsalt$"));
    add_user("locked", quick_hash("pw"), ":off");
    write_file(site() / "users" / "broken", "rubbish\n", 0600);
    const struct {
        const char *domain, *name, *methods;
    } cases[] = {
        {"local", "alice", "6y"},  {"local", "yes", "y6"},     {"local", "locked", "y6"},
        {"local", "nobody", "y6"}, {"local", "broken", "y6"},  {"local", "no name", "y6"},
        {"cert", "alice", "y6"},   {"nowhere", "alice", "y6"},
    };
    for (const auto& [domain, name, methods] : cases) {
        hashes.clear();
        EXPECT_EQ(log_in(domain, name, "wrong"), refused);
        EXPECT_EQ(hashes, methods) << domain << " " << name;
        clock_ms += 1000;
    }
    hashes.clear();
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    EXPECT_EQ(hashes, "6");
    // libxcrypt takes longer ones, but no login does.
    const std::string longest(128, 'x');
    add_user("alice", quick_hash(longest.c_str()));
    EXPECT_EQ(log_in("local", "alice", longest.c_str()), alice);
    add_user("alice", quick_hash((longest + "x").c_str()));
    hashes.clear();
    EXPECT_EQ(log_in("local", "alice", (longest + "x").c_str()), refused);
    EXPECT_EQ(hashes, "");
}

TEST_F(login_test, other_names_do_not_push_a_failure_out) {
    const auto fail_all = [&](const char* prefix, int names) {
        for (int i = 0; i < names; ++i) {
            fail((prefix + std::to_string(i)).c_str(), 1);
            clock_ms += 50;
        }
    };
    fail("alice", 5);
    fail_all("guess", 300);
    // Still in its place: the sixth failure locks for 2 s.
    fail("alice", 1);
    clock_ms += 1'900;
    EXPECT_EQ(log_in("local", "alice", "wonder"), refused);
    clock_ms += 100;
    EXPECT_EQ(log_in("local", "alice", "wonder"), alice);
    // Among unknown names the one that has been quiet longest goes.
    fail("oldest", 5);
    clock_ms += 1000;
    fail("newest", 5);
    fail_all("other", 255);
    for (const auto& [name, hashed] : {std::pair("newest", "y6"), std::pair("oldest", "y6y6")}) {
        fail(name, 1);
        hashes.clear();
        fail(name, 2);  // within the lock of 2 s, or the second and third of a new count
        EXPECT_EQ(hashes, std::string_view(name) == "newest" ? "" : hashed) << name;
    }
}

TEST_F(login_test, domains_come_in_order_and_the_good_ones_stay) {
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
    // An editor has just emptied the file, or spoilt it; a list that was good stays.
    for (const char* text : {"", "# nothing\n", "local:pass", "\x01\xff:password:box\n"}) {
        write_file(site() / "domains", text);
        EXPECT_EQ(listed(), "0 certificate=last") << text;
    }
    fs::remove(site() / "domains");
    EXPECT_EQ(listed(), "0 certificate=last");
    write_file(site() / "domains", "local:password:box\r\n");
    EXPECT_EQ(listed(), "0 password=local");
}
