// A folder of its own for every test, removed afterwards, and what tests do with files in it.
#pragma once

#include "tests/support/testing.h"

class file_test : public testing::Test {
  protected:
    ~file_test() override { (void)chmod(folder_.c_str(), 0755); }

    std::string path(const char* name) const { return folder_ + "/" + name; }

    static void write(const std::string& file, const std::string& content) {
        std::ofstream(file, std::ios::binary) << content;
    }
    static std::string read(const std::string& file) { return read_whole_file(file); }

    // A limit on file sizes stands in for a disk that fills up half way.
    static void limit_file_size() {
        const rlimit limit{4096, 4096};
        (void)std::signal(SIGXFSZ, SIG_IGN);
        (void)setrlimit(RLIMIT_FSIZE, &limit);
    }

    const temporary_folder own_;
    const std::string folder_ = own_.path();
};
