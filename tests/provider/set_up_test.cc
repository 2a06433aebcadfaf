// What the library exports, how it sets a data directory up, and how it takes changed files over.
#include <dlfcn.h>
#include <fcntl.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "security/at_symbols.h"
#include "tests/provider/provider_fixture.h"

namespace {

namespace fs = std::filesystem;

std::string text_of(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

int mode_of(const fs::path& path) {
    return static_cast<int>(fs::status(path).permissions());
}

// 200 when it did not exit by itself.
int exit_status_of(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

// Runs `body` in a child; 0 when it was true.
int in_child(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body() ? 0 : 1);
    }
    return exit_status_of(child);
}

constexpr uid_t nobody = 65534;

}  // namespace

class set_up_test : public provider_test {};

TEST(library_file, exports_every_name_and_loads_for_the_shim) {
    std::set<std::string> expected = {"molbatLibraryControl"};
#define MOLBAT_INSERT(index, name, kind) expected.insert(#name);
    MOLBAT_ENTRY_POINTS(MOLBAT_INSERT)
#undef MOLBAT_INSERT
    ASSERT_EQ(expected.size(), 176U);
    std::set<std::string> exported;
    FILE* names = popen("nm -D --defined-only --format=just-symbols " PROVIDER_FILE, "r");
    ASSERT_NE(names, nullptr);
    std::array<char, 256> line{};
    while (fgets(line.data(), line.size(), names) != nullptr) {
        exported.insert(std::string(line.data(), strcspn(line.data(), "\n")));
    }
    ASSERT_EQ(pclose(names), 0);
    EXPECT_EQ(exported, expected);

    void* file = dlopen(PROVIDER_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(file, nullptr) << dlerror();
    for (const char* name : {"molbAtWebAuthenticate", "_KPRRegOpen", "molbAtSecConnAccept"}) {
        const auto entry = reinterpret_cast<std::uint32_t (*)()>(dlsym(file, name));
        EXPECT_EQ(entry(), at_not_available) << name;
    }
    const auto control =
        reinterpret_cast<decltype(&molbatLibraryControl)>(dlsym(file, "molbatLibraryControl"));
    void* loaded = nullptr;
    for (const char* command : {"Load", "Load|/opt/x", "Load|/opt/x|/opt/y"}) {
        ASSERT_EQ(control(command, &loaded), at_ok) << command;
        EXPECT_EQ(dlsym(loaded, "molbAtFree"), dlsym(file, "molbAtFree"));
        EXPECT_EQ(control("Unload", loaded), at_ok);
    }
    EXPECT_EQ(control("Loader", &loaded), at_invalid_argument);
    EXPECT_EQ(control("unload", file), at_invalid_argument);
    EXPECT_EQ(control(nullptr, &loaded), at_invalid_argument);
}

TEST_F(set_up_test, first_use_happens_once) {
    std::string log;
    void* first = nullptr;
    ASSERT_EQ(start(&first, &log), at_ok) << log;
    const std::string password = password_in(log);
    EXPECT_EQ(password.size(), 16U) << log;
    EXPECT_NE(log.find(site().string()), std::string::npos) << log;
    EXPECT_EQ(mode_of(data_dir), 0700);
    EXPECT_EQ(mode_of(site()), 0700);
    EXPECT_EQ(mode_of(site() / "server.key"), 0600);
    EXPECT_EQ(mode_of(site() / "users" / "root"), 0600);
    EXPECT_EQ(text_of(site() / "peer_ca.pem"), text_of(site() / "server.crt"));
    EXPECT_FALSE(fs::exists(site() / "initial-password"));
    const std::string certificate = text_of(site() / "server.crt");

    ASSERT_EQ(start(&handle, &log), at_ok);
    EXPECT_EQ(log, "");
    EXPECT_EQ(text_of(site() / "server.crt"), certificate);
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 1);
    std::string who;
    EXPECT_EQ(log_in("local", "root", password.c_str(), &who), at_ok);
    EXPECT_EQ(who, "localhost/local/root");
    EXPECT_EQ(molbAtTerminate(first), at_ok);
}

TEST_F(set_up_test, certificate_is_for_this_host_and_ten_years) {
    set_up();
    const provider::openssl_ptr<BIO> bio(BIO_new_file((site() / "server.crt").c_str(), "r"));
    const provider::openssl_ptr<X509> certificate(
        PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    ASSERT_NE(certificate, nullptr);
    X509* c = certificate.get();
    std::array<char, 256> host{};
    gethostname(host.data(), host.size() - 1);
    for (const char* name : {"localhost", static_cast<const char*>(host.data())}) {
        EXPECT_EQ(X509_check_host(c, name, 0, 0, nullptr), 1) << name;
    }
    EXPECT_EQ(X509_check_ip_asc(c, "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(c, "::1", 0), 1);
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(c), X509_get0_notAfter(c));
    EXPECT_EQ(days, 3650);
}

TEST_F(set_up_test, processes_that_start_together_set_up_once) {
    std::array<pid_t, 4> started{};
    const std::string log_file = base / "log";
    for (pid_t& child : started) {
        child = fork();
        if (child == 0) {
            dup2(open(log_file.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600), STDERR_FILENO);
            void* own = nullptr;
            _exit(molbAtInit(nullptr, &own) == at_ok ? 0 : 1);
        }
    }
    for (const pid_t child : started) {
        EXPECT_EQ(exit_status_of(child), 0);
    }
    const std::string logs = text_of(log_file);
    EXPECT_EQ(logs.find("password: "), logs.rfind("password: ")) << logs;
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 1);
    set_up();
    EXPECT_EQ(log_in("local", "root", password_in(logs).c_str()), at_ok);
}

TEST_F(set_up_test, password_goes_to_a_file_when_nobody_reads_standard_error) {
    const int status = in_child([&] {
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        void* own = nullptr;
        return molbAtInit(nullptr, &own) == at_ok;
    });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(mode_of(site() / "initial-password"), 0600);
    std::string password = text_of(site() / "initial-password");
    ASSERT_EQ(password.size(), 17U);
    password.pop_back();
    set_up();
    EXPECT_EQ(log_in("local", "root", password.c_str()), at_ok);
}

TEST_F(set_up_test, refuses_what_is_incomplete_and_generates_nothing) {
    std::string log;
    void* none = &none;
    unsetenv("ZEL_DATA_DIR");
    EXPECT_EQ(start(&none, &log), at_invalid_argument);
    EXPECT_EQ(none, nullptr);
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
    EXPECT_EQ(start_in(base / "missing", &none), at_not_available);
    EXPECT_FALSE(fs::exists(base / "missing"));

    set_up();
    fs::permissions(site() / "server.key", fs::perms(0640));
    EXPECT_EQ(start(&none, &log), at_permission_denied);
    EXPECT_NE(log.find("server.key"), std::string::npos) << log;
    for (const char* name : {"server.key", "server.crt", "domains", "users"}) {
        fs::permissions(site() / "server.key", fs::perms(0600));
        fs::rename(site() / name, base / name);
        EXPECT_EQ(start(&none, &log), at_not_available) << name;
        EXPECT_NE(log.find(name), std::string::npos) << log;
        EXPECT_FALSE(fs::exists(site() / name));
        fs::rename(base / name, site() / name);
    }
    write_file(site() / "server.key", make_certificate({"other"}).key_pem(), 0600);
    EXPECT_EQ(start(&none, &log), at_file_error);
    EXPECT_EQ(none, nullptr);
}

TEST_F(set_up_test, instance_without_keys_has_no_service_credential) {
    fs::create_directories(site() / "users");
    write_file(site() / "domains", "local:password:host\n");
    ASSERT_EQ(start_in(data_dir, &handle), at_ok);
    void** list = nullptr;
    std::int32_t count = 1;
    EXPECT_EQ(molbAtGetCredentials(handle, nullptr, 0, &list, &count), at_not_available);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(log_in(nullptr, nullptr, nullptr), at_not_available);
}

TEST_F(set_up_test, tells_when_it_may_not_write) {
    fs::create_directory(data_dir);
    fs::permissions(base, fs::perms(0755));
    fs::permissions(data_dir, fs::perms(0555));
    const int status = in_child([&] {
        void* own = nullptr;
        return (geteuid() != 0 || setuid(nobody) == 0) &&
               molbAtInit(nullptr, &own) == at_permission_denied;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 0);
}

TEST_F(set_up_test, keeps_what_it_knows_after_giving_up_its_rights) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to have rights that can be given up";
    }
    set_up();
    fs::permissions(base, fs::perms(0755));
    const int status = in_child([&] {
        return setuid(nobody) == 0 && log_in(nullptr, nullptr, nullptr) == at_ok &&
               log_in("local", "root", root_password.c_str()) == at_ok &&
               log_in("local", "root", "wrong") == at_refused;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(set_up_test, new_files_belong_to_the_owner_of_the_data_directory) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root makes files for others";
    }
    fs::create_directory(data_dir);
    ASSERT_EQ(chown(data_dir.c_str(), nobody, nobody), 0);
    set_up();
    struct stat status {};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(data_dir)) {
        ASSERT_EQ(lstat(entry.path().c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, nobody) << entry.path();
    }
}

TEST_F(set_up_test, out_arguments_are_cleared_and_strangers_refused) {
    set_up();
    std::array<std::uint32_t, 16> stranger{};
    void* credential = &credential;
    EXPECT_EQ(molbAtAuthenticate(stranger.data(), &service_identity, 0, &credential),
              at_invalid_argument);
    EXPECT_EQ(credential, nullptr);
    ASSERT_EQ(molbAtAuthenticate(handle, &service_identity, 0, &credential), at_ok);
    EXPECT_EQ(info_of(handle, credential), "localhost/service/service");
    EXPECT_EQ(molbAtTerminate(credential), at_invalid_argument);
    EXPECT_EQ(molbAtFree(handle), at_invalid_argument);
    molb_info* info = nullptr;
    EXPECT_EQ(molbAtExtractInfo(handle, handle, &info), at_invalid_argument);
    EXPECT_EQ(molbAtFree(nullptr), at_ok);

    void** list = nullptr;
    std::int32_t count = 0;
    ASSERT_EQ(molbAtGetCredentials(handle, &service_identity, 0, &list, &count), at_ok);
    ASSERT_EQ(count, 1);
    void* kept = list[0];
    EXPECT_EQ(molbAtFree(list), at_ok);
    EXPECT_EQ(info_of(handle, kept), "localhost/service/service");
    EXPECT_EQ(molbAtFree(kept), at_ok);
    EXPECT_EQ(molbAtFree(credential), at_ok);
}
