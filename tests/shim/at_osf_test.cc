// Proves the shim's file helpers: descriptors that children do not inherit, codes for each kind of
// failure, removal that stays inside the directory it was given.
#include "security/at_osf.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "security/at_types.h"

namespace {

namespace fs = std::filesystem;

class AtOsf : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = (fs::temp_directory_path() / "at_osf.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        folder_ = name;
    }
    void TearDown() override { fs::remove_all(folder_); }

    std::string path(const char* name) const { return (folder_ / name).string(); }

    fs::path folder_;
};

bool closes_on_exec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

TEST_F(AtOsf, OpensWithCloseOnExec) {
    std::FILE* file = nullptr;
    for (const auto& open_file : {at_os_fopen_nr, at_os_fopen_r}) {
        ASSERT_EQ(open_file(path("a").c_str(), "ab", &file), 0);
        EXPECT_TRUE(closes_on_exec(fileno(file)));
        EXPECT_EQ(at_os_fclose_i(file), 0);
    }
    int fd = -1;
    for (const auto& open_fd : {at_os_open_nr, at_os_open_r}) {
        ASSERT_EQ(open_fd(path("a").c_str(), O_RDONLY, &fd), 0);
        EXPECT_TRUE(closes_on_exec(fd));
        close(fd);
        EXPECT_EQ(open_fd(path("none").c_str(), O_RDONLY, &fd), ENOENT);
        EXPECT_EQ(fd, -1);
    }
    ASSERT_EQ(at_os_open2_nr(path("b").c_str(), O_CREAT | O_WRONLY, 0640, &fd), 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0640U);
    close(fd);
}

TEST_F(AtOsf, NamesEachKindOfFailure) {
    std::ofstream(path("file")) << "x";
    const std::string below_a_file = path("file") + "/x";
    std::FILE* file = nullptr;
    EXPECT_EQ(at_os_fopen_nr(path("none").c_str(), "r", &file), ENOENT);
    EXPECT_EQ(at_os_fopen_r(path("none").c_str(), "r", &file), int{at_not_available});
    EXPECT_EQ(at_os_fopen_r(below_a_file.c_str(), "r", &file), int{at_file_error});
    EXPECT_EQ(file, nullptr);
    struct stat st {};
    EXPECT_EQ(at_os_stat_i(path("file").c_str(), &st), 0);
    EXPECT_EQ(at_os_stat_i(path("none").c_str(), &st), int{at_not_available});
    EXPECT_EQ(at_os_stat_i(below_a_file.c_str(), &st), int{at_stat_failed});
    EXPECT_EQ(at_os_rename_i(path("none").c_str(), path("x").c_str()), int{at_rename_failed});
    EXPECT_EQ(at_os_rename_i(path("file").c_str(), path("x").c_str()), 0);
    EXPECT_EQ(at_os_sleep_i(100), 0);
    EXPECT_EQ(at_os_sleep_i(1000000), EINVAL);
    EXPECT_EQ(at_os_emptydir_i(nullptr), int{at_invalid_argument});
    EXPECT_EQ(at_os_emptydir_i(""), int{at_invalid_argument});
}

// A process without privileges, since nothing is forbidden to root.
TEST_F(AtOsf, NamesMissingPermission) {
    ASSERT_EQ(at_os_mkdir_i(path("closed").c_str(), 0700), 0);
    std::ofstream(path("closed") + "/file") << "x";
    ASSERT_EQ(at_os_chmod_i(path("closed").c_str(), 0), 0);
    const std::string file_path = path("closed") + "/file";
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (geteuid() == 0 && setuid(65534) != 0) {
            _exit(2);
        }
        std::FILE* file = nullptr;
        struct stat st {};
        _exit(at_os_fopen_r(file_path.c_str(), "r", &file) == at_permission_denied &&
                      at_os_stat_i(file_path.c_str(), &st) == at_permission_denied
                  ? 0
                  : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(at_os_chmod_i(path("closed").c_str(), 0700), 0);
}

TEST_F(AtOsf, RemovesADirectoryButNothingBehindItsLinks) {
    fs::create_directories(folder_ / "tree/one/two");
    fs::create_directory(folder_ / "kept");
    std::ofstream(path("kept") + "/file") << "x";
    std::ofstream(path("tree") + "/one/two/file") << "x";
    fs::create_directory_symlink(folder_ / "kept", folder_ / "tree/one/link");
    fs::create_symlink("nowhere", folder_ / "tree/dangling");

    int same = -1;
    const std::string through_link = path("tree") + "/one/link/file";
    EXPECT_EQ(at_os_is_same_file(through_link.c_str(), (path("kept") + "/file").c_str(), &same), 0);
    EXPECT_EQ(same, 1);
    EXPECT_EQ(at_os_is_same_file("no/such", "no/such", &same), 0);
    EXPECT_EQ(same, 1);
    EXPECT_EQ(at_os_is_same_file(path("kept").c_str(), path("tree").c_str(), &same), 0);
    EXPECT_EQ(same, 0);
    EXPECT_EQ(at_os_is_same_file(path("kept").c_str(), path("none").c_str(), &same),
              int{at_not_available});
    EXPECT_EQ(at_os_is_same_file(nullptr, "x", &same), int{at_invalid_argument});

    EXPECT_EQ(at_os_emptydir_i(path("tree").c_str()), 0);
    EXPECT_TRUE(fs::is_empty(folder_ / "tree"));
    EXPECT_EQ(at_os_rmdir_i(path("tree").c_str()), 0);
    EXPECT_FALSE(fs::exists(folder_ / "tree"));
    EXPECT_TRUE(fs::exists(folder_ / "kept/file"));
    EXPECT_EQ(at_os_rmdir_i(path("tree").c_str()), ENOENT);
}

}  // namespace
