// What the library exports, how it sets a data directory up, and how it takes changed files over.
#include <dlfcn.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <pty.h>

#include "provider/files.h"
#include "security/at_symbols.h"
#include "tests/provider/provider_fixture.h"

namespace {

namespace fs = std::filesystem;

int mode_of(const fs::path& path) {
    return static_cast<int>(fs::status(path).permissions());
}

constexpr uid_t nobody = 65534;

}  // namespace

class set_up_test : public provider_test {};

TEST(library_file, has_every_name_and_loads_for_the_shim) {
    void* file = dlopen(PROVIDER_FILE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(file, nullptr) << dlerror();
#define MOLBAT_EXPORTED(index, name, kind) EXPECT_NE(dlsym(file, #name), nullptr) << #name;
    MOLBAT_ENTRY_POINTS(MOLBAT_EXPORTED)
#undef MOLBAT_EXPORTED
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
    // What a process that was killed in the middle has left.
    const fs::path unfinished = data_dir / "dovmad-at.unfinished";
    fs::create_directories(unfinished / "users");
    std::ofstream(unfinished / "server.key") << "half a key";
    fs::permissions(data_dir, fs::perms::owner_all);
    const mode_t usual = umask(0);
    void* first = nullptr;
    ASSERT_EQ(start(&first), at_ok) << log;
    umask(usual);
    // Not on a terminal, so the password is in its file, and nowhere else.
    const std::string password = first_password();
    EXPECT_EQ(password.size(), 16U);
    EXPECT_FALSE(contains(log, password));
    EXPECT_TRUE(contains(log, "the password is in " + (site() / "initial-password").string()));
    EXPECT_EQ(mode_of(site()), 0700);
    EXPECT_EQ(mode_of(site() / "users"), 0700);
    for (const char* name : {"server.key", "users/root", "initial-password"}) {
        EXPECT_EQ(mode_of(site() / name), 0600) << name;
    }
    EXPECT_EQ(read_whole_file(site() / "peer_ca.pem"), read_whole_file(site() / "server.crt"));
    const std::string certificate = read_whole_file(site() / "server.crt");

    ASSERT_EQ(start(&handle), at_ok);
    EXPECT_EQ(log, "");
    EXPECT_EQ(read_whole_file(site() / "server.crt"), certificate);
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 1);
    EXPECT_EQ(log_in_as_root(password), root);
    EXPECT_EQ(molbAtTerminate(first), at_ok);
}

TEST_F(set_up_test, files_are_made_only_where_nothing_is) {
    fs::create_directory(data_dir);
    std::ofstream(base / "precious") << "text";
    fs::create_symlink(base / "precious", data_dir / "link");
    fs::create_hard_link(base / "precious", data_dir / "file");
    const unique_fd folder(open(data_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const char* name : {"link", "file"}) {
        EXPECT_EQ(provider::create_file(folder.get(), name, "other", 0600, {}), EEXIST) << name;
    }
    EXPECT_EQ(read_whole_file(base / "precious"), "text");
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
        child = begin_in_child([&] {
            dup2(open(log_file.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600), STDERR_FILENO);
            void* own = nullptr;
            return molbAtInit(nullptr, &own) == at_ok;
        });
    }
    for (const pid_t child : started) {
        EXPECT_TRUE(held(child));
    }
    const std::string logs = read_whole_file(log_file);
    EXPECT_EQ(logs.find("first start"), logs.rfind("first start")) << logs;
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 1);
    set_up();
    EXPECT_EQ(log_in_as_root(root_password), root);
}

TEST_F(set_up_test, only_a_terminal_is_shown_the_password) {
    std::array<int, 2> terminal{};
    ASSERT_EQ(openpty(&terminal[0], &terminal[1], nullptr, nullptr, nullptr), 0);
    const auto [client, inetd] = connected_pair(SOCK_NONBLOCK);
    // What a child that sets up with this standard error, and input, has printed.
    const auto printed = [&](int own, int theirs, bool also_input) {
        fs::remove_all(data_dir);
        EXPECT_TRUE(holds_in_child([&] {
            dup2(theirs, STDERR_FILENO);
            dup2(also_input ? theirs : open("/dev/null", O_RDONLY), STDIN_FILENO);
            void* started = nullptr;
            return molbAtInit(nullptr, &started) == at_ok;
        }));
        std::string text(4096, '\0');
        const ssize_t n = read(own, text.data(), text.size());
        text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return text;
    };
    const std::string shown = printed(terminal[0], terminal[1], true);
    EXPECT_EQ(mode_of(data_dir), 0700);
    const std::size_t at = shown.find("password: ");
    ASSERT_NE(at, std::string::npos) << shown;
    EXPECT_EQ(first_password(), "");
    set_up();
    EXPECT_EQ(log_in_as_root(shown.substr(at + 10, 16)), root);
    // A journal is told where it is, a client of inetd nothing.
    const std::string journal = printed(client.get(), inetd.get(), false);
    EXPECT_TRUE(contains(journal, "initial-password"));
    EXPECT_FALSE(contains(journal, first_password()));
    EXPECT_EQ(printed(client.get(), inetd.get(), true), "");
    EXPECT_EQ(first_password().size(), 16U);
    EXPECT_EQ(printed(client.get(), open("/dev/full", O_WRONLY | O_CLOEXEC), false), "");
    EXPECT_EQ(first_password().size(), 16U);
    close(terminal[0]);
    close(terminal[1]);
}

TEST_F(set_up_test, refuses_what_is_incomplete_and_generates_nothing) {
    void* none = &none;
    unsetenv("ZEL_DATA_DIR");
    EXPECT_EQ(start(&none), at_invalid_argument);
    EXPECT_EQ(none, nullptr);
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
    EXPECT_EQ(start_in(base / "missing", &none), at_not_available);
    EXPECT_FALSE(fs::exists(base / "missing"));

    set_up();
    fs::permissions(site() / "server.key", fs::perms(0640));
    EXPECT_EQ(start(&none), at_permission_denied);
    EXPECT_TRUE(contains(log, "server.key"));
    for (const char* name : {"server.key", "server.crt", "domains", "users"}) {
        fs::permissions(site() / "server.key", fs::perms(0600));
        fs::rename(site() / name, base / name);
        EXPECT_EQ(start(&none), at_not_available) << name;
        EXPECT_TRUE(contains(log, name));
        EXPECT_FALSE(fs::exists(site() / name));
        fs::rename(base / name, site() / name);
    }
    // Nobody sits in front of a daemon who could be asked for a passphrase.
    const certified_key other = make_certificate({"other"});
    const provider::openssl_ptr<BIO> locked(BIO_new(BIO_s_mem()));
    ASSERT_EQ(PEM_write_bio_PrivateKey(locked.get(), other.key.get(), EVP_aes_256_cbc(), nullptr, 0,
                                       nullptr, const_cast<char*>("secret")),
              1);
    std::string locked_key(8192, '\0');
    locked_key.resize(static_cast<std::size_t>(BIO_read(locked.get(), locked_key.data(), 8192)));
    for (const std::string& key : {other.key_pem(), locked_key}) {
        write_file(site() / "server.key", key, 0600);
        EXPECT_EQ(start(&none), at_file_error);
        EXPECT_EQ(none, nullptr);
        write_file(site() / "server.crt", other.certificate_pem());
    }
}

TEST_F(set_up_test, tells_when_it_may_not_write) {
    fs::create_directory(data_dir);
    fs::permissions(base, fs::perms(0755));
    fs::permissions(data_dir, fs::perms(0555));
    EXPECT_TRUE(holds_in_child([&] {
        void* own = nullptr;
        return (geteuid() != 0 || setuid(nobody) == 0) &&
               molbAtInit(nullptr, &own) == at_permission_denied;
    }));
    EXPECT_EQ(std::distance(fs::directory_iterator(data_dir), {}), 0);
}

// Everything below the data directory that belongs to somebody else than `owner`.
static std::string strangers_below(const fs::path& folder, uid_t owner) {
    std::string found;
    struct stat status {};
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
        found += status.st_uid == owner ? "" : entry.path().filename().string() + " ";
    }
    return found;
}

TEST_F(set_up_test, files_belong_to_the_owner_of_the_directory_and_are_kept_without_rights) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files, or rights, away";
    }
    constexpr uid_t owner = 1;
    fs::create_directory(data_dir);
    ASSERT_EQ(chown(data_dir.c_str(), owner, owner), 0);
    set_up();
    EXPECT_EQ(strangers_below(data_dir, owner), "");
    fs::permissions(base, fs::perms(0755));
    EXPECT_TRUE(holds_in_child([&] {
        return setuid(nobody) == 0 && log_in_as_service() == the_service &&
               log_in_as_root(root_password) == root && log_in_as_root("wrong") == refused;
    }));
}

TEST_F(set_up_test, files_of_root_are_handed_over_but_not_those_of_others) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give files away";
    }
    set_up();
    EXPECT_EQ(strangers_below(data_dir, 0), "");
    // A file under a second name could be any file of root's.
    std::ofstream(base / "shadow") << "secret";
    fs::create_hard_link(base / "shadow", site() / "hard");
    fs::create_symlink(base / "shadow", site() / "users" / "soft");
    ASSERT_EQ(chown(data_dir.c_str(), nobody, nobody), 0);
    for (const bool first : {true, false}) {
        void* again = nullptr;
        ASSERT_EQ(start(&again), at_ok) << log;
        EXPECT_EQ(log.find("now belong to user 65534") != std::string::npos, first) << log;
        EXPECT_EQ(strangers_below(data_dir, nobody).size(), std::string("soft hard ").size());
        EXPECT_EQ(molbAtTerminate(again), at_ok);
    }
    EXPECT_EQ(strangers_below(base, nobody).find("shadow") == std::string::npos, false);
}

TEST_F(set_up_test, what_others_may_write_is_not_believed) {
    set_up();
    void* none = nullptr;
    for (const fs::path& folder : {data_dir, site(), site() / "users"}) {
        for (const int mode : {0770, 0707}) {
            fs::permissions(folder, fs::perms(mode));
            EXPECT_EQ(start(&none), at_permission_denied);
            EXPECT_TRUE(contains(log, folder.string() + ": owner"));
            EXPECT_TRUE(contains(log, "mode 0" + std::string(mode == 0770 ? "770" : "707")));
        }
        fs::permissions(folder, fs::perms(0755));
    }
    if (geteuid() == 0) {
        ASSERT_EQ(chown((site() / "users").c_str(), 1, 1), 0);
        EXPECT_EQ(start(&none), at_permission_denied) << log;
        ASSERT_EQ(chown((site() / "users").c_str(), 0, 0), 0);
    }
    // A user's file refuses that user only.
    for (const int mode : {0620, 0602, 0644}) {
        fs::permissions(site() / "users" / "root", fs::perms(mode));
        EXPECT_EQ(log_in_as_root(root_password), mode == 0644 ? root : refused) << mode;
    }
    EXPECT_EQ(start(&none), at_ok) << log;
    EXPECT_EQ(molbAtTerminate(none), at_ok);
}

TEST_F(set_up_test, keys_and_what_is_remembered_stay_out_of_core_dumps) {
    // Mappings that the kernel leaves out of a dump.
    const auto left_out = [] {
        std::ifstream maps("/proc/self/smaps");
        int count = 0;
        for (std::string line; std::getline(maps, line);) {
            count += line.rfind("VmFlags:", 0) == 0 && line.find(" dd") != line.npos ? 1 : 0;
        }
        return count;
    };
    const std::size_t keys = CRYPTO_secure_used();
    const int before = left_out();
    set_up();
    EXPECT_GT(CRYPTO_secure_used(), keys);
    EXPECT_GT(left_out(), before);
    ASSERT_EQ(molbAtTerminate(std::exchange(handle, nullptr)), at_ok);
    EXPECT_EQ(CRYPTO_secure_used(), keys);
}

TEST_F(set_up_test, out_arguments_are_cleared_and_strangers_refused) {
    constexpr std::uint32_t invalid = at_invalid_argument;
    set_up();
    EXPECT_EQ(log_in_as_service(), the_service);
    void** list = nullptr;
    std::int32_t count = 0;
    ASSERT_EQ(molbAtGetCredentials(handle, nullptr, 0, &list, &count), at_ok);
    ASSERT_EQ(count, 1);
    void* credential = list[0];
    EXPECT_EQ(molbAtFree(list), at_ok);
    EXPECT_EQ(info_of(handle, credential), the_service);
    EXPECT_EQ(molbAtTerminate(credential), invalid);
    EXPECT_EQ(molbAtFree(credential), at_ok);
    EXPECT_EQ(molbAtFree(handle), invalid);
    EXPECT_EQ(molbAtFree(nullptr), at_ok);
    EXPECT_EQ(info_of(handle, handle), "no info");
    std::array<std::uint32_t, 16> stranger{};
    EXPECT_EQ(molbAtAuthenticate(stranger.data(), &service_identity, 0, &credential), invalid);
    EXPECT_EQ(credential, nullptr);

    // Nothing is written through a null pointer, and what is no object of its kind is none.
    for (void* none : {static_cast<void*>(nullptr), static_cast<void*>(stranger.data())}) {
        EXPECT_EQ(molbAtInit(nullptr, nullptr), invalid);
        EXPECT_EQ(molbAtAuthenticate(handle, &service_identity, 0, nullptr), invalid);
        EXPECT_EQ(molbAtAuthenticate(handle, nullptr, 0, &credential), invalid);
        EXPECT_EQ(molbAtExtractInfo(handle, none, nullptr), invalid);
        EXPECT_EQ(molbAtExtractInfo(none, none, reinterpret_cast<molb_info**>(&credential)),
                  invalid);
        molb_domain_info* domains = nullptr;
        EXPECT_EQ(molbAtGetCredentials(handle, nullptr, 0, nullptr, &count), invalid);
        EXPECT_EQ(molbAtGetCredentials(handle, nullptr, 0, &list, nullptr), invalid);
        EXPECT_EQ(molbAtGetCredentials(none, nullptr, 0, &list, &count), invalid);
        EXPECT_EQ(molbAtGetDomainInfos(handle, 0, nullptr, &count), invalid);
        EXPECT_EQ(molbAtGetDomainInfos(handle, 0, &domains, nullptr), invalid);
        EXPECT_EQ(molbAtGetDomainInfos(none, 0, &domains, &count), invalid);
        void* channel = nullptr;
        EXPECT_EQ(molbAtSecConnConnect(1, handle, 0, nullptr, nullptr), invalid);
        EXPECT_EQ(molbAtSecConnConnect(-1, handle, 0, &channel, nullptr), invalid);
        EXPECT_EQ(molbAtSecConnConnect(1, none, 0, &channel, nullptr), invalid);
        const auto accept = [&](void* own, int fd, void* service, void** made, void** client) {
            return molbAtSecConnAcceptWithCommExtn(own, fd, service, 0, nullptr, 0, 0, made,
                                                   client);
        };
        EXPECT_EQ(accept(handle, 1, nullptr, nullptr, &credential), invalid);
        EXPECT_EQ(accept(handle, 1, nullptr, &channel, nullptr), invalid);
        EXPECT_EQ(accept(none, 1, nullptr, &channel, &credential), invalid);
        EXPECT_EQ(accept(handle, -1, nullptr, &channel, &credential), invalid);
        EXPECT_EQ(accept(handle, 1, stranger.data(), &channel, &credential), invalid);
        EXPECT_EQ(channel, nullptr);
        for (const auto move : {molbAtSecConnRead(none, stranger.data(), 1),
                                molbAtSecConnWrite(none, stranger.data(), 1)}) {
            EXPECT_EQ(move, -1);
            EXPECT_EQ(errno, EINVAL);
        }
        EXPECT_EQ(molbAtDataPending(none), 0);
        EXPECT_EQ(molbAtSecConnClose(&none), invalid);
    }
    EXPECT_EQ(molbAtSecConnClose(nullptr), invalid);
    EXPECT_EQ(molbAtFree(&stranger[8]), invalid);  // what stands before is looked at

    // An instance that is not the daemon's own may have no key pair, and then has no credential.
    fs::create_directories(base / "other" / "dovmad-at");
    write_file(base / "other" / "dovmad-at" / "domains", "local:password:host\n");
    std::swap(handle, credential);
    ASSERT_EQ(start_in(base / "other", &handle), at_ok);
    EXPECT_EQ(molbAtGetCredentials(handle, nullptr, 0, &list, &count), at_not_available);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(log_in_as_service(), std::to_string(at_not_available));
    EXPECT_EQ(molbAtTerminate(credential), at_ok);
}
