// Proves the shim's file helpers: descriptors that children do not inherit, codes for each kind of
// failure, removal that stays inside the directory it was given.
#include "security/at_osf.h"

#include "security/at_types.h"
#include "tests/support/engine_fixture.h"

namespace {

namespace fs = std::filesystem;

class AtOsf : public testing::Test {
  protected:
    std::string path(const char* name) const { return folder_.path() / name; }

    temporary_folder folder_;
};

TEST_F(AtOsf, OpensWithCloseOnExec) {
    std::FILE* file = nullptr;
    int fd = -1;
    const std::string name = path("a");
    ASSERT_EQ(at_os_fopen_r(name.c_str(), "ab", &file), 0);
    ASSERT_EQ(at_os_open_r(name.c_str(), O_RDONLY, &fd), 0);
    for (const int opened : {fileno(file), fd}) {
        EXPECT_EQ(fcntl(opened, F_GETFD), FD_CLOEXEC);
    }
    close(fd);
    EXPECT_EQ(at_os_fclose_i(file), 0);
    EXPECT_EQ(at_os_open_nr(path("none").c_str(), O_RDONLY, &fd), ENOENT);
    EXPECT_EQ(fd, -1);
}

TEST_F(AtOsf, NamesEachKindOfFailure) {
    (void)folder_.write("file", "x");
    struct stat st {};
    std::FILE* file = nullptr;
    const auto results = [&](const char* name) {
        const std::string where = path(name);
        return std::pair{at_os_fopen_r(where.c_str(), "r", &file),
                         at_os_stat_i(where.c_str(), &st)};
    };
    EXPECT_EQ(results("none"), (std::pair<int, int>{at_not_available, at_not_available}));
    EXPECT_EQ(results("file/x"), (std::pair<int, int>{at_file_error, at_stat_failed}));
    EXPECT_EQ(at_os_rename_i(path("none").c_str(), path("x").c_str()), int{at_rename_failed});
    EXPECT_EQ(at_os_rename_i(path("file").c_str(), path("x").c_str()), 0);
    EXPECT_EQ(at_os_sleep_i(1000000), EINVAL);
}

TEST_F(AtOsf, CallsTheSystemsOwnFunctionsAndReturnsTheirErrors) {
    const std::string file = folder_.write("file", "0123456789");
    const std::string made = path("made");
    const fs::path before = fs::current_path();
    EXPECT_EQ(at_os_mkdir_i(made.c_str(), 0700), 0);
    EXPECT_EQ(at_os_mkdir_i(made.c_str(), 0700), EEXIST);
    EXPECT_EQ(at_os_chmod_i(file.c_str(), 0640), 0);
    EXPECT_EQ(fs::status(file).permissions(), fs::perms{0640});
    EXPECT_EQ(at_os_chmod_i(path("none").c_str(), 0640), ENOENT);
    EXPECT_EQ(at_os_chdir_i(made.c_str()), 0);
    EXPECT_TRUE(fs::equivalent(fs::current_path(), made));
    fs::current_path(before);
    EXPECT_EQ(at_os_chdir_i(file.c_str()), ENOTDIR);
    std::FILE* opened = nullptr;
    ASSERT_EQ(at_os_fopen_r(file.c_str(), "r", &opened), 0);
    EXPECT_EQ(at_os_fseek_i(opened, -3, SEEK_END), 0);
    EXPECT_EQ(std::fgetc(opened), '7');
    EXPECT_EQ(at_os_fseek_i(opened, -1, SEEK_SET), EINVAL);
    EXPECT_EQ(at_os_fclose_i(opened), 0);
}

TEST_F(AtOsf, RemovesADirectoryButNothingBehindItsLinks) {
    const std::string kept = folder_.write("kept/file", "x");
    (void)folder_.write("tree/one/two/file", "x");
    fs::create_directory_symlink(path("kept"), path("tree/one/link"));
    fs::create_symlink("nowhere", path("tree/dangling"));

    int same = -1;
    EXPECT_EQ(at_os_is_same_file(path("tree/one/link/file").c_str(), kept.c_str(), &same), 0);
    EXPECT_EQ(same, 1);
    EXPECT_EQ(at_os_is_same_file(path("kept").c_str(), path("tree").c_str(), &same), 0);
    EXPECT_EQ(same, 0);

    EXPECT_EQ(at_os_is_same_file(kept.c_str(), kept.c_str(), &same), 0);
    EXPECT_EQ(same, 1);
    for (const auto& [a, b] :
         {std::pair(kept.c_str(), "/none"), std::pair("/none", kept.c_str())}) {
        EXPECT_EQ(at_os_is_same_file(a, b, &same), int{at_not_available});
        EXPECT_EQ(same, 0);
    }
    EXPECT_EQ(at_os_is_same_file(nullptr, "x", &same), int{at_invalid_argument});
    EXPECT_EQ(at_os_is_same_file("x", nullptr, &same), int{at_invalid_argument});
    EXPECT_EQ(at_os_is_same_file(kept.c_str(), "/proc/self/status", &same), 0);
    EXPECT_EQ(same, 0) << "another device";

    EXPECT_EQ(at_os_rmdir_i(path("tree").c_str()), 0);
    EXPECT_FALSE(fs::exists(path("tree")));
    EXPECT_TRUE(fs::exists(kept));
    EXPECT_EQ(at_os_rmdir_i(path("tree").c_str()), ENOENT);
    EXPECT_EQ(at_os_emptydir_i(""), int{at_invalid_argument});
    EXPECT_EQ(at_os_emptydir_i(nullptr), int{at_invalid_argument});
}

}  // namespace
