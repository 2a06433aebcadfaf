// A folder of its own for every test, removed afterwards, and what tests do with files in it.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

class file_test : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "lib_test.XXXXXX";
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    }
    void TearDown() override {
        (void)chmod(folder_.c_str(), 0755);
        std::filesystem::remove_all(folder_);
    }

    std::string path(const char* name) const { return folder_ + "/" + name; }

    static void write(const std::string& file, const std::string& content) {
        std::ofstream(file, std::ios::binary) << content;
    }
    static std::string read(const std::string& file) {
        std::ostringstream content;
        content << std::ifstream(file, std::ios::binary).rdbuf();
        return content.str();
    }

    // Runs a check in a child process; true when it holds there.
    static bool holds_in_child(const std::function<bool()>& check) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(check() ? 0 : 1);
        }
        int status = -1;
        return waitpid(child, &status, 0) == child && status == 0;
    }

    // A limit on file sizes stands in for a disk that fills up half way.
    static void limit_file_size() {
        const rlimit limit{4096, 4096};
        (void)std::signal(SIGXFSZ, SIG_IGN);
        (void)setrlimit(RLIMIT_FSIZE, &limit);
    }

    std::string folder_;
};
