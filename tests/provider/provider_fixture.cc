#include "tests/provider/provider_fixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <utility>

#include "provider/clock.h"

std::int64_t clock_ms = 1'000'000;
std::int64_t clock_step_ms = 0;

std::int64_t provider::monotonic_ms() {
    return clock_ms += clock_step_ms;
}

std::string info_of(void* handle, void* credential) {
    molb_info* info = nullptr;
    if (molbAtExtractInfo(handle, credential, &info) != at_ok) {
        return "no info";
    }
    std::string text = std::string(info->qualifier) + "/" + info->domain + "/" + info->name;
    EXPECT_EQ(molbAtFree(info), at_ok);
    return text;
}

void provider_test::SetUp() {
    std::string name = (std::filesystem::temp_directory_path() / "provider.XXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    base = name;
    data_dir = base / "sec";
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
    clock_step_ms = 0;
}

void provider_test::TearDown() {
    if (handle != nullptr) {
        EXPECT_EQ(molbAtTerminate(handle), at_ok);
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

std::uint32_t provider_test::start(void** started, std::string* log) {
    testing::internal::CaptureStderr();
    const std::uint32_t result = molbAtInit(nullptr, started);
    *log = testing::internal::GetCapturedStderr();
    return result;
}

void provider_test::set_up() {
    std::string log;
    ASSERT_EQ(start(&handle, &log), at_ok) << log;
    root_password = password_in(log);
}

std::uint32_t provider_test::start_in(const std::filesystem::path& directory, void** started) {
    const molb_init init{nullptr, directory.c_str(), nullptr, nullptr};
    return molbAtInitEx(nullptr, started, &init, 0, 0, 0);
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
    const std::uint32_t result = molbAtAuthenticate(handle, &identity, 0, &credential);
    EXPECT_EQ(result == at_ok, credential != nullptr);
    if (who != nullptr && result == at_ok) {
        *who = info_of(handle, credential);
    }
    EXPECT_EQ(molbAtFree(credential), at_ok);
    return result;
}

void socket_pair::renew() {
    close_both();
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds_), 0);
}

void socket_pair::close_theirs() {
    if (fds_[1] >= 0) {
        close(std::exchange(fds_[1], -1));
    }
}

void socket_pair::close_both() {
    close_theirs();
    if (fds_[0] >= 0) {
        close(std::exchange(fds_[0], -1));
    }
}
