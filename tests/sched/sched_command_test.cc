// How commands are cut into arguments, and what a started one finds around it.

#include "sched/sched_command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <sstream>

#include "core/context.h"
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

// Starts a command that writes to `out` and returns what it wrote, once it has ended.
int run(const shttpd_ctx& ctx, const std::string& command) {
    schedule_entry entry;
    entry.id = "job";
    entry.command = command;
    const pid_t pid = spawn_command(&entry, &ctx);
    EXPECT_GT(pid, 0);
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

TEST(Command, SurroundingsOfAChild) {
    const temporary_folder folder;
    const std::string out = folder.path() / "out";
    shttpd_ctx ctx;
    ctx.auth_realm = "realm";
    ctx.var_dir = "/var/x";
    ctx.cgi_envvar = "A=1, PLX_INSTALL_ROOT=/opt/plx, B=2";
    setenv("PATH", "/usr/bin:/bin", 1);
    setenv("SECRET", "x", 1);
    remember_groups();
    std::signal(SIGPIPE, SIG_IGN);
    const int stray = open("/dev/null", O_RDONLY);  // not marked close-on-exec
    ASSERT_GT(stray, 2);

    const int status =
        run(ctx, "/bin/sh -c exec > " + out +
                     "; tr '\\0' '\\n' < /proc/$$/environ; echo \"umask=$(umask)\";"
                     " grep -E '^(SigIgn|SigBlk)' /proc/$$/status | tr -d '\\t' | tr ':' '=';"
                     " read -r pid name state ppid pgrp sid rest < /proc/$$/stat; echo "
                     "session=$((pid - sid));"
                     " for f in 0 2; do echo fd$f=$(readlink /proc/$$/fd/$f); done;"
                     " [ -e /proc/$$/fd/" +
                     std::to_string(stray) + " ] && echo stray=1");
    close(stray);
    EXPECT_TRUE(WIFEXITED(status));

    std::map<std::string, std::string> facts;
    std::istringstream lines(read_whole_file(out));
    for (std::string line; std::getline(lines, line);) {
        facts[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    }
    const std::map<std::string, std::string> expected = {
        {"SERVER_NAME", "realm"},
        {"PLX_VAR_DIR", "/var/x"},
        {"PLX_INSTALL_ROOT", "/opt/plx"},
        {"PERL5LIB", "/opt/plx/lib/modules"},
        {"PATH", "/usr/bin:/bin"},
        {"LC_TIME", "C"},
        {"umask", "0027"},
        {"SigIgn", "0000000000000000"},
        {"SigBlk", "0000000000000000"},
        {"session", "0"},
        {"fd0", "/dev/null"},
        {"fd2", "/dev/null"},
    };
    EXPECT_EQ(facts, expected);
    std::signal(SIGPIPE, SIG_DFL);
}

TEST(Command, WithoutInstallRootOrProgram) {
    const temporary_folder folder;
    const std::string out = folder.path() / "out";
    shttpd_ctx ctx;
    unsetenv("PATH");
    run(ctx, "/bin/sh -c exec /usr/bin/env > " + out);
    setenv("PATH", "/usr/bin:/bin", 1);
    const std::string environment = read_whole_file(out);
    EXPECT_EQ(environment.find("PLX_INSTALL_ROOT"), std::string::npos);
    EXPECT_EQ(environment.find("PERL5LIB"), std::string::npos);
    EXPECT_EQ(environment.find("PATH="), std::string::npos);

    const int status = run(ctx, "true");  // no search along PATH
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

}  // namespace
