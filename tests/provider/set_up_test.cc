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

// Runs `body` in a child and returns its exit status; 200 when it did not exit by itself.
int in_child(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

constexpr uid_t nobody = 65534;

}  // namespace

class set_up_test : public provider_test {};

TEST_F(set_up_test, exports_every_name_and_no_other) {
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
    for (const char* name : {"molbAtWebAuthenticate", "_KPRRegOpen", "molbAtAlloc",
                             "molbAtSecConnConnectWithCommExtn", "molbAtSecConnAccept"}) {
        const auto entry = reinterpret_cast<std::uint32_t (*)()>(dlsym(lib.module, name));
        ASSERT_NE(entry, nullptr) << name;
        EXPECT_EQ(entry(), at_not_available) << name;
    }
}

TEST_F(set_up_test, loads_and_unloads_for_the_shim) {
    for (const char* command : {"Load", "Load|/opt/x", "Load|/opt/x|/opt/y"}) {
        void* loaded = nullptr;
        ASSERT_EQ(lib.control(command, &loaded), at_ok) << command;
        EXPECT_EQ(dlsym(loaded, "molbAtFree"), reinterpret_cast<void*>(lib.release));
        EXPECT_EQ(lib.control("Unload", loaded), at_ok);
    }
    void* loaded = nullptr;
    EXPECT_EQ(lib.control("Loader", &loaded), at_invalid_argument);
    EXPECT_EQ(lib.control("unload", lib.module), at_invalid_argument);
    EXPECT_EQ(lib.control(nullptr, &loaded), at_invalid_argument);
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
    EXPECT_EQ(lib.terminate(first), at_ok);
}

TEST_F(set_up_test, certificate_is_good_for_both_sides_of_a_loopback_connection) {
    set_up();
    const openssl_owned<BIO> bio(BIO_new_file((site() / "server.crt").c_str(), "r"));
    const openssl_owned<X509> certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    ASSERT_NE(certificate, nullptr);
    X509* c = certificate.get();
    std::array<char, 256> host{};
    gethostname(host.data(), host.size() - 1);
    for (const char* name : {"localhost", static_cast<const char*>(host.data())}) {
        EXPECT_EQ(X509_check_host(c, name, 0, 0, nullptr), 1) << name;
    }
    EXPECT_EQ(X509_check_ip_asc(c, "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_ip_asc(c, "::1", 0), 1);
    EXPECT_EQ(X509_check_ca(c), 0);
    EXPECT_EQ(X509_check_purpose(c, X509_PURPOSE_SSL_CLIENT, 0), 1);
    EXPECT_EQ(X509_check_purpose(c, X509_PURPOSE_SSL_SERVER, 0), 1);
    int days = 0;
    int seconds = 0;
    ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(c), X509_get0_notAfter(c));
    EXPECT_EQ(days, 3650);
}

TEST_F(set_up_test, processes_that_start_together_set_up_once) {
    constexpr int children = 4;
    std::array<int, 2> gate{};
    ASSERT_EQ(pipe(gate.data()), 0);
    std::array<pid_t, children> started{};
    for (std::size_t i = 0; i < children; ++i) {
        started[i] = fork();
        if (started[i] == 0) {
            const std::string log = (base / ("log" + std::to_string(i))).string();
            dup2(open(log.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600), STDERR_FILENO);
            close(gate[1]);
            char byte = 0;
            (void)!read(gate[0], &byte, 1);  // ends for all when the parent opens the gate
            void* own = nullptr;
            _exit(lib.init(nullptr, &own, nullptr, 0, 0, 0) == at_ok ? 0 : 1);
        }
    }
    close(gate[0]);
    close(gate[1]);
    std::string logs;
    for (std::size_t i = 0; i < children; ++i) {
        int status = -1;
        waitpid(started[i], &status, 0);
        EXPECT_EQ(status, 0) << i;
        logs += text_of(base / ("log" + std::to_string(i)));
    }
    const std::string password = password_in(logs);
    EXPECT_EQ(logs.find("password: "), logs.rfind("password: ")) << logs;
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 1);
    std::string log;
    ASSERT_EQ(start(&handle, &log), at_ok);
    EXPECT_EQ(log_in("local", "root", password.c_str()), at_ok);
}

TEST_F(set_up_test, password_goes_to_a_file_when_nobody_reads_standard_error) {
    const int status = in_child([&] {
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
        void* own = nullptr;
        return lib.init(nullptr, &own, nullptr, 0, 0, 0) == at_ok ? 0 : 1;
    });
    ASSERT_EQ(status, 0);
    EXPECT_EQ(mode_of(site() / "initial-password"), 0600);
    std::string password = text_of(site() / "initial-password");
    ASSERT_EQ(password.size(), 17U);
    password.pop_back();
    ASSERT_EQ(start(&handle), at_ok);
    EXPECT_EQ(log_in("local", "root", password.c_str()), at_ok);
}

TEST_F(set_up_test, refuses_what_is_incomplete_and_generates_nothing) {
    void* none = &none;
    unsetenv("ZEL_DATA_DIR");
    EXPECT_EQ(start(&none), at_invalid_argument);
    EXPECT_EQ(none, nullptr);
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
    const std::string missing = (base / "missing").string();
    const molb_init elsewhere{nullptr, missing.c_str(), nullptr, nullptr};
    EXPECT_EQ(lib.init(nullptr, &none, &elsewhere, 0, 0, 0), at_not_available);
    EXPECT_FALSE(fs::exists(missing));

    set_up();
    std::string log;
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
    const std::string directory = data_dir.string();
    const molb_init init{nullptr, directory.c_str(), nullptr, nullptr};
    ASSERT_EQ(lib.init(nullptr, &handle, &init, 0, 0, 0), at_ok);
    void** list = nullptr;
    std::int32_t count = 1;
    EXPECT_EQ(lib.get_credentials(handle, nullptr, 0, &list, &count), at_not_available);
    EXPECT_EQ(count, 0);
    const molb_identity service{"localhost", nullptr, nullptr, nullptr};
    void* credential = nullptr;
    EXPECT_EQ(lib.authenticate(handle, &service, 0, &credential), at_not_available);
}

TEST_F(set_up_test, tells_when_it_may_not_write) {
    fs::create_directory(data_dir);
    fs::permissions(base, fs::perms(0755));
    fs::permissions(data_dir, fs::perms(0555));
    const int status = in_child([&] {
        if (geteuid() == 0 && setuid(nobody) != 0) {
            return 2;
        }
        void* own = nullptr;
        return lib.init(nullptr, &own, nullptr, 0, 0, 0) == at_permission_denied ? 0 : 1;
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
        if (setuid(nobody) != 0) {
            return 2;
        }
        const molb_identity service{"localhost", nullptr, nullptr, nullptr};
        void* credential = nullptr;
        const bool kept = lib.authenticate(handle, &service, 0, &credential) == at_ok &&
                          log_in("local", "root", root_password.c_str()) == at_ok &&
                          log_in("local", "root", "wrong") == at_refused;
        return kept ? 0 : 1;
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
    const molb_identity service{"localhost", nullptr, nullptr, nullptr};
    EXPECT_EQ(lib.authenticate(stranger.data(), &service, 0, &credential), at_invalid_argument);
    EXPECT_EQ(credential, nullptr);
    ASSERT_EQ(lib.authenticate(handle, &service, 0, &credential), at_ok);
    EXPECT_EQ(info_of(lib, handle, credential), "localhost/service/service");
    EXPECT_EQ(lib.terminate(credential), at_invalid_argument);
    EXPECT_EQ(lib.release(handle), at_invalid_argument);
    molb_info* info = nullptr;
    EXPECT_EQ(lib.extract_info(handle, handle, &info), at_invalid_argument);
    EXPECT_EQ(lib.release(nullptr), at_ok);

    void** list = nullptr;
    std::int32_t count = 0;
    ASSERT_EQ(lib.get_credentials(handle, &service, 0, &list, &count), at_ok);
    ASSERT_EQ(count, 1);
    void* kept = list[0];
    EXPECT_EQ(lib.release(list), at_ok);
    EXPECT_EQ(info_of(lib, handle, kept), "localhost/service/service");
    EXPECT_EQ(lib.release(kept), at_ok);
    EXPECT_EQ(lib.release(credential), at_ok);
}
