// How commands are cut into arguments, and what a started one does not find around it. What it does
// find is looked at in a whole daemon.
#include "sched/sched_command.h"

#include "tests/support/engine_fixture.h"

namespace {

using words = std::vector<std::string>;

TEST(Command, Words) {
    EXPECT_EQ(split_command("/usr/bin/true"), words{"/usr/bin/true"});
    EXPECT_EQ(split_command("/bin/x 'a b'\t \tc "), (words{"/bin/x", "'a", "b'", "c"}));
    EXPECT_EQ(split_command("/bin/sh -c echo  \"a  b\" "),
              (words{"/bin/sh", "-c", " echo  \"a  b\" "}));
    EXPECT_EQ(split_command("/bin/sh -cx"), (words{"/bin/sh", "-c", "x"}));
    EXPECT_EQ(split_command("/bin/sh  -c x"), (words{"/bin/sh", "-c", "x"}));
    std::string many = "/bin/x";
    for (int i = 0; i < 2000; ++i) {
        many += " w";
    }
    EXPECT_EQ(split_command(many).size(), 1023U);
}

// The exit status of a command of its own, which has ended.
int run(const std::string& command) {
    const shttpd_ctx ctx;
    schedule_entry entry;
    entry.command = command;
    const child_start child = spawn_command(&entry, &ctx);
    int status = -1;
    EXPECT_EQ(waitpid(child.pid, &status, 0), child.pid);
    EXPECT_EQ(child.failed == child_step::execute, child.error == ENOENT);
    return child.error != 0 ? -WEXITSTATUS(status) : WEXITSTATUS(status);
}

TEST(Command, WithoutInstallRootOrProgram) {
    const temporary_folder folder;
    const std::string out = folder.path() / "out";
    const std::string path = std::getenv("PATH");
    unsetenv("PATH");
    EXPECT_EQ(run("/bin/sh -c exec /usr/bin/env > " + out), 0);
    setenv("PATH", path.c_str(), 1);
    const std::string environment = read_whole_file(out);
    for (const char* name : {"PLX_INSTALL_ROOT", "PERL5LIB", "PATH="}) {
        EXPECT_FALSE(contains(environment, name));
    }
    EXPECT_EQ(run("true"), -1) << "no search along PATH";
}

}  // namespace
