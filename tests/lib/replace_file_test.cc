// Proves that replacing a file keeps its name, links, mode and owner, and loses nothing on failure.
#include "lib/replace_file.h"

#include <sys/stat.h>

#include <cerrno>

#include "tests/lib/file_fixture.h"

namespace {

constexpr uid_t nobody = 65534;

class replace_file_test : public file_test {
  protected:
    static struct stat status_of(const std::string& file) {
        struct stat status {};
        EXPECT_EQ(lstat(file.c_str(), &status), 0);
        return status;
    }

    // The number of names in the folder: a temporary file that stays behind shows here.
    auto names() const { return std::distance(std::filesystem::directory_iterator(folder_), {}); }

    // Replaces as an ordinary user, whom permissions bind; true when the result is the expected.
    static bool nobody_gets(int expected, const std::string& file) {
        return holds_in_child([&] {
            const bool bound = getuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0);
            return bound && replace_file(file.c_str(), "new") == expected;
        });
    }
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
    (void)chown(file.c_str(), 12, 34);  // root only
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    const struct stat before = status_of(file);
    EXPECT_EQ(replace_file(file.c_str(), "new"), 0);
    const struct stat after = status_of(file);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(replace_file_test, follows_symbolic_links_and_leaves_them) {
    ASSERT_EQ(mkdir(path("real").c_str(), 0755), 0);
    write(path("real/f"), "old");
    ASSERT_EQ(symlink("real/f", path("inner").c_str()), 0);
    ASSERT_EQ(symlink("inner", path("outer").c_str()), 0);
    EXPECT_EQ(replace_file(path("outer").c_str(), "new"), 0);
    EXPECT_EQ(read(path("real/f")), "new");
    EXPECT_TRUE(S_ISLNK(status_of(path("outer")).st_mode));
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
    EXPECT_TRUE(nobody_gets(0, file));
    EXPECT_EQ(read(file), "new");
    EXPECT_EQ(status_of(file).st_ino, before);
}

TEST_F(replace_file_test, needs_the_file_itself_to_be_writable) {
    const std::string file = path("f");
    write(file, "old");
    ASSERT_EQ(chmod(file.c_str(), 0444), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0777), 0);
    EXPECT_TRUE(nobody_gets(EACCES, file));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(replace_file(path("no/such").c_str(), "x"), ENOENT);
    EXPECT_EQ(replace_file(folder_.c_str(), "x"), EISDIR);
    EXPECT_EQ(names(), 1);
}

TEST_F(replace_file_test, reports_a_full_disk_and_keeps_the_old_content) {
    EXPECT_EQ(replace_file("/dev/full", "x"), ENOSPC);
    EXPECT_EQ(replace_file("/dev/null", "x"), 0);
    const std::string file = path("f");
    write(file, "old");
    EXPECT_TRUE(holds_in_child([&] {
        limit_file_size();
        return replace_file(file.c_str(), std::string(100000, 'x')) == EFBIG;
    }));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(names(), 1);
}

}  // namespace
