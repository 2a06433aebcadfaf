#include "security/access_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "lib/qz_iterator.h"
#include "lib/rbtree.h"
#include "tests/security/rights_fixture.h"

namespace {

using names = std::vector<std::string>;

class row_guard {
  public:
    explicit row_guard(std::string text) : text_(std::move(text)) {
        row.directory = "operator";
        (void)refresh_row("", &row);
        if (!text_.empty()) {
            std::FILE* file = fmemopen(text_.data(), text_.size(), "r");
            EXPECT_TRUE(read_access_file(file, &row));
            (void)fclose(file);
        }
    }
    ~row_guard() { clear_row(&row); }

    [[nodiscard]] names listed(int kind) const {
        names all;
        for (const qz_pair& entry : qz_each(principals(&row, kind))) {
            all.emplace_back(qz_as<const char>(entry.key));
        }
        return all;
    }

    [[nodiscard]] bool has(int kind, const char* name) const {
        return qz_set_exists(principals(&row, kind), name) != 0;
    }

    role_entry row;

  private:
    std::string text_;
};

TEST(access_file, reads_one_principal_a_line) {
    const std::string long_name(260, 'n');
    const row_guard file(
        "alice:user\n"
        " bob smith :USER trailing\n"
        "carol:Username\n"
        "wheel:group\r\n"
        "staff:groups:user\n"
        "no type\n"
        "empty:\n"
        "blank: user\n"
        ":user\n"
        "host:host\n"
        "\n" +
        long_name + ":user\n" + "dave:user");
    // The long line falls into 255 characters without a type and "nnnnn:user".
    EXPECT_EQ(file.listed(kind_user), (names{" bob smith ", "alice", "carol", "dave", "nnnnn"}));
    EXPECT_EQ(file.listed(kind_group), (names{"staff", "wheel"}));
}

TEST(access_file, search_goes_by_the_length_of_the_probe) {
    struct row {
        const char* lines;
        names stored;
        names found;
        names missing;
    };
    const std::vector<row> rows = {
        {"alice:user\nal:user\n", {"alice"}, {"al", "alic", "ALICE", ""}, {"alicex", "b"}},
        {"al:user\nalice:user\n", {"al", "alice"}, {"al", "alice"}, {"alicex"}},
        {"root:user\n", {"root"}, {"r", "Roo", "ROOT"}, {"roots"}},
        {"*:user\nbob:user\nzed:user\n", {"*"}, {"anybody", "zed"}, {}},
        {"m:user\n*:user\n", {"*", "m"}, {"a", "m"}, {"z"}},
        {"d:user\nb:user\nf:user\n*:user\n", {"*", "b", "d", "f"}, {"a", "b"}, {"c", "e", "g"}},
    };
    for (const row& r : rows) {
        const row_guard file(r.lines);
        EXPECT_EQ(file.listed(kind_user), r.stored) << r.lines;
        for (const std::string& name : r.found) {
            EXPECT_TRUE(file.has(kind_user, name.c_str())) << r.lines << name;
        }
        for (const std::string& name : r.missing) {
            EXPECT_FALSE(file.has(kind_user, name.c_str())) << r.lines << name;
        }
    }
}

TEST(access_file, text_lists_users_before_groups_and_no_administrators) {
    const row_guard file("wheel:group\nzoe:user\nROOTX:user\nroot:group\nann:user\n");
    EXPECT_EQ(access_file_text(&file.row), "ann:user\nzoe:user\nwheel:group\n");
}

using access_file_on_disk = rights_test;

TEST_F(access_file_on_disk, is_read_again_when_its_time_differs) {
    role_entry row;
    const std::string path = file("pub");
    EXPECT_TRUE(refresh_row(path, &row));
    EXPECT_FALSE(refresh_row(path, &row)) << "a missing file is current";

    put("pub", "ann:user\n");
    EXPECT_TRUE(refresh_row(path, &row));
    EXPECT_EQ(row.modified, fake_time);
    EXPECT_NE(qz_set_exists(row.users, "ann"), 0);

    put("pub", "zoe:user\n");
    set_time("pub", row.modified);
    EXPECT_FALSE(refresh_row(path, &row)) << "same time, not looked at";
    set_time("pub", row.modified - 5);
    EXPECT_TRUE(refresh_row(path, &row)) << "an older time is a change too";
    EXPECT_EQ(qz_set_exists(row.users, "ann"), 0);
    EXPECT_NE(qz_set_exists(row.users, "zoe"), 0);

    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_TRUE(refresh_row(path, &row));
    EXPECT_EQ(qz_set_size(row.users), 0);
    EXPECT_FALSE(row.unreadable);
    clear_row(&row);
}

TEST_F(access_file_on_disk, other_things_in_its_place_neither_block_nor_get_replaced) {
    role_entry row;
    const std::string path = file("agent");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_TRUE(refresh_row(path, &row));
    EXPECT_TRUE(row.unreadable);

    ASSERT_EQ(unlink(path.c_str()), 0);
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    clear_row(&row);
    EXPECT_TRUE(refresh_row(path, &row));
    EXPECT_TRUE(row.unreadable);

    // A regular file whose first read fails.
    ASSERT_EQ(rmdir(path.c_str()), 0);
    ASSERT_EQ(symlink("/proc/self/mem", path.c_str()), 0);
    for (int i = 0; i < 2; i++) {
        EXPECT_TRUE(refresh_row(path, &row)) << "tried again by every check";
        EXPECT_TRUE(row.unreadable);
    }

    ASSERT_EQ(unlink(path.c_str()), 0);
    (void)refresh_row(path, &row);
    EXPECT_FALSE(row.unreadable) << "nothing is left to lose";
    clear_row(&row);
}

}  // namespace
