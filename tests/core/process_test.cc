// Proves what children get and what they don't: environment, descriptors, signals, their end; and
// the environment block against a model.
#include <signal.h>

#include "core/cgi_env.h"
#include "core/child.h"
#include "core/compat_unix.h"
#include "tests/support/engine_fixture.h"

namespace {

class Children : public testing::Test {
  protected:
    Children() { ctx_.error_log = std::fopen(error_path_.c_str(), "ae"); }
    ~Children() override { std::fclose(ctx_.error_log); }

    // Runs a program to its end and returns what it wrote.
    std::string run(const std::string& program, std::string folder = "") {
        auto [ours, given] = connected_pair();
        const int theirs = given.release();  // spawn_process closes it
        folder = folder.empty() ? folder_.path().string() : folder;
        char variable[] = "COLOUR=blue";
        char* environment[] = {variable, nullptr};
        EXPECT_EQ(spawn_process({.ctx = &ctx_,
                                 .program = program.c_str(),
                                 .environment = environment,
                                 .fd = theirs,
                                 .directory = folder.c_str(),
                                 .record = &record_}),
                  0);
        EXPECT_EQ(fcntl(theirs, F_GETFD), -1) << "the parent's end stays open";
        std::string output;
        char buffer[4096];
        for (ssize_t n = 0; (n = read(ours.get(), buffer, sizeof buffer)) > 0;) {
            output.append(buffer, static_cast<std::size_t>(n));
        }
        EXPECT_EQ(waitpid(record_.pid, &status_, 0), record_.pid);
        return output;
    }

    // The error log's messages, without the prefixes.
    std::string logged() {
        constexpr std::string_view prefix_end = "\"-\" ";
        std::istringstream lines(read_whole_file(error_path_));
        std::string messages;
        for (std::string line; std::getline(lines, line);) {
            const std::size_t at = line.find(prefix_end);
            messages += at == std::string::npos ? line : line.substr(at + prefix_end.size());
            messages += '\n';
        }
        return messages;
    }

    temporary_folder folder_;
    std::filesystem::path error_path_ = folder_.write("error.log", "");
    shttpd_ctx ctx_;
    process_record record_;
    int status_ = -1;
};

TEST_F(Children, GetStreamsDirectoryEnvironmentAndNothingElse) {
    struct sigaction ignore {};
    struct sigaction before {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &before);
    const unique_fd leak(open("/dev/null", O_RDONLY));  // not close-on-exec
    const auto script =
        folder_.write("show.sh",
                      "#!/bin/sh\necho $0 $COLOUR $HOME.; pwd -P; echo to-the-log >&2\n"
                      "grep -E '^Sig(Blk|Ign)' /proc/self/status\n"
                      "for fd in 0 1 2 3 4 5 6 7 8 9; do\n"  // the shell's own is above
                      "  if [ -e /proc/$$/fd/$fd ]; then echo $fd; fi\n"
                      "done\n");
    EXPECT_EQ(chmod(script.c_str(), 0755), 0);
    const std::string output = run(script);
    sigaction(SIGPIPE, &before, nullptr);
    EXPECT_LT(leak.get(), 10);
    EXPECT_EQ(output, "show.sh blue .\n" + std::filesystem::canonical(folder_.path()).string() +
                          "\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n");
    EXPECT_EQ(read_whole_file(error_path_), "to-the-log\n");
    EXPECT_STREQ(record_.name, "show.sh");
    EXPECT_EQ(status_, 0);
}

// Shells begin with an empty mask whatever they get.
TEST_F(Children, DoNotBlockTheSignalsThatTheirParentBlocks) {
    sigset_t blocked;
    sigset_t mask;
    sigfillset(&blocked);
    const auto script = folder_.write("mask",
                                      "#!/usr/bin/awk -f\nBEGIN { while (getline < "
                                      "\"/proc/self/status\" > 0) if (/^SigBlk/) print }\n");
    EXPECT_EQ(chmod(script.c_str(), 0755), 0);
    sigprocmask(SIG_BLOCK, &blocked, &mask);
    const std::string output = run(script);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    EXPECT_EQ(output, "SigBlk:\t0000000000000000\n");
}

TEST_F(Children, AreRunByTheInterpreterWhenOneIsSet) {
    ctx_.cgi_interpreter = "/bin/echo";
    EXPECT_EQ(run(folder_.path() / "some.script"), "some.script\n");
    ctx_.cgi_interpreter = "/no/such/interpreter";
    EXPECT_EQ(run("/x/some.script"), "");
    EXPECT_EQ(logged(), "redirect: exec(/no/such/interpreter /x/some.script)\n");
    EXPECT_EQ(WEXITSTATUS(status_), 1);
}

TEST_F(Children, ThatCannotStartSaySoInTheErrorLog) {
    const std::string long_name(100, 'n');
    EXPECT_EQ(run("/x/" + long_name), "");
    EXPECT_EQ(WEXITSTATUS(status_), 1);
    EXPECT_EQ(record_.name, long_name.substr(0, 63));
    EXPECT_EQ(run("plain", "/no/such/folder"), "");
    EXPECT_EQ(WEXITSTATUS(status_), 1);
    EXPECT_STREQ(record_.name, "plain");
    EXPECT_EQ(logged(), "redirect: exec(/x/" + long_name +
                            ")\nredirect: chdir(/no/such/folder): No such file or directory\n");
}

TEST(StopProcess, KillsOnlyWhatDoesNotEndByItself) {
    EXPECT_GE(stop_process(nullptr), std::time(nullptr) - 1);
    for (const pid_t nobody : {0, -1, -4711}) {
        const process_record record = {.pid = nobody};
        EXPECT_GE(stop_process(&record), std::time(nullptr) - 1);  // and we are still alive
    }
    for (const bool polite : {true, false}) {
        const pid_t child = fork();
        if (child == 0) {
            (void)signal(SIGTERM, SIG_IGN);
            usleep(polite ? 50000 : 60000000);
            _exit(7);
        }
        const process_record record = {.pid = child};
        EXPECT_EQ(stop_process(&record), child);
        EXPECT_EQ(stop_process(&record), -1);  // reaped already
    }
}

TEST(SignalHandler, ReapsAllChildrenAndKeepsErrno) {
    for (const auto handler : {signal_handler, daemon_signal_handler}) {
        for (int i = 0; i < 3; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                _exit(0);
            }
            siginfo_t info{};
            ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
        }
        exit_flag = 0;
        errno = EAGAIN;
        handler(SIGCHLD);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(exit_flag, 0);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }
    daemon_signal_handler(SIGHUP);
    EXPECT_EQ(exit_flag, 0);
    EXPECT_EXIT(daemon_signal_handler(SIGTERM), testing::ExitedWithCode(0), "^$");
}

TEST(Descriptors, AreClosedFromTheLowestUpwards) {
    const auto ends = connected_pair();
    EXPECT_EQ(set_non_blocking_mode(-1), -1);
    EXPECT_TRUE(holds_in_child([&] {
        close_descriptors_from(ends.first.get());
        return fcntl(ends.first.get(), F_GETFD) == -1 && fcntl(ends.second.get(), F_GETFD) == -1 &&
               fcntl(STDERR_FILENO, F_GETFD) != -1;
    }));
}

TEST(FileCalls, AreTheSystemsOwn) {
    const temporary_folder folder;
    const std::string made = folder.path() / "made";
    const std::string file = folder.write("file", "text");
    EXPECT_EQ(my_mkdir(made.c_str(), 0700), 0);
    EXPECT_EQ(my_mkdir(made.c_str(), 0700), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(my_rename(file.c_str(), (made + "/file").c_str()), 0);
    EXPECT_EQ(read_whole_file(made + "/file"), "text");
    EXPECT_EQ(my_rename(file.c_str(), made.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(Environment, KeepsWhatFitsAndDropsTheRest) {
    std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        env_block block;
        std::vector<std::string> model;
        std::size_t used = 0;
        const unsigned longest = round % 2 == 0 ? 40 : 400;
        for (int i = 0; i < 90; ++i) {
            const std::string text(random() % longest, static_cast<char>('a' + i % 26));
            addenv(&block, "%s", text.c_str());
            if (!text.empty() && used + text.size() < 4094 && model.size() < 62) {
                model.push_back(text);
                used += text.size() + 1;
            }
        }
        ASSERT_EQ(std::vector<std::string>(block.pointers, block.pointers + block.count), model);
        ASSERT_EQ(block.pointers[model.size()], nullptr);
    }
}

}  // namespace
