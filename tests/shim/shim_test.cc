// Proves the shim against a recording library: arguments and results pass unchanged, versions are
// negotiated, gaps and failures are survived, the monitor excludes writers. Every scenario runs in
// a process of its own, since a library is loaded once per process.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "security/api.h"
#include "security/api_monitor.h"
#include "tests/shim/fake_library.h"

extern "C" {
// Entry points that forward words, as callers with other argument lists see them.
std::uint64_t molbAtGetSecurityLevel();
std::uint64_t molbAtWebAuthenticate(std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                    std::uintptr_t);
std::uint64_t molbAtAuthenticateEx(std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                   std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                                   std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t);
void* molbAtAlloc(std::size_t);
std::uint64_t molbAtRegisterService(std::uintptr_t);
}

namespace {

// Runs a scenario in a child; it fails with the line of its first unmet requirement.
template <class Scenario>
void in_child(Scenario scenario) {
    const auto run = [&] {
        scenario();
        std::_Exit(0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

#define REQUIRE(condition)                                                          \
    if (!(condition)) {                                                             \
        std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition), std::_Exit(1); \
    }

// A home directory whose library is one of the built variants; null: none.
void use_library(const char* variant) {
    static std::string home = (std::filesystem::temp_directory_path() / "shim.XXXXXX").string();
    REQUIRE(mkdtemp(home.data()) != nullptr);
    std::filesystem::create_directory(home + "/lib");
    if (variant != nullptr) {
        std::filesystem::create_symlink(std::string(FAKE_FOLDER) + "/" + variant,
                                        home + "/lib/libmolbat4L_t.so");
    }
    setenv("ZEL_HOME_DIR", home.c_str(), 1);
    unsetenv("ZEL_USE_LIBPATH");
}

template <class T>
T* fake(const char* name) {
    void* library =
        dlopen((std::string(std::getenv("ZEL_HOME_DIR")) + "/lib/libmolbat4L_t.so").c_str(),
               RTLD_NOW | RTLD_NOLOAD);
    REQUIRE(library != nullptr);
    return static_cast<T*>(dlsym(library, name));
}

TEST(Stubs, PassWordsAndPointersUnchanged) {
    in_child([] {
        use_library("libfake_full.so");
        // A call before any initialisation loads the library by itself.
        REQUIRE(molbAtGetSecurityLevel() == 0);
        auto* last = fake<fake_call>("fake_last");
        auto* result = fake<std::uint64_t>("fake_result");
        REQUIRE(last->index == 10);
        REQUIRE(std::strcmp(fake<char>("fake_command"), "Load") == 0);

        *result = 0xfedcba9876543210U;
        REQUIRE(molbAtWebAuthenticate(1, 2, 3, 4, 5, 6, 7, 8, 9) == *result);
        REQUIRE(last->index == 3);
        for (std::uintptr_t i = 0; i < 9; ++i) {
            REQUIRE(last->arguments[i] == i + 1);
        }
        REQUIRE(molbAtAuthenticateEx(~0UL, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, ~1UL) == *result);
        REQUIRE(last->arguments[0] == ~0UL && last->arguments[11] == ~1UL);
        REQUIRE(molbAtAlloc(77) == reinterpret_cast<void*>(*result));
        REQUIRE(last->index == 96 && last->arguments[0] == 77);

        *result = 28675;
        void* channel = nullptr;
        REQUIRE(molbAtSecConnAcceptWithCommExtn(last, 5, result, 4, &channel, 1, 0, &channel,
                                                nullptr) == 28675);
        REQUIRE(last->index == 174 && static_cast<int>(last->arguments[1]) == 5 &&
                static_cast<std::uint32_t>(last->arguments[3]) == 4);
        *result = static_cast<std::uint64_t>(-1);
        REQUIRE(molbAtSecConnRead(nullptr, nullptr, 0) == -1);
    });
}

// Opens the library before the shim does, so that its load entry can be made to call back.
void call_back_on_control(void (*function)()) {
    const std::string path = std::string(std::getenv("ZEL_HOME_DIR")) + "/lib/libmolbat4L_t.so";
    REQUIRE(dlopen(path.c_str(), RTLD_NOW) != nullptr);
    *fake<void (*)()>("fake_on_control") = function;
}

constexpr int locals_count = 16;
volatile std::uintptr_t* callers_locals = nullptr;

// A forwarder that ends in a jump would read the words above its frame, resolve the symbol and
// write the old words back over the locals of a caller that passed fewer arguments.
[[gnu::noinline]] bool locals_survive() {
    volatile std::uintptr_t locals[locals_count];
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

TEST(Stubs, LeaveTheCallersStackAlone) {
    in_child([] {
        use_library("libfake_full.so");
        call_back_on_control([] {
            for (int i = 0; i < locals_count; ++i) {
                callers_locals[i] = callers_locals[i] + 1;
            }
        });
        REQUIRE(locals_survive());
    });
}

TEST(Stubs, AnswerNotAvailableWithoutALibrary) {
    in_child([] {
        use_library(nullptr);
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == at_not_available);
        REQUIRE(molbAtFree(&handle) == at_not_available);
        REQUIRE(molbAtSecConnRead(nullptr, nullptr, 10) == at_not_available);
        REQUIRE(molbAtGetSecurityLevel() == at_not_available);
        REQUIRE(molbAtTerminate(nullptr) == 0);
        REQUIRE(molbAtTerminate(&handle) == at_not_available);
    });
}

TEST(Loader, CountsLoadsAndForgetsEverythingAtTheEnd) {
    in_child([] {
        use_library("libfake_full.so");
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        auto* last = fake<fake_call>("fake_last");
        REQUIRE(last->index == 170 && last->arguments[0] == 0);  // InitEx is preferred
        const auto* init = reinterpret_cast<const molb_init*>(last->arguments[2]);
        REQUIRE(init != nullptr);
        REQUIRE(molbat_status().load_count == 1 && molbat_status().highest == 174);
        const molb_version old{.major = 4, .minor = 9};
        const molb_init record{.home = std::getenv("ZEL_HOME_DIR"),
                               .data_dir = "/data",
                               .reserved = nullptr,
                               .library_path = nullptr};
        REQUIRE(molbAtInitEx(&old, &handle, &record, 7, 8, 9) == 0);
        REQUIRE(last->arguments[0] == reinterpret_cast<std::uintptr_t>(&old));  // the caller's own
        REQUIRE(last->arguments[3] == 7 && last->arguments[5] == 9);
        REQUIRE(molbat_status().load_count == 2);
        REQUIRE(molbAtTerminate(&handle) == 0 && last->index == 1);
        REQUIRE(molbat_status().load_count == 1 && *fake<int>("fake_unloads") == 0);
        int* unloads = fake<int>("fake_unloads");
        REQUIRE(molbAtTerminate(&handle) == 0);
        REQUIRE(*unloads == 1 && !molbat_status().loaded && molbat_status().highest == -1);
        REQUIRE(molbAtInit(nullptr, &handle) == 0);  // a reload needs no second dlopen
        REQUIRE(*fake<int>("fake_loads") == 2);
    });
}

// Called by the library while it is being loaded and unloaded, as if its own calls landed in the
// stubs: a refusal, where waiting would never end.
void call_stubs_from_the_library() {
    void* handle = nullptr;
    REQUIRE(molbAtFree(&handle) == at_not_available);
    REQUIRE(molbAtGetSecurityLevel() == at_not_available);
    REQUIRE(molbAtInit(nullptr, &handle) == at_not_available);
    REQUIRE(molbAtTerminate(&handle) == at_not_available);
}

TEST(Loader, RefusesCallsOutOfItsOwnLoadAndUnload) {
    in_child([] {
        use_library("libfake_full.so");
        alarm(30);
        call_back_on_control(call_stubs_from_the_library);
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        REQUIRE(molbat_status().load_count == 1);
        REQUIRE(molbAtFree(nullptr) == 0);
        REQUIRE(molbAtTerminate(&handle) == 0);
        REQUIRE(*fake<int>("fake_unloads") == 1 && molbat_status().load_count == 0);
    });
}

TEST(Loader, ServesThreadsWhileOthersInitialise) {
    in_child([] {
        use_library("libfake_full.so");
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([t, &handle] {
                for (int i = 0; i < 300; ++i) {
                    void* own = nullptr;
                    REQUIRE(molbAtFree(nullptr) == 0 && fake<fake_call>("fake_last")->index == 91);
                    if (i % 4 == t) {
                        REQUIRE(molbAtInit(nullptr, &own) == 0);
                        REQUIRE(molbAtTerminate(&handle) == 0);
                    }
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        REQUIRE(molbat_status().load_count == 1);
    });
}

TEST(Loader, ToleratesMissingNewSymbolsOnlyWithoutAVersion) {
    in_child([] {  // exactly 0..100
        use_library("libfake_gap101.so");
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        REQUIRE(molbat_status().highest == 100);
        REQUIRE(molbAtAuthenticateEx(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12) == 0);  // 114, lazily
        const molb_version v41{.major = 4, .minor = 1};
        const molb_version v42{.major = 4, .minor = 2};
        REQUIRE(molbAtInit(&v41, &handle) == 0);
        REQUIRE(molbAtInit(&v42, &handle) == at_not_available);
    });
    in_child([] {  // 0..99 is one too few
        use_library("libfake_gap100.so");
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == at_not_available);
        REQUIRE(molbat_status().load_count == 0 && !molbat_status().loaded);
        REQUIRE(*fake<int>("fake_unloads") == 1);
        const molb_version v40{.major = 4, .minor = 4};
        REQUIRE(molbAtInit(&v40, &handle) == at_not_available);
    });
    in_child([] {  // the used entry point itself is missing
        use_library("libfake_gap174.so");
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        void* channel = nullptr;
        REQUIRE(molbAtSecConnAcceptWithCommExtn(nullptr, 0, nullptr, 4, nullptr, 1, 0, &channel,
                                                nullptr) == at_not_available);
    });
}

TEST(Loader, PassesOnTheLibrarysRefusal) {
    for (const auto& [text, expected] : {std::pair{"24665", 24665U}, std::pair{"0", 24598U}}) {
        in_child([text = text, expected = expected] {
            use_library("libfake_full.so");
            setenv("FAKE_LOAD_RESULT", text, 1);
            void* handle = nullptr;
            REQUIRE(molbAtInit(nullptr, &handle) == expected);
            REQUIRE(molbat_status().load_count == 0);
        });
    }
    molb_init settings{
        .home = "/h", .data_dir = nullptr, .reserved = nullptr, .library_path = nullptr};
    const auto command = [](const molb_init* given) {
        char* text = makeLoadCmd(given);
        std::string copy = text;
        std::free(text);
        return copy;
    };
    EXPECT_EQ(command(nullptr), "Load");
    EXPECT_EQ(command(&settings), "Load|/h");
    settings.library_path = "/l";
    EXPECT_EQ(command(&settings), "Load|/h|/l");
}

TEST(Loader, DebugLevelFourNamesEveryCall) {
    in_child([] {
        use_library("libfake_full.so");
        const std::string log = std::string(std::getenv("ZEL_HOME_DIR")) + "/debug.txt";
        setenv("MOLBat_API_DEBUG_LEVEL", "4", 1);
        setenv("MOLBat_API_DEBUG_FILE", log.c_str(), 1);
        void* handle = nullptr;
        REQUIRE(molbAtInit(nullptr, &handle) == 0);
        (void)molbAtFree(nullptr);
        std::stringstream text;
        text << std::ifstream(log).rdbuf();
        REQUIRE(text.str().find("\nCalling molbAtInitEx\n") != std::string::npos);
        REQUIRE(text.str().ends_with("Calling molbAtFree\n"));
        REQUIRE(text.str().find(") AtInit version {0,0}\n") != std::string::npos);
    });
}

TEST(Versions, AreTruncatedToKnownOnes) {
    struct row {
        int major, minor, used_major, used_minor, highest;
    };
    for (const row& r : std::vector<row>{{4, 0, 4, 4, 116},
                                         {4, 1, 4, 1, 100},
                                         {4, 2, 4, 2, 103},
                                         {4, 3, 4, 3, 111},
                                         {4, 4, 4, 4, 116},
                                         {4, 9, 4, 4, 116},
                                         {5, 0, 5, 0, 130},
                                         {5, 1, 5, 1, 134},
                                         {5, 2, 5, 1, 134},
                                         {6, 0, 6, 0, 174},
                                         {6, 1, 6, 0, 174},
                                         {7, 0, 6, 0, 174},
                                         {-1, 0, 6, 0, 174},
                                         {3, 4, 6, 0, 174}}) {
        const molb_version wanted{.major = r.major, .minor = r.minor};
        molb_version used{};
        EXPECT_EQ(molbat_negotiate(&wanted, &used), r.highest) << r.major << "." << r.minor;
        EXPECT_EQ(used.major, r.used_major);
        EXPECT_EQ(used.minor, r.used_minor);
    }
    molb_version used{};
    EXPECT_EQ(molbat_negotiate(nullptr, &used), 174);
    EXPECT_EQ(isAdminAPI("molbAtChangePassword"), 1);
    EXPECT_EQ(isAdminAPI("molbAtFree"), 0);
}

TEST(Paths, FollowHomeLibraryPathAndLocationFile) {
    constexpr const char* path_template = "/opt/MOLBat/lib//libmolbat4L_t.so";
    const std::string folder = testing::TempDir();
    const std::string with_key = folder + "loc_with_key";
    const std::string without_key = folder + "loc_without_key";
    std::ofstream(with_key) << "# comment\nOther=/x\nProductInstallDir=/P\n";
    std::ofstream(without_key) << "#ProductInstallDir=/no\n";
    const std::string missing = folder + "loc_missing";
    struct row {
        int kind;
        const char* library_path;
        const char* home;
        const std::string* location;
        const char* result;  // null: refused
        std::uint32_t error;
    };
    const std::vector<row> rows = {
        {0, "", "/H", &missing, "/H/lib/libmolbat4L_t.so", 0},
        {4, "", "/H/", &missing, "/H/lib/libmolbat4L_t.so", 0},
        {0, "", "/H//", &missing, "/H//lib/libmolbat4L_t.so", 0},
        {0, "", "", &missing, nullptr, at_not_available},
        {0, "", "", &with_key, "/P/lib//libmolbat4L_t.so", 0},
        {0, "", "", &without_key, "/opt/MOLBat/lib//libmolbat4L_t.so", 0},
        {0, "/somewhere", "/H", &missing, "libmolbat4L_t.so", 0},
        {3, "", "/H", &with_key, "/P/lib//libmolbat4L_t.so", 0},
        {1, "", "/H", &missing, nullptr, at_invalid_argument},
        {2, "", "/H", &missing, nullptr, at_invalid_argument},
    };
    unsetenv("ZEL_HOME_DIR");
    unsetenv("ZEL_USE_LIBPATH");
    for (const row& r : rows) {
        molbat_loc_path = r.location->c_str();
        const molb_init settings{.home = r.home,
                                 .data_dir = nullptr,
                                 .reserved = nullptr,
                                 .library_path = r.library_path};
        char out[2048] = "";
        std::uint32_t error = 0;
        const int ok =
            tpk_method_make_path_ex(r.kind, path_template, &settings, sizeof out, out, &error);
        EXPECT_EQ(ok, r.result != nullptr ? 1 : 0) << r.home;
        EXPECT_EQ(error, r.error);
        if (r.result != nullptr) {
            EXPECT_STREQ(out, r.result);
        }
        // A buffer that is one byte short is never overrun.
        if (r.result != nullptr) {
            std::vector<char> tight(std::strlen(r.result));
            EXPECT_EQ(tpk_method_make_path_ex(r.kind, path_template, &settings, tight.size(),
                                              tight.data(), &error),
                      0);
        }
    }
    setenv("ZEL_HOME_DIR", "/E", 1);
    char out[2048] = "";
    std::uint32_t error = 0;
    EXPECT_EQ(tpk_method_make_path(0, path_template, sizeof out, out, &error), 1);
    EXPECT_STREQ(out, "/E/lib/libmolbat4L_t.so");
}

TEST(Monitor, WritersExcludeEverybodyAndReadersShare) {
    api_monitor monitor;
    monitor_init(&monitor);
    std::atomic<int> readers{0};
    std::atomic<int> writers{0};
    std::atomic<bool> wrong{false};
    const auto work = [&](int seed) {
        for (int i = 0; i < 2000; ++i) {
            if ((i + seed) % 7 == 0) {
                const write_lock_guard lock(&monitor);
                wrong = wrong || writers.fetch_add(1) != 0 || readers != 0;
                --writers;
            } else {
                const lock_result lock = monitor_read_lock(&monitor);
                ++readers;
                wrong = wrong || writers != 0 || lock != lock_result::taken;
                --readers;
                monitor_release(&monitor);
            }
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back(work, t);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_FALSE(wrong);
    EXPECT_EQ(monitor.m_lock_type, Mon_NoLock);
    // A stub entered by the thread that is initialising the library is told so, not blocked.
    const write_lock_guard lock(&monitor);
    EXPECT_EQ(monitor_read_lock(&monitor), lock_result::own_writer);
    EXPECT_EQ(monitor_write_lock(&monitor), lock_result::own_writer);
}

TEST(Monitor, BrokenInvariantsEndTheProcess) {
    api_monitor monitor;
    monitor_init(&monitor);
    EXPECT_DEATH(monitor_release(&monitor), "m_lock_type != Mon_NoLock, file api");
}

}  // namespace
