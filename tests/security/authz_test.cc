#include "security/authz.h"

#include "core/state_writer.h"
#include "tests/security/rights_fixture.h"

namespace {

using authz = rights_test;

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

TEST_F(authz, a_granted_role_stays_with_connection_and_namespace) {
    start();
    add_namespace_to_map(&ctx, "one", (folder.path() / "one").string());
    select("one");
    put("operator", "ann:user\n", "one");
    caller("ann");
    remove_namespace_from_map(&ctx, "one");
    EXPECT_EQ(find_namespace(&ctx, "one"), nullptr);
    EXPECT_EQ(may("operator"), 1) << "the request goes on in it";
    put("operator", "", "one");
    EXPECT_EQ(may("operator"), 1) << "remembered on this connection";
    add_namespace_to_map(&ctx, "one", (folder.path() / "one").string());
    select("one");
    EXPECT_EQ(may("operator"), 0) << "a namespace of the same name is another one";
    select("none");
    EXPECT_EQ(may("pub"), 0);
}

TEST_F(authz, asking_about_a_principal_remembers_nothing) {
    start();
    put("operator", "ann:user\nstaff:group\n");
    const auto holds = [&](const char* principal, int kind) {
        return assert_role(&c, role_operator, principal, kind);
    };
    EXPECT_EQ(holds("ann", kind_user), 1);
    EXPECT_EQ(holds("staff", kind_group), 1);
    EXPECT_EQ(holds("ann", kind_group) + holds("zoe", kind_user), 0);
    EXPECT_EQ(c.granted, nullptr);
    put("operator", "");
    EXPECT_EQ(holds("ann", kind_user), 0);
}

TEST_F(authz, a_file_that_could_not_be_read_is_never_replaced) {
    start();
    const std::string list = folder.write("list", "ann:user\n");
    const std::string path = file("operator");
    // A symbolic link that leads to itself can't be read by anyone, root included.
    std::filesystem::create_symlink(path, path);
    validate_access_information(&c, role_operator);
    role_entry* table = c.request.ns->roles;
    add_principal(table[role_operator].users, "zoe");
    std::filesystem::remove(path);
    std::filesystem::create_symlink(list, path);
    sync_role(&c, table, role_operator);
    finish_state_writes();
    EXPECT_EQ(read_whole_file(list), "ann:user\n");

    caller("ann");
    EXPECT_EQ(may("operator"), 1) << "and it is read as soon as that is possible";
    add_principal(table[role_operator].users, "zoe");
    sync_role(&c, table, role_operator);
    finish_state_writes();
    EXPECT_EQ(read_whole_file(list), "ann:user\nzoe:user\n");

    std::filesystem::remove_all(folder.path() / "plx");
    sync_role(&c, table, role_operator);
    finish_state_writes();
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "plx")) << "no folders are made";

    add_namespace_to_map(&ctx, "long", "/" + std::string(2040, 'x'));
    select("long");
    EXPECT_EQ(may("operator"), 0) << "a path that is too long is a missing file";
    sync_role(&c, c.request.ns->roles, role_operator);
}

}  // namespace
