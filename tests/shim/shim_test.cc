// Proves the shim against a recording library: arguments and results pass unchanged, versions are
// negotiated, gaps and failures are survived, the monitor excludes writers. Every scenario runs in
// a process of its own, since a library is loaded once per process.
#include <dlfcn.h>

#include "security/api.h"
#include "security/api_monitor.h"
#include "security/api_state.h"
#include "tests/shim/fake_library.h"
#include "tests/support/testing.h"

using word = std::uintptr_t;

extern "C" {
// Entry points that forward words, as callers with other argument lists see them.
std::uint64_t molbAtGetSecurityLevel();
std::uint64_t molbAtWebAuthenticate(word, word, word, word, word, word, word, word, word);
std::uint64_t molbAtAuthenticateEx(word, word, word, word, word, word, word, word, word, word, word,
                                   word);
void* molbAtAlloc(std::size_t);
std::uint64_t molbAtRegisterService(word);
std::uint64_t molbAtDeleteCredentialFromStore(word);
}

namespace {

namespace fs = std::filesystem;

#define REQUIRE(condition)                                                          \
    if (!(condition)) {                                                             \
        std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::_Exit(1); \
    }

// A home directory for a library, removed by the process that made it.
class Shim : public testing::Test {
  protected:
    Shim() {
        fs::create_directory(home_ / "lib");
        setenv("ZEL_HOME_DIR", home_.c_str(), 1);
        unsetenv("ZEL_USE_LIBPATH");
    }

    // Runs a scenario in a child on one of the built libraries, or any other file; it fails with
    // the line of its first unmet requirement.
    template <class Scenario>
    void in_child(const char* library, Scenario scenario) {
        const fs::path link = home_ / "lib/libmolbat4L_t.so";
        fs::remove(link);
        fs::create_symlink(fs::path(FAKE_FOLDER) / library, link);
        const auto run = [&] {
            scenario();
            std::exit(0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
    }

    const temporary_folder folder_;
    const fs::path home_ = folder_.path();
};

// What a library that is loaded exports besides its entry points.
template <class T>
T* fake(const char* name, int mode = RTLD_NOW | RTLD_NOLOAD) {
    const std::string path = std::string(std::getenv("ZEL_HOME_DIR")) + "/lib/libmolbat4L_t.so";
    void* library = dlopen(path.c_str(), mode);
    REQUIRE(library != nullptr);
    return static_cast<T*>(dlsym(library, name));
}

// Opens the library before the shim does, so that its load entry can be made to call back.
void call_back_on_control(void (*function)()) {
    *fake<void (*)()>("fake_on_control", RTLD_NOW) = function;
}

TEST_F(Shim, PassesWordsAndPointersUnchanged) {
    in_child("libfake_full.so", [] {
        // A call before any initialisation loads the library by itself.
        REQUIRE(molbAtGetSecurityLevel() == 0);
        auto* last = fake<fake_call>("fake_last");
        auto* result = fake<std::uint64_t>("fake_result");
        REQUIRE(last->index == 10);
        REQUIRE(std::strcmp(fake<char>("fake_command"), "Load") == 0);

        *result = 0xfedcba9876543210U;
        REQUIRE(molbAtWebAuthenticate(1, 2, 3, 4, 5, 6, 7, 8, 9) == *result);
        REQUIRE(last->index == 3);
        for (word i = 0; i < 9; ++i) {
            REQUIRE(last->arguments[i] == i + 1);
        }
        REQUIRE(molbAtAuthenticateEx(~0UL, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, ~1UL) == *result);
        REQUIRE(last->arguments[0] == ~0UL && last->arguments[11] == ~1UL);
        REQUIRE(molbAtDataPending(last) == static_cast<std::int32_t>(*result));
        REQUIRE(last->index == 64 && last->arguments[0] == reinterpret_cast<word>(last));
        REQUIRE(molbAtAlloc(77) == reinterpret_cast<void*>(*result));
        REQUIRE(last->index == 96 && last->arguments[0] == 77);
    });
}

TEST_F(Shim, OffersTheLogAndSurvivesARefusal) {
    in_child("libfake_full.so", [] {
        const molb_log_function function = [](int, const char*) {};
        const auto offer = [&] {
            return molbatLibraryControl("Log", reinterpret_cast<void*>(function));
        };
        REQUIRE(offer() == at_not_available);  // nothing is loaded for it
        (void)molbAtGetSecurityLevel();
        REQUIRE(offer() == at_invalid_argument);
        REQUIRE(fake<fake_call>("fake_last")->arguments[0] == reinterpret_cast<word>(function));
        REQUIRE(molbat_status().loaded);
    });
}

constexpr int locals_count = 16;
volatile word* callers_locals = nullptr;

// A forwarder that ends in a jump would read the words above its frame, resolve the symbol and
// write the old words back over the locals of a caller that passed fewer arguments.
[[gnu::noinline]] bool locals_survive() {
    volatile word locals[locals_count];
    for (auto& local : locals) {
        local = 1000;
    }
    callers_locals = &locals[0];
    (void)molbAtRegisterService(7);
    for (const auto& local : locals) {
        if (local != 1001) {
            return false;
        }
    }
    return true;
}

TEST_F(Shim, LeavesTheCallersStackAlone) {
    in_child("libfake_full.so", [] {
        call_back_on_control([] {
            for (int i = 0; i < locals_count; ++i) {
                callers_locals[i] = callers_locals[i] + 1;
            }
        });
        REQUIRE(locals_survive());
    });
}

TEST_F(Shim, SurvivesALibraryThatCannotBeLoaded) {
    Dl_info other{};  // a library of another kind
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&std::abort), &other), 0);
    const struct {
        const char* file;
        const char* refusal;  // of its loader entry
        std::uint32_t result;
    } rows[] = {
        {"missing.so", "", at_not_available},
        {other.dli_fname, "", at_not_available},
        {"libfake_full.so", "24665", at_permission_denied},
        {"libfake_full.so", "0", at_not_available},
    };
    for (const auto& r : rows) {
        in_child(r.file, [&] {
            setenv("FAKE_LOAD_RESULT", r.refusal, 1);
            void* handle = &handle;
            REQUIRE(molbAtInit(nullptr, &handle) == r.result && handle == nullptr);
            REQUIRE(molbat_status().load_count == 0);
            REQUIRE(molbAtSecConnRead(nullptr, nullptr, 10) == at_not_available);
            REQUIRE(molbAtGetSecurityLevel() == at_not_available);
            REQUIRE(molbAtTerminate(nullptr) == 0);
            REQUIRE(molbAtTerminate(&handle) == at_not_available);
        });
    }
}

TEST_F(Shim, CountsLoadsAndForgetsEverythingAtTheEnd) {
    in_child("libfake_full.so", [] {
        void* handle = nullptr;
        REQUIRE(molbatGetSymbol(0, "molbAtInit") == nullptr);
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        REQUIRE(molbatGetSymbol(91, "molbAtFree") != nullptr);
        REQUIRE(molbatGetSymbol(-1, "molbAtFree") == nullptr);
        REQUIRE(molbatGetSymbol(api_index_max + 1, "molbAtFree") == nullptr);
        for (const auto& [first, past] :
             {std::pair(-1, 3), std::pair(3, api_index_max + 1), std::pair(3, 2)}) {
            REQUIRE(molbatLoadSymbols(&handle, first, past) == at_invalid_argument);
        }
        REQUIRE(molbatLoadSymbols(nullptr, 0, 1) == at_invalid_argument);
        auto* last = fake<fake_call>("fake_last");
        REQUIRE(last->index == 170 && last->arguments[0] == 0);  // InitEx is preferred
        REQUIRE(molbat_status().load_count == 1 && molbat_status().highest == 174);
        const molb_version old{.major = 4, .minor = 9};
        const molb_init record{"/h", "/data", nullptr, "/l"};
        REQUIRE(molbAtInitEx(&old, &handle, &record, 7, 8, 9) == 0);
        REQUIRE(last->arguments[0] == reinterpret_cast<word>(&old));  // the caller's own
        REQUIRE(last->arguments[3] == 7 && last->arguments[5] == 9);
        *fake<std::uint64_t>("fake_result") = 24604;  // a failed instance is not counted
        REQUIRE(molbAtInit(nullptr, &handle) == 24604 && molbat_status().load_count == 2);
        int* unloads = fake<int>("fake_unloads");
        REQUIRE(molbAtTerminate(&handle) == 0 && last->index == 1);
        REQUIRE(molbat_status().load_count == 1 && *unloads == 0);
        REQUIRE(molbAtTerminate(&handle) == 0);
        REQUIRE(*unloads == 1 && !molbat_status().loaded && molbat_status().highest == -1);
        *fake<std::uint64_t>("fake_result") = 0;
        // A reload needs no second look for the file, wherever it is said to be.
        REQUIRE(molbAtInitEx(nullptr, &handle, &record, 0, 0, 0) == 0);
        REQUIRE(*fake<int>("fake_loads") == 2);
        REQUIRE(std::strcmp(fake<char>("fake_command"), "Load|/h|/l") == 0);
    });
}

TEST_F(Shim, RefusesCallsOutOfItsOwnLoadAndUnload) {
    in_child("libfake_full.so", [] {
        alarm(30);
        // As if the library's own calls landed in the stubs: waiting would never end.
        call_back_on_control([] {
            void* handle = nullptr;
            REQUIRE(molbAtFree(&handle) == at_not_available);
            REQUIRE(molbAtGetSecurityLevel() == at_not_available);
            REQUIRE(molbAtInit(nullptr, &handle) == at_not_available);
            REQUIRE(molbAtTerminate(&handle) == at_not_available);
        });
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0 && molbat_status().load_count == 1);
        REQUIRE(molbAtTerminate(&handle) == 0 && molbat_status().load_count == 0);
        REQUIRE(*fake<int>("fake_unloads") == 1);
    });
}

// The monitor checks itself: a lock that let two parties in ends the process.
TEST_F(Shim, ServesThreadsWhileOthersInitialise) {
    in_child("libfake_full.so", [] {
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < 300; ++i) {
                    void* own = nullptr;
                    REQUIRE(molbAtFree(nullptr) == 0 && fake<fake_call>("fake_last")->index == 91);
                    if (i % 4 == t) {
                        REQUIRE(molbAtInit(nullptr, &own) == 0);
                        REQUIRE(molbAtTerminate(&own) == 0);
                    }
                }
            });
        }
        threads.clear();
        REQUIRE(molbat_status().load_count == 1);
        REQUIRE(api_mon.m_lock_type == Mon_NoLock && api_mon.m_queued_writers == 0);
    });
    EXPECT_DEATH((run_once_init(), monitor_release(&api_mon)),
                 "m_lock_type != Mon_NoLock, file api");
}

TEST_F(Shim, ToleratesMissingNewSymbolsOnlyWithoutAVersion) {
    in_child("libfake_gap101.so", [] {  // exactly 0..100
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        REQUIRE(molbat_status().highest == 100);
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        REQUIRE(molbAtDeleteCredentialFromStore(1) == at_not_available);            // 101
        REQUIRE(molbAtAuthenticateEx(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12) == 0);  // 114, lazily
        const molb_version v41{.major = 4, .minor = 1};
        const molb_version v42{.major = 4, .minor = 2};
        REQUIRE(molbAtInit(&v41, &handle) == 0);
        REQUIRE(molbAtInit(&v42, &handle) == at_not_available);
        REQUIRE(molbat_status().load_count == 3);
    });
    in_child("libfake_gap100.so", [] {  // 0..99 is one too few
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == at_not_available);
        REQUIRE(molbat_status().load_count == 0 && !molbat_status().loaded);
        REQUIRE(*fake<int>("fake_unloads") == 1);
        const molb_version v44{.major = 4, .minor = 4};
        REQUIRE(molbAtInit(&v44, &handle) == at_not_available);
    });
    in_child("libfake_gap170.so", [] {  // the older way to start an instance
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0 && fake<fake_call>("fake_last")->index == 0);
    });
}

TEST_F(Shim, NamesEveryCallAtDebugLevelFour) {
    const fs::path log = home_ / "debug.txt";
    in_child("libfake_full.so", [&] {
        setenv("MOLBat_API_DEBUG_LEVEL", "4", 1);
        setenv("MOLBat_API_DEBUG_FILE", log.c_str(), 1);
        void* handle = nullptr;
        (void)molbAtFree(nullptr);
        (void)molbAtInit(nullptr, &handle);
        (void)molbAtTerminate(&handle);
    });
    const std::string text = read_whole_file(log);
    for (const char* line : {") AtInit version {0,0}\n", "\nCalling molbAtInitEx\n",
                             "\nCalling molbAtFree\n", "Unload: load count now 1\n"}) {
        EXPECT_TRUE(contains(text, line)) << line;
    }
}

TEST(Loader, KnowsVersionsAndAdministrativeNames) {
    const struct {
        molb_version wanted, used;
        int highest;
    } rows[] = {
        {{4, 0}, {4, 4}, 116},  {{4, 1}, {4, 1}, 100}, {{4, 3}, {4, 3}, 111}, {{4, 9}, {4, 4}, 116},
        {{5, 0}, {5, 0}, 130},  {{5, 2}, {5, 1}, 134}, {{6, 1}, {6, 0}, 174}, {{7, 0}, {6, 0}, 174},
        {{-1, 0}, {6, 0}, 174}, {{3, 4}, {6, 0}, 174},
    };
    molb_version used{};
    for (const auto& r : rows) {
        EXPECT_EQ(molbat_negotiate(&r.wanted, &used), r.highest)
            << r.wanted.major << "." << r.wanted.minor;
        EXPECT_EQ(used.major, r.used.major);
        EXPECT_EQ(used.minor, r.used.minor);
    }
    EXPECT_EQ(molbat_negotiate(nullptr, &used), 174);
    EXPECT_EQ(isAdminAPI("molbAtChangePassword"), 1);
    EXPECT_EQ(isAdminAPI("molbAtFree"), 0);
}

TEST_F(Shim, FindsTheLibraryByHomeLibraryPathAndLocationFile) {
    constexpr const char* path_template = "/opt/MOLBat/lib//libmolbat4L_t.so";
    std::ofstream(home_ / "with_key") << "# comment\nOther=/x\nProductInstallDir=/P\n";
    std::ofstream(home_ / "without_key") << "#ProductInstallDir=/no\n";
    const struct {
        int kind;
        const char* library_path;
        const char* home;
        const char* location;
        const char* result;  // "": refused
        std::uint32_t error;
    } rows[] = {
        {0, "", "/H", "missing", "/H/lib/libmolbat4L_t.so", 0},
        {4, "", "/H/", "missing", "/H/lib/libmolbat4L_t.so", 0},
        {0, "", "/H//", "missing", "/H//lib/libmolbat4L_t.so", 0},
        {0, "", "", "missing", "", at_not_available},
        {0, "", "", "with_key", "/P/lib//libmolbat4L_t.so", 0},
        {0, "", "", "without_key", "/opt/MOLBat/lib//libmolbat4L_t.so", 0},
        {0, "/somewhere", "/H", "missing", "libmolbat4L_t.so", 0},
        {3, "", "/H", "with_key", "/P/lib//libmolbat4L_t.so", 0},
        {1, "", "/H", "missing", "", at_invalid_argument},
    };
    unsetenv("ZEL_HOME_DIR");
    std::uint32_t error = 0;
    for (const auto& r : rows) {
        const std::string location = home_ / r.location;
        molbat_loc_path = location.c_str();
        const molb_init settings{r.home, nullptr, nullptr, r.library_path};
        const auto make = [&](std::vector<char> out) {
            const int ok = tpk_method_make_path_ex(r.kind, path_template, &settings, out.size(),
                                                   out.data(), &error);
            return ok == 1 ? std::string(out.data()) : "";
        };
        EXPECT_EQ(make(std::vector<char>(2048)), r.result);
        EXPECT_EQ(error, r.error);
        // A buffer that is one byte short is never overrun.
        EXPECT_EQ(make(std::vector<char>(std::strlen(r.result))), "");
    }
    setenv("ZEL_HOME_DIR", "/E", 1);
    char out[2048] = "";
    EXPECT_EQ(tpk_method_make_path(0, path_template, sizeof out, out, &error), 1);
    EXPECT_STREQ(out, "/E/lib/libmolbat4L_t.so");
}

}  // namespace
