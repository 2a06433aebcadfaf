// Proves the rights policy by tables, over files in a temporary folder.
#include "security/rights.h"

#include "lib/odd_lines.h"
#include "lib/replace_file.h"
#include "tests/support/engine_fixture.h"

namespace {

using texts = std::map<std::string, std::string>;

class rights_policy : public testing::Test, public rights_user {
  protected:
    rights_policy() {
        for (const role_number role : all_roles) {
            std::filesystem::create_directories(folder.path() / role_name(role));
        }
    }
    ~rights_policy() override { delete_role_table(table); }

    int write(role_entry* row, const std::string& file, const std::string& lost) override {
        writes.emplace_back(row->directory);
        if (answer != 0) {
            return answer;
        }
        const int error = lost.empty() ? 0 : save_lines(file.c_str(), lost);
        return error != 0 ? error : replace_file(file.c_str(), access_file_text(row));
    }
    bool is_writing(const std::string& /*path*/) const override { return under_way; }
    void tell(const std::string& line) override {
        const std::size_t at = line.find(folder.path().string());
        told.push_back(at == std::string::npos
                           ? line
                           : line.substr(0, at) + line.substr(at + folder.path().string().size()));
    }

    std::string path(const char* role) { return access_path(folder.path().string(), number(role)); }
    static int number(std::string_view role) { return get_role_number(role); }

    // These files and no others, none of which was read yet.
    void files_are(const texts& files) {
        for (const role_number role : all_roles) {
            std::filesystem::remove(path(role_name(role)));
        }
        for (const auto& [role, text] : files) {
            folder.write(path(role.c_str()), text);
            const timespec times[2] = {{1000, 0}, {++second, 0}};
            ASSERT_EQ(utimensat(AT_FDCWD, path(role.c_str()).c_str(), times, 0), 0);
        }
        delete_role_table(table);
        table = new_role_table();
        writes.clear();
        told.clear();
    }
    texts files() {
        texts found;
        for (const role_number role : all_roles) {
            if (std::filesystem::exists(path(role_name(role)))) {
                found[role_name(role)] = read_whole_file(path(role_name(role)));
            }
        }
        return found;
    }
    role_files rights() { return {root, table, this}; }

    temporary_folder folder;
    std::string root = folder.path().string();
    role_entry* table = new_role_table();
    time_t second = 1'000'000'000;
    int answer = 0;  // of the next writes; 0: they are made
    bool under_way = false;
    std::vector<std::string> writes;
    std::vector<std::string> told;
};

TEST_F(rights_policy, who_holds_what_and_why) {
    const texts files = {{"pub", "guests:group\n"},
                         {"operator", "olga:user\nops:group\n"},
                         {"admin", "ada:user\nchiefs:group\n"},
                         {"agent", "host:user\nhosts:group\n"}};
    const char* const all = "operator admin agent";
    const struct {
        const char* user;
        std::vector<std::string> groups;
        std::string_view roles;  // that are held besides pub
        const char* reason;
    } rows[] = {
        {"olga", {}, "operator", "listed as operator"},
        {"ada", {"ops"}, all, "listed as admin"},
        {"ad", {}, all, "listed as admin"},
        {"al", {}, "", ""},
        {"root", {}, all, "listed as admin"},
        {"host", {"guests"}, "agent", "listed as agent"},
        {"nina", {"games", "ops"}, "operator", "group ops is listed as operator"},
        {"nina", {"chiefs"}, all, "group chiefs is listed as admin"},
        {"nina", {"root"}, all, "group root is listed as admin"},
        // Agent never by group.
        {"unit@x.qz", {"hosts", "ops"}, "operator", "group ops is listed as operator"},
    };
    files_are(files);
    for (const auto& row : rows) {
        for (const role_number role : all_roles) {
            const bool held = row.roles.find(role_name(role)) != row.roles.npos;
            const std::string expected = role == role_pub ? "every user holds pub"
                                         : held           ? row.reason
                                                          : "not listed";
            const standing judged = rights().judge_user(role, row.user, row.groups);
            EXPECT_EQ(in_words(judged), expected) << row.user << " " << role_name(role);
            EXPECT_EQ(judged.held(), expected != "not listed");
        }
    }
    EXPECT_EQ(in_words(rights().judge(role_pub, "guests", kind_group)), "listed as pub");
    EXPECT_FALSE(rights().judge(role_pub, "hosts", kind_group).held());
    EXPECT_FALSE(rights().judge(4, "root", kind_user).held());
}

TEST_F(rights_policy, what_grant_and_deny_write) {
    const texts start = {{"pub", "bob:user\n"},
                         {"operator", "bob:user\nann:user\n"},
                         {"agent", "bob:user\nbob:group\n"}};
    const struct {
        const char* request;              // what, role, kind, who
        std::vector<std::string> writes;  // in this order
        texts after;                      // the files that differ from the start
    } rows[] = {
        {"grant admin user bob",
         {"agent", "operator", "pub", "admin"},
         {{"agent", "bob:group\n"},
          {"operator", "ann:user\n"},
          {"pub", "*:user\n"},
          {"admin", "bob:user\n"}}},
        {"grant operator group bob",
         {"operator"},
         {{"operator", "ann:user\nbob:user\nbob:group\n"}}},
        {"grant agent user zoe", {"agent"}, {{"agent", "bob:user\nzoe:user\nbob:group\n"}}},
        {"grant pub user zoe", {}, {}},
        {"grant pub group staff", {"pub"}, {{"pub", "*:user\nbob:user\nstaff:group\n"}}},
        {"grant operator user an", {}, {}},  // held, by the beginning of a name
        {"grant admin user ROOTx", {}, {}},
        {"deny operator user ann", {"operator"}, {{"operator", "bob:user\n"}}},
        {"deny operator user an", {}, {}},
        {"deny operator user ANN", {}, {}},
        {"deny agent group bob", {"agent"}, {{"agent", "bob:user\n"}}},
        {"deny admin user root", {}, {}},
        {"deny pub user *", {}, {}},
        {"deny pub group *", {}, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.request);
        files_are(start);
        role_files all = rights();
        std::istringstream words(row.request);
        std::string what, role, kind, who;
        words >> what >> role >> kind >> who;
        const auto ask = what == "grant" ? &role_files::grant : &role_files::deny;
        const rights_change change = (all.*ask)(number(role), who, get_principal_kind(kind));
        EXPECT_EQ(change.changed, !row.writes.empty());
        EXPECT_EQ(change.error, 0);
        EXPECT_EQ(writes, row.writes);
        texts expected = start;
        for (const auto& [file, text] : row.after) {
            expected[file] = text;
        }
        EXPECT_EQ(files(), expected);
        if (!row.writes.empty()) {
            const standing now = all.judge(number(role), who.c_str(), get_principal_kind(kind));
            EXPECT_EQ(now.held(), what == "grant");
        }
        EXPECT_TRUE(told.empty());
    }
    files_are({{"pub", "guests:group\n"}});
    (void)rights().deny(role_pub, "*", kind_user);
    (void)rights().grant(role_pub, "staff", kind_group);
    EXPECT_EQ(files()["pub"], "*:user\nguests:group\nstaff:group\n") << "everybody stays";
}

TEST_F(rights_policy, a_write_that_failed_is_told_once_and_owed_until_it_succeeds) {
    files_are({{"admin", "ann:user\n"}});
    answer = EROFS;
    EXPECT_EQ(rights().grant(role_admin, "bob", kind_user).error, EROFS);
    EXPECT_TRUE(rights().judge(role_admin, "bob", kind_user).held());
    EXPECT_TRUE(rights().judge(role_admin, "ann", kind_user).held())
        << "the file is not read again";
    EXPECT_EQ(told, std::vector<std::string>{"Cannot replace /admin/.dovmaaccess: " +
                                             std::string(strerror(EROFS))});
    answer = 0;
    EXPECT_TRUE(rights().judge(role_admin, "bob", kind_user).held()) << "a check writes it, too";
    EXPECT_EQ(files()["admin"], "ann:user\nbob:user\n");
    EXPECT_EQ(told.back(), "/admin/.dovmaaccess is written again");
    for (const bool give : {true, false}) {
        files_are({});
        answer = ENOENT;
        (void)rights().grant(role_admin, "bob", kind_user);
        answer = 0;
        (void)(give ? rights().grant(role_pub, "x", kind_user)
                    : rights().deny(role_agent, "x", kind_user));
        EXPECT_EQ(files()["admin"], "bob:user\n") << "written by a change of another role";
    }
}

TEST_F(rights_policy, what_is_under_way_counts_before_the_file) {
    files_are({{"admin", "ann:user\n"}});
    answer = rights_user::write_pending;
    EXPECT_EQ(rights().grant(role_admin, "cy", kind_user).error, 0);
    under_way = true;
    EXPECT_TRUE(rights().judge(role_admin, "cy", kind_user).held());
    const auto teller = [this](const std::string& line) { tell(line); };
    finish_write(&table[role_admin], path("admin"), EIO, teller);
    EXPECT_TRUE(rights().judge(role_admin, "cy", kind_user).held());
    EXPECT_EQ(writes.size(), 1U) << "what is under way is not written again";
    finish_write(&table[role_admin], path("admin"), 0, teller);
    under_way = false;
    EXPECT_FALSE(rights().judge(role_admin, "cy", kind_user).held()) << "now the file says";
}

TEST_F(rights_policy, lines_that_name_nobody_are_told_and_kept_beside_the_file) {
    const std::string rubbish =
        "# a comment\n\nann:user\nann:user\nrubbish\nbob:host\nAN:user";  // found in ann
    files_are({{"admin", rubbish}});
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(rights().judge(role_admin, "ann", kind_user).held());
    }
    EXPECT_EQ(told, std::vector<std::string>{"/admin/.dovmaaccess: no entry in lines 5, 6 and 7"});
    const std::string backup = folder.write(path("admin") + ".bak", "older\n");
    (void)rights().grant(role_admin, "cy", kind_user);
    (void)rights().grant(role_admin, "di", kind_user);
    EXPECT_EQ(files()["admin"], "ann:user\ncy:user\ndi:user\n");
    EXPECT_EQ(read_whole_file(backup), "older\nrubbish\nbob:host\nAN:user\n");

    // Without room for them nothing is dropped.
    std::filesystem::remove(backup);
    std::filesystem::create_directory(backup);
    files_are({{"admin", rubbish}});
    EXPECT_NE(rights().grant(role_admin, "cy", kind_user).error, 0);
    EXPECT_EQ(files()["admin"], rubbish);

    // Nobody at all is no access file: it is left alone. Comments alone are an empty one.
    files_are({{"operator", "something else\n"}, {"agent", "# nobody yet\n\n"}});
    EXPECT_FALSE(rights().judge(role_operator, "cy", kind_user).held());
    EXPECT_EQ(told.size(), 2U) << "the check tells it";
    EXPECT_FALSE(refresh_row(path("operator"), &table[role_operator])) << "and reads it once";
    EXPECT_EQ(rights().grant(role_operator, "cy", kind_user).error, EUCLEAN);
    EXPECT_EQ(rights().grant(role_agent, "cy", kind_user).error, 0);
    EXPECT_EQ(files(), (texts{{"operator", "something else\n"}, {"agent", "cy:user\n"}}));
    EXPECT_EQ(told.back(), "/operator/.dovmaaccess could not be read and will not be replaced");
}

TEST_F(rights_policy, a_change_in_the_second_of_the_reading_is_noticed) {
    folder.write(path("admin"), "ann:user\n");
    EXPECT_TRUE(rights().judge(role_admin, "ann", kind_user).held());
    const timespec now = [&] {
        struct stat st {};
        (void)stat(path("admin").c_str(), &st);
        return st.st_mtim;
    }();
    folder.write(path("admin"), "");
    const timespec times[2] = {now, now};
    ASSERT_EQ(utimensat(AT_FDCWD, path("admin").c_str(), times, 0), 0);
    EXPECT_FALSE(rights().judge(role_admin, "ann", kind_user).held());
    std::filesystem::remove(path("admin"));
    EXPECT_FALSE(rights().judge(role_admin, "ann", kind_user).held());
}

TEST_F(rights_policy, names) {
    const std::map<std::string, std::string> numbers = {
        {"a", "admin"},         {"ag", "agent"}, {"", "admin"},    {"o", "operator"},
        {"operatorx", "admin"}, {"pub", "pub"},  {"PUB", "admin"}, {"world", "admin"}};
    for (const auto& [text, name] : numbers) {
        EXPECT_STREQ(role_name(get_role_number(text)), name.c_str()) << text;
    }
    EXPECT_EQ(get_principal_kind("Users"), kind_user);
    EXPECT_EQ(get_principal_kind("GROUP"), kind_group);
    EXPECT_EQ(get_principal_kind("use"), -1);
    for (const char* bad : {"a:b", "a\n", "\r"}) {
        EXPECT_TRUE(is_bad_principal(bad));
    }
    EXPECT_FALSE(is_bad_principal("DOM\\b c\"'"));
    EXPECT_EQ(access_path(std::string(2040, 'x'), role_pub), "");
    EXPECT_EQ(access_path("/r", role_agent), "/r/agent/.dovmaaccess");
}

}  // namespace
