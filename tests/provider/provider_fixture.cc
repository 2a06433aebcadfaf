#include "tests/provider/provider_fixture.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

template <class Function>
void find(void* module, const char* name, Function* function) {
    *function = reinterpret_cast<Function>(dlsym(module, name));
}

provider_library open_library(const char* file) {
    provider_library lib;
    lib.module = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (lib.module == nullptr) {
        ADD_FAILURE() << dlerror();
        std::abort();
    }
    find(lib.module, "molbatLibraryControl", &lib.control);
    find(lib.module, "molbAtInitEx", &lib.init);
    find(lib.module, "molbAtTerminate", &lib.terminate);
    find(lib.module, "molbAtAuthenticate", &lib.authenticate);
    find(lib.module, "molbAtExtractInfo", &lib.extract_info);
    find(lib.module, "molbAtGetCredentials", &lib.get_credentials);
    find(lib.module, "molbAtGetDomainInfos", &lib.get_domain_infos);
    find(lib.module, "molbAtFree", &lib.release);
    find(lib.module, "molbAtSecConnConnect", &lib.connect);
    find(lib.module, "molbAtSecConnAcceptWithCommExtn", &lib.accept);
    find(lib.module, "molbAtSecConnRead", &lib.read);
    find(lib.module, "molbAtSecConnWrite", &lib.write);
    find(lib.module, "molbAtDataPending", &lib.pending);
    find(lib.module, "molbAtSecConnClose", &lib.close);
    find(lib.module, "settable_clock_advance", &lib.advance_ms);
    find(lib.module, "settable_clock_step", &lib.step_ms);
    return lib;
}

}  // namespace

const provider_library& load_provider(clock_kind kind) {
    static const provider_library real = open_library(PROVIDER_FILE);
    static const provider_library settable = open_library(CLOCKED_PROVIDER_FILE);
    return kind == clock_kind::real ? real : settable;
}

std::string info_of(const provider_library& library, void* handle, void* credential) {
    molb_info* info = nullptr;
    if (library.extract_info(handle, credential, &info) != at_ok) {
        return "no info";
    }
    std::string text = std::string(info->qualifier) + "/" + info->domain + "/" + info->name;
    EXPECT_EQ(library.release(info), at_ok);
    return text;
}

void provider_test::SetUp() {
    std::string name = (std::filesystem::temp_directory_path() / "provider.XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    base = name;
    data_dir = base / "sec";
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
}

void provider_test::TearDown() {
    if (handle != nullptr) {
        EXPECT_EQ(lib.terminate(handle), at_ok);
    }
    std::filesystem::remove_all(base);
}

void provider_test::write_file(const std::filesystem::path& path, std::string_view text, int mode) {
    // A fresh file each time, as an editor or dovmad-user leaves it.
    const std::filesystem::path temporary = path.string() + ".new";
    std::ofstream(temporary) << text;
    ASSERT_EQ(chmod(temporary.c_str(), static_cast<mode_t>(mode)), 0);
    std::filesystem::rename(temporary, path);
}

std::uint32_t provider_test::start(void** started, std::string* log) const {
    testing::internal::CaptureStderr();
    const std::uint32_t result = lib.init(nullptr, started, nullptr, 0, 0, 0);
    const std::string text = testing::internal::GetCapturedStderr();
    if (log != nullptr) {
        *log = text;
    }
    return result;
}

void provider_test::set_up() {
    std::string log;
    ASSERT_EQ(start(&handle, &log), at_ok) << log;
    root_password = password_in(log);
}

std::string provider_test::password_in(const std::string& log) {
    constexpr std::string_view label = "password: ";
    const std::size_t at = log.find(label);
    return at == std::string::npos ? "" : log.substr(at + label.size(), 16);
}

std::uint32_t provider_test::log_in(const char* domain, const char* name, const char* password,
                                    std::string* who) const {
    const molb_identity identity{"localhost", domain, name, password};
    void* credential = nullptr;
    const std::uint32_t result = lib.authenticate(handle, &identity, 0, &credential);
    EXPECT_EQ(result == at_ok, credential != nullptr);
    if (who != nullptr && result == at_ok) {
        *who = info_of(lib, handle, credential);
    }
    EXPECT_EQ(lib.release(credential), at_ok);
    return result;
}

socket_pair::socket_pair() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds_), 0);
}

socket_pair::~socket_pair() {
    close(fds_[0]);
    close_theirs();
}

void socket_pair::close_theirs() {
    if (fds_[1] >= 0) {
        close(fds_[1]);
        fds_[1] = -1;
    }
}
