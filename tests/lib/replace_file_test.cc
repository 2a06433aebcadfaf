// Proves that replacing a file keeps its name, links, mode and owner, and loses nothing on failure.
#include "lib/replace_file.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

constexpr uid_t nobody = 65534;

class replace_file_test : public testing::Test {
  protected:
    void SetUp() override {
        std::string pattern = testing::TempDir() + "replace.XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
    }
    void TearDown() override {
        (void)chmod(folder_.c_str(), 0755);
        EXPECT_EQ(std::system(("rm -rf " + folder_).c_str()), 0);
    }

    std::string path(const char* name) const { return folder_ + "/" + name; }

    static void write(const std::string& file, const std::string& content) {
        std::ofstream(file) << content;
    }
    static std::string read(const std::string& file) {
        std::ostringstream content;
        content << std::ifstream(file).rdbuf();
        return content.str();
    }
    static struct stat status_of(const std::string& file) {
        struct stat status {};
        EXPECT_EQ(stat(file.c_str(), &status), 0);
        return status;
    }

    // The number of names in the folder: a temporary file that stays behind shows here.
    int names() const {
        int count = 0;
        DIR* dir = opendir(folder_.c_str());
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
        return count - 2;
    }

    // Runs a check in a child process; true when it holds there.
    static bool holds_in_child(const std::function<bool()>& check) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(check() ? 0 : 1);
        }
        int status = 0;
        return waitpid(child, &status, 0) == child && status == 0;
    }

    // Becomes an ordinary user, whom permissions bind.
    static bool become_nobody() {
        return getuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0);
    }

    std::string folder_;
};

TEST_F(replace_file_test, creates_and_replaces) {
    const std::string file = path("f");
    EXPECT_EQ(replace_file(file.c_str(), "one"), 0);
    EXPECT_EQ(read(file), "one");
    const ino_t before = status_of(file).st_ino;
    EXPECT_EQ(replace_file(file.c_str(), ""), 0);
    EXPECT_EQ(read(file), "");
    EXPECT_NE(status_of(file).st_ino, before);  // a reader of the old file keeps the old content
    EXPECT_EQ(replace_file(file.c_str(), std::string(1'000'000, 'x')), 0);
    EXPECT_EQ(read(file).size(), 1'000'000U);
    EXPECT_EQ(names(), 1);
}

TEST_F(replace_file_test, keeps_mode_and_owner) {
    const std::string file = path("f");
    write(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    const bool root = getuid() == 0;
    if (root) {
        ASSERT_EQ(chown(file.c_str(), 12, 34), 0);
    }
    EXPECT_EQ(replace_file(file.c_str(), "new"), 0);
    const struct stat status = status_of(file);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    if (root) {
        EXPECT_EQ(status.st_uid, 12U);
        EXPECT_EQ(status.st_gid, 34U);
    }
}

TEST_F(replace_file_test, follows_symbolic_links_and_leaves_them) {
    ASSERT_EQ(mkdir(path("real").c_str(), 0755), 0);
    write(path("real/f"), "old");
    ASSERT_EQ(symlink("real/f", path("inner").c_str()), 0);
    ASSERT_EQ(symlink("inner", path("outer").c_str()), 0);
    EXPECT_EQ(replace_file(path("outer").c_str(), "new"), 0);
    EXPECT_EQ(read(path("real/f")), "new");
    struct stat link {};
    ASSERT_EQ(lstat(path("outer").c_str(), &link), 0);
    EXPECT_TRUE(S_ISLNK(link.st_mode));
    EXPECT_EQ(names(), 3);
    ASSERT_EQ(symlink("nowhere", path("dangling").c_str()), 0);
    EXPECT_EQ(replace_file(path("dangling").c_str(), "made"), 0);
    EXPECT_EQ(read(path("nowhere")), "made");
}

TEST_F(replace_file_test, overwrites_in_place_where_no_second_file_may_be) {
    const std::string file = path("f");
    write(file, "a longer old content");
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0555), 0);
    const ino_t before = status_of(file).st_ino;
    EXPECT_TRUE(
        holds_in_child([&] { return become_nobody() && replace_file(file.c_str(), "new") == 0; }));
    EXPECT_EQ(read(file), "new");
    EXPECT_EQ(status_of(file).st_ino, before);
}

TEST_F(replace_file_test, needs_the_file_itself_to_be_writable) {
    const std::string file = path("f");
    write(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0444), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0777), 0);
    EXPECT_TRUE(holds_in_child(
        [&] { return become_nobody() && replace_file(file.c_str(), "new") == EACCES; }));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(replace_file(path("no/such").c_str(), "x"), ENOENT);
    EXPECT_EQ(replace_file(folder_.c_str(), "x"), EISDIR);
    EXPECT_EQ(names(), 1);
}

TEST_F(replace_file_test, reports_a_full_disk_and_keeps_the_old_content) {
    EXPECT_EQ(replace_file("/dev/full", "x"), ENOSPC);
    EXPECT_EQ(replace_file("/dev/null", "x"), 0);

    // A limit on file sizes stands in for a disk that fills up half way.
    const std::string file = path("f");
    write(file, "old");
    EXPECT_TRUE(holds_in_child([&] {
        const rlimit limit = {4096, 4096};
        (void)std::signal(SIGXFSZ, SIG_IGN);
        (void)setrlimit(RLIMIT_FSIZE, &limit);
        return replace_file(file.c_str(), std::string(100000, 'x')) == EFBIG;
    }));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(names(), 1);
}

}  // namespace
