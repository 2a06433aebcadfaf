// Proves that replacing a file keeps its name, links and properties, and loses nothing on failure.
#include "lib/replace_file.h"

#include <pthread.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/xattr.h>

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
        return as_nobody([&] { return replace_file(file.c_str(), "new") == expected; });
    }
    static bool as_nobody(const std::function<bool()>& check) {
        return holds_in_child([&] {
            const bool bound = getuid() != 0 || (setgid(nobody) == 0 && setuid(nobody) == 0);
            return bound && check();
        });
    }

    static std::string attribute(const std::string& file, const char* name) {
        char value[256];
        const ssize_t length = getxattr(file.c_str(), name, value, sizeof value);
        return length < 0 ? "none" : std::string(value, static_cast<std::size_t>(length));
    }

    // An access control list as the kernel takes it: version 2, then tag, rights, id.
    static std::string access_list(std::uint16_t named_user, std::uint16_t group) {
        std::string bytes("\2\0\0\0", 4);
        const auto add = [&](std::uint16_t tag, std::uint16_t rights, std::uint32_t id) {
            bytes.append(reinterpret_cast<const char*>(&tag), sizeof tag);
            bytes.append(reinterpret_cast<const char*>(&rights), sizeof rights);
            bytes.append(reinterpret_cast<const char*>(&id), sizeof id);
        };
        constexpr std::uint32_t nobody_named = 0xffffffff;
        add(1, 6, nobody_named);
        add(2, named_user, nobody);
        add(4, group, nobody_named);
        add(16, 6, nobody_named);
        add(32, 0, nobody_named);
        return bytes;
    }

    // Mounts a file system over the folder and runs a check in it, in a name space of its own.
    bool holds_on(const char* options, const std::function<bool()>& check) const {
        return holds_in_child([&] {
            return unshare(CLONE_NEWNS) == 0 &&
                   mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tmpfs", folder_.c_str(), "tmpfs", 0, options) == 0 && check();
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

// A container's way: one writable file in a folder that can't be written.
TEST_F(replace_file_test, overwrites_a_file_that_is_mounted_alone) {
    const std::string file = path("sealed/f");
    const auto replaced = [&] {
        write(path("f"), "old");
        return mkdir(path("sealed").c_str(), 0755) == 0 &&
               mount("tmpfs", path("sealed").c_str(), "tmpfs", 0, nullptr) == 0 &&
               replace_file(file.c_str(), "") == 0 &&
               mount(path("f").c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
               mount("", path("sealed").c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0 &&
               replace_file(file.c_str(), "new") == 0 && read(path("f")) == "new";
    };
    if (!holds_on("", [] { return true; })) {
        GTEST_SKIP() << "needs the right to mount a file system";
    }
    EXPECT_TRUE(holds_on("", replaced));
}

TEST_F(replace_file_test, waits_for_a_descriptor) {
    const std::string file = path("f");
    write(file, "old");
    const ino_t before = status_of(file).st_ino;
    EXPECT_TRUE(holds_in_child([&] {
        int last = -1;
        for (int fd = dup(0); fd >= 0; fd = dup(0)) {
            last = fd;
        }
        (void)close(last);  // one for the file itself; another one is given back while it waits
        // No std::thread: UBSan looks at its type through a pipe.
        const auto give = [](void* highest) -> void* {
            (void)usleep(100000);
            (void)close(*static_cast<int*>(highest) - 1);
            (void)close(*static_cast<int*>(highest) - 2);
            return nullptr;
        };
        pthread_t giving{};
        return pthread_create(&giving, nullptr, give, &last) == 0 &&
               replace_file(file.c_str(), "new") == 0 && pthread_join(giving, nullptr) == 0;
    }));
    EXPECT_EQ(read(file), "new");
    EXPECT_NE(status_of(file).st_ino, before);
}

// Without the list, its mask would become the rights of the owning group.
TEST_F(replace_file_test, keeps_access_lists_and_attributes) {
    const std::string file = path("f");
    write(file, "old");
    const std::string list = access_list(6, 4);
    if (setxattr(file.c_str(), "system.posix_acl_access", list.data(), list.size(), 0) != 0 ||
        setxattr(file.c_str(), "user.note", "kept", 4, 0) != 0) {
        GTEST_SKIP() << "no access lists on this file system";
    }
    EXPECT_EQ(replace_file(file.c_str(), "new"), 0);
    EXPECT_EQ(attribute(file, "system.posix_acl_access"), list);
    EXPECT_EQ(attribute(file, "user.note"), "kept");
    // What the folder gives new files is not the old file's.
    write(path("plain"), "old");
    ASSERT_EQ(chmod(path("plain").c_str(), 0640), 0);
    ASSERT_EQ(setxattr(folder_.c_str(), "system.posix_acl_default", list.data(), list.size(), 0),
              0);
    EXPECT_EQ(replace_file(path("plain").c_str(), "new"), 0);
    EXPECT_EQ(attribute(path("plain"), "system.posix_acl_access"), "none");
    EXPECT_EQ(status_of(path("plain")).st_mode & 07777, 0640U);
}

TEST_F(replace_file_test, takes_over_what_a_killed_process_left_and_nothing_else) {
    const std::string file = path("f");
    const std::string long_name = path(std::string(255, 'n').c_str());
    for (const std::string& name : {file, path(".f.dovmad-new"), path("f.new"), long_name}) {
        write(name, "old");
    }
    const ino_t before = status_of(file).st_ino;
    EXPECT_EQ(replace_file(file.c_str(), "new"), 0);
    EXPECT_NE(status_of(file).st_ino, before);
    EXPECT_EQ(read(path("f.new")), "old");
    const ino_t long_before = status_of(long_name).st_ino;
    EXPECT_EQ(replace_file(long_name.c_str(), "new"), 0);
    EXPECT_NE(status_of(long_name).st_ino, long_before);
    EXPECT_EQ(names(), 3);
}

TEST_F(replace_file_test, stamps_the_file_that_stands) {
    const std::string file = path("f");
    file_stamp stamp;
    EXPECT_EQ(replace_file(file.c_str(), "one", &stamp), 0);
    EXPECT_EQ(stamp, stamp_of(file.c_str()));
    write(file, "two");
    EXPECT_NE(stamp, stamp_of(file.c_str()));
    EXPECT_EQ(stamp_of(path("missing").c_str()), file_stamp{});
}

TEST_F(replace_file_test, waits_for_another_process_that_replaces_it) {
    const std::string file = path("f");
    const auto replace_often = [&](char letter) {
        const std::string content(100'000, letter);
        for (int i = 0; i < 100; ++i) {
            if (replace_file(file.c_str(), content) != 0) {
                return false;
            }
        }
        return true;
    };
    const pid_t other = begin_in_child([&] { return replace_often('a'); });
    EXPECT_TRUE(replace_often('b'));
    EXPECT_TRUE(held(other));
    const std::string content = read(file);
    EXPECT_EQ(content, std::string(100'000, content.at(0)));
    EXPECT_EQ(names(), 1);
    // The lock of a file that has gone is none, and one that nobody gives up ends the wait.
    write(path("next"), "next");
    const unique_fd former(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const unique_fd next(open(path("next").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(former.get(), LOCK_EX) + flock(next.get(), LOCK_EX), 0);
    const pid_t waiting = begin_in_child([&] { return replace_file(file.c_str(), "x") == EBUSY; });
    (void)usleep(100000);
    std::filesystem::rename(path("next"), file);
    ASSERT_EQ(flock(former.get(), LOCK_UN), 0);
    EXPECT_TRUE(held(waiting));
    EXPECT_EQ(read(file), "next");
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
    EXPECT_TRUE(holds_in_child([&] {
        (void)alarm(10);  // a pipe that nobody reads must not be waited for
        const std::string pipe = path("pipe");
        return mkfifo(pipe.c_str(), 0600) == 0 && replace_file(pipe.c_str(), "x") == ENXIO &&
               unlink(pipe.c_str()) == 0;
    }));
    const std::string file = path("f");
    write(file, "old");
    EXPECT_TRUE(holds_in_child([&] {
        limit_file_size();
        return replace_file(file.c_str(), std::string(100000, 'x')) == EFBIG;
    }));
    EXPECT_EQ(read(file), "old");
    EXPECT_EQ(names(), 1);
    // In place, too, nothing is touched when the new content can't fit.
    ASSERT_EQ(chmod(file.c_str(), 0666), 0);
    ASSERT_EQ(chmod(folder_.c_str(), 0555), 0);
    EXPECT_TRUE(as_nobody([&] {
        limit_file_size();
        return replace_file(file.c_str(), std::string(100000, 'x')) == EFBIG;
    }));
    EXPECT_EQ(read(file), "old");
}

TEST_F(replace_file_test, a_full_disk_costs_nothing) {
    const std::string file = path("f");
    const auto prepare = [&] {
        write(file, "old");
        return chmod(file.c_str(), 0666) == 0;
    };
    if (!holds_on("size=64k", [] { return true; })) {
        GTEST_SKIP() << "needs the right to mount a file system";
    }
    const auto fill = [&] {
        std::ofstream filler(path("filler"));
        filler << std::string(65536, 'x') << std::flush;
        return !filler.good();
    };
    const std::string large(40'000, 'x');
    EXPECT_TRUE(holds_on("size=64k", [&] {
        return prepare() && fill() && replace_file(file.c_str(), large) == ENOSPC &&
               read(file) == "old" && names() == 2;
    })) << "beside";
    EXPECT_TRUE(holds_on("size=64k,mode=0755", [&] {
        return prepare() && fill() && as_nobody([&] {
                   return replace_file(file.c_str(), large) == ENOSPC && read(file) == "old";
               });
    })) << "in place";
    EXPECT_TRUE(holds_on("size=64k,nr_inodes=2", [&] {
        return prepare() && replace_file(file.c_str(), large) == ENOSPC && read(file) == "old";
    })) << "no second file for want of inodes";
}

}  // namespace
