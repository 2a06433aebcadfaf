#include "security/access_file.h"

#include <stdio.h>

#include "lib/qz_iterator.h"
#include "lib/rbtree.h"
#include "tests/security/rights_fixture.h"

namespace {

namespace fs = std::filesystem;
using names = std::vector<std::string>;
using namespace std::string_literals;

class access_file : public rights_test {
  protected:
    access_file() { (void)refresh_row("", &row); }
    ~access_file() override { clear_row(&row); }

    // Makes the row hold the principals of these lines and no others.
    void read(std::string lines) {
        clear_row(&row);
        (void)refresh_row("", &row);
        std::FILE* in = fmemopen(lines.data(), lines.size(), "r");
        EXPECT_TRUE(read_access_file(in, &row));
        (void)fclose(in);
    }

    [[nodiscard]] names listed(int kind) const {
        names all;
        for (const qz_pair& entry : qz_each(principals(&row, kind))) {
            all.emplace_back(qz_as<const char>(entry.key));
        }
        return all;
    }

    role_entry row;
};

TEST_F(access_file, lists_one_principal_a_line) {
    read(
        "alice:user\n bob smith :USER trailing\ncarol:Username\nwheel:group\r\n"
        "staff:groups:user\nno type\nempty:\nblank: user\n:user\nhost:host\n\nROOTX:user\n" +
        std::string(260, 'n') + ":user\n" + "eve:user\0hidden\n"s + "dave:user");
    // The long line falls into 255 characters without a type and "nnnnn:user".
    EXPECT_EQ(listed(kind_user),
              (names{" bob smith ", "alice", "carol", "dave", "eve", "nnnnn", "ROOTX"}));
    EXPECT_EQ(listed(kind_group), (names{"staff", "wheel"}));
    EXPECT_EQ(access_file_text(&row),
              " bob smith :user\nalice:user\ncarol:user\ndave:user\neve:user\n"
              "nnnnn:user\nstaff:group\nwheel:group\n");
    EXPECT_EQ(row.strays, "no type\nempty:\nblank: user\n:user\nhost:host\n" +
                              std::string(255, 'n') + "\neve:user\0hidden\n"s);
    EXPECT_EQ(row.stray_numbers.text(), "lines 6, 7, 8, 9, 10, 13 and 14");
}

TEST_F(access_file, search_goes_by_the_length_of_the_probe) {
    const struct {
        const char* lines;
        names stored;
        std::vector<const char*> found, missing;
    } rows[] = {
        {"alice:user\nal:user\n", {"alice"}, {"al", "alic", "ALICE", ""}, {"alicex", "b"}},
        {"al:user\nalice:user\n", {"al", "alice"}, {"al", "alice"}, {"alicex"}},
        {"root:user\n", {"root"}, {"r", "Roo", "ROOT"}, {"roots"}},
        {"*:user\nbob:user\nzed:user\n", {"*"}, {"anybody", "zed"}, {}},
        {"m:user\n*:user\n", {"*", "m"}, {"a", "m"}, {"z"}},
        {"d:user\nb:user\nf:user\n*:user\n", {"*", "b", "d", "f"}, {"a", "b"}, {"c", "e", "g"}},
    };
    for (const auto& r : rows) {
        read(r.lines);
        EXPECT_EQ(listed(kind_user), r.stored) << r.lines;
        for (const auto& [probes, expected] : {std::pair{r.found, true}, {r.missing, false}}) {
            for (const char* name : probes) {
                EXPECT_EQ(qz_set_exists(row.users, name) != 0, expected) << r.lines << name;
            }
        }
    }
}

TEST_F(access_file, is_read_again_when_its_time_differs) {
    const std::string path = file("pub");
    EXPECT_FALSE(refresh_row(path, &row)) << "a missing file is current";
    put("pub", "ann:user\n");
    EXPECT_TRUE(refresh_row(path, &row));
    put("pub", "zoe:user\n");
    set_time(path, row.modified);
    EXPECT_FALSE(refresh_row(path, &row)) << "same time, not looked at";
    set_time(path, row.modified - 5);
    EXPECT_TRUE(refresh_row(path, &row)) << "an older time is a change too";
    EXPECT_EQ(listed(kind_user), names{"zoe"});
}

TEST_F(access_file, other_things_in_its_place_neither_block_nor_get_replaced) {
    const std::string path = file("agent");
    const std::vector<int (*)(const char*)> others = {
        [](const char* p) { return mkfifo(p, 0600); }, [](const char* p) { return mkdir(p, 0700); },
        [](const char* p) { return symlink("/proc/self/mem", p); },  // its first read fails
    };
    for (const auto& make : others) {
        ASSERT_EQ(make(path.c_str()), 0);
        for (int i = 0; i < 2; i++) {
            EXPECT_TRUE(refresh_row(path, &row)) << "tried again by every check";
            EXPECT_TRUE(row.unreadable);
        }
        fs::remove(path);
        (void)refresh_row(path, &row);
        EXPECT_FALSE(row.unreadable) << "nothing is left to lose";
    }
}

}  // namespace
