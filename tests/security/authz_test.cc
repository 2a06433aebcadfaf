#include "security/authz.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>

#include "tests/security/rights_fixture.h"

namespace {

using authz = rights_test;

TEST(role_number, a_beginning_is_enough_and_the_unknown_is_admin) {
    const std::map<std::string, int> expected = {
        {"", 2},         {"a", 2},     {"ad", 2},       {"admin", 2},  {"admins", 2},
        {"ag", 3},       {"agent", 3}, {"agents", 2},   {"o", 1},      {"op", 1},
        {"operator", 1}, {"p", 0},     {"pub", 0},      {"public", 2}, {"foo", 2},
        {"ADMIN", 2},    {"PUB", 2},   {"OPERATOR", 2}, {"w", 2},      {"world", 2},
    };
    for (const auto& [name, number] : expected) {
        EXPECT_EQ(get_role_number(name), number) << name;
    }
}

TEST_F(authz, a_role_includes_the_roles_below_it) {
    const std::map<std::string, std::set<std::string>> included = {
        {"pub", {"pub"}},
        {"operator", {"pub", "operator"}},
        {"admin", {"pub", "operator", "admin", "agent"}},
        {"agent", {"pub", "agent"}},
    };
    start();
    for (const auto& [role, held] : included) {
        put(role.c_str(), "u-" + role + ":user\ng-" + role + ":group\n");
    }
    for (const auto& [role, held] : included) {
        for (const char* wanted : {"pub", "operator", "admin", "agent", "elsewhere"}) {
            const std::string as = wanted == std::string("elsewhere") ? "admin" : wanted;
            caller(("u-" + role).c_str());
            EXPECT_EQ(may(wanted), held.count(as)) << role << " " << wanted;
            // A group holds what its lines say; that every user holds pub is a rule for users.
            EXPECT_EQ(assert_role(&c, get_role_number(wanted), ("g-" + role).c_str(), kind_group),
                      as == "pub" && role == "agent" ? 0 : held.count(as))
                << role << " " << wanted;
        }
    }
}

TEST_F(authz, built_in_principals_need_no_file) {
    start();
    caller("anybody@local.host");
    EXPECT_EQ(may("pub"), 1);
    EXPECT_EQ(may("operator"), 0);
    caller("root");
    for (const char* role : {"pub", "operator", "admin", "agent", ""}) {
        EXPECT_EQ(may(role), 1) << role;
    }
    put("pub", "m:user\n");
    caller("zoe");
    EXPECT_EQ(may("pub"), 1) << "every user holds pub, whoever is listed";
    EXPECT_EQ(assert_role(&c, role_pub, "wheel", kind_group), 0);
    EXPECT_EQ(assert_role(&c, role_operator, "root", kind_group), 1);
    EXPECT_EQ(assert_role(&c, 4, "root", kind_user), 0);
    EXPECT_EQ(assert_role(&c, -1, "root", kind_user), 0);
}

TEST_F(authz, groups_count_in_list_order_after_the_user) {
    start();
    put("operator", "wheel:group\n");
    put("admin", "chiefs:group\n");
    caller("zoe");
    EXPECT_EQ(may("operator"), 0);
    caller("zoe", {"games", "wheel"});
    EXPECT_EQ(may("operator"), 1);
    EXPECT_EQ(may("admin"), 0);
    caller("zoe", {"chiefs"});
    EXPECT_EQ(may("admin"), 1);
    EXPECT_EQ(may("agent"), 1);
}

TEST_F(authz, qz_names_never_pass_through_groups_of_agent_or_of_an_empty_list) {
    start();
    put("admin", "chiefs:group\n");
    caller("unit@x.qz", {"chiefs"});
    EXPECT_EQ(may("agent"), 0) << "agent never";
    EXPECT_EQ(may("operator"), 0) << "operator's own list of groups is empty";
    EXPECT_EQ(may("admin"), 1) << "admin's is not";
    put("agent", "chiefs:group\n");
    caller("unit@x.qz", {"chiefs"});
    EXPECT_EQ(may("agent"), 0);
    caller("unit@x.org", {"chiefs"});
    EXPECT_EQ(may("agent"), 1);

    EXPECT_EQ(is_qz_domain(".qz"), 1);
    EXPECT_EQ(is_qz_domain("a.qz"), 1);
    EXPECT_EQ(is_qz_domain("qz"), 0);
    EXPECT_EQ(is_qz_domain(""), 0);
    EXPECT_EQ(is_qz_domain("a.QZ"), 0);
}

TEST_F(authz, a_granted_role_stays_with_connection_and_namespace) {
    ctx.namespaces = "one=" + (folder / "one").string() + ",two=" + (folder / "two").string();
    start();
    put("operator", "ann:user\n", "one");
    select("one");
    caller("ann");
    EXPECT_EQ(may("operator"), 1);
    select("two");
    EXPECT_EQ(may("operator"), 0) << "granted in one, not in two";
    put("operator", "", "one");
    select("one");
    EXPECT_EQ(may("operator"), 1) << "remembered on this connection";
    caller("ann");
    EXPECT_EQ(may("operator"), 0) << "asked again on a new one";
    c.request.role = "operator";
    namespace_release(c.request.ns);
    c.request.ns = nullptr;
    EXPECT_EQ(is_authorized(&c), 0);
}

TEST_F(authz, namespaces_option_lists_names_and_roots) {
    ctx.namespaces = "one=/1,  ,,two=/2=b, nopath,one=/other,plx=/mine,,x=/not";
    init_auth_info(&ctx);
    const std::map<std::string, std::string> roots = {
        {"one", "/1"}, {"two", "/2=b"}, {"plx", "/mine"}, {"x", "/not"}};
    for (const auto& [name, root] : roots) {
        const namespace_record* found = find_namespace(&ctx, name);
        ASSERT_NE(found, nullptr) << name;
        EXPECT_EQ(found->root, root);
    }
    for (const char* name : {"nopath", "on", "one/x", "", "ONE"}) {
        EXPECT_EQ(find_namespace(&ctx, name), nullptr) << name;
    }
}

TEST_F(authz, a_removed_namespace_lives_until_its_last_request_ends) {
    start();
    add_namespace_to_map(&ctx, "one", (folder / "one").string());
    select("one");
    put("operator", "ann:user\n", "one");
    caller("ann");
    remove_namespace_from_map(&ctx, "one");
    remove_namespace_from_map(&ctx, "one");
    EXPECT_EQ(find_namespace(&ctx, "one"), nullptr);
    EXPECT_EQ(may("operator"), 1) << "the request goes on in it";
    const std::uint32_t old_serial = c.request.ns->serial;
    add_namespace_to_map(&ctx, "one", (folder / "two").string());
    select("one");
    EXPECT_NE(c.request.ns->serial, old_serial);
    EXPECT_EQ(may("operator"), 0) << "a namespace of the same name is another one";
}

TEST_F(authz, writing_a_row_replaces_its_file) {
    start();
    put("operator", "zoe:user\nwheel:group\nroot:user\nbroken line\n");
    validate_access_information(&c, role_operator);
    role_entry* table = c.request.ns->roles;
    add_principal(table[role_operator].users, "ann");
    sync_role(&c, table, role_operator);
    EXPECT_EQ(get("operator"), "ann:user\nzoe:user\nwheel:group\n");

    std::filesystem::remove_all(folder / "plx" / "operator");
    sync_role(&c, table, role_operator);
    EXPECT_FALSE(std::filesystem::exists(folder / "plx" / "operator"));
}

TEST_F(authz, a_file_that_could_not_be_read_is_never_replaced) {
    start();
    std::filesystem::create_directory(folder / "real");
    std::ofstream(folder / "real" / "list") << "ann:user\n";
    // A symbolic link that leads to itself can't be read by anyone, root included.
    std::filesystem::create_symlink(file("operator"), file("operator"));
    validate_access_information(&c, role_operator);
    role_entry* table = c.request.ns->roles;
    add_principal(table[role_operator].users, "zoe");
    EXPECT_TRUE(table[role_operator].unreadable);
    std::filesystem::remove(file("operator"));
    std::filesystem::create_symlink(folder / "real" / "list", file("operator"));
    sync_role(&c, table, role_operator);
    EXPECT_EQ(get("operator"), "ann:user\n");

    caller("ann");
    EXPECT_EQ(may("operator"), 1) << "and it is read as soon as that is possible";
    add_principal(table[role_operator].users, "zoe");
    sync_role(&c, table, role_operator);
    EXPECT_EQ(get("operator"), "ann:user\nzoe:user\n");
    EXPECT_TRUE(std::filesystem::is_symlink(file("operator")));
}

TEST_F(authz, a_path_that_is_too_long_is_a_missing_file) {
    start();
    add_namespace_to_map(&ctx, "long", "/" + std::string(2040, 'x'));
    select("long");
    caller("root");
    EXPECT_EQ(may("operator"), 1);
    sync_role(&c, c.request.ns->roles, role_operator);
}

}  // namespace
