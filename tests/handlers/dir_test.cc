// A directory that can't be opened, and HEAD. Listings are compared with a real daemon's.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/engine_fixture.h"

namespace {

TEST(directory_listing, CannotBeOpened) {
    test_engine engine;
    std::filesystem::create_directory(engine.root.path() / "d");
    const unique_fd client = engine.connect();
    engine.poll();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const unique_fd next(dup(0));  // no descriptor above this one for the moment
    const rlimit none{static_cast<rlim_t>(next.get()), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string reply = engine.exchange_on(client.get(), make_request("GET", "/d/"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(reply, "HTTP/1.1 500 Cannot open directory\r\n\r\n500 Cannot open directory");
}

TEST(directory_listing, HeadSendsTheHeadOnly) {
    test_engine engine;
    std::filesystem::create_directory(engine.root.path() / "d");
    const std::string whole = engine.exchange(make_request("GET", "/d/"));
    const std::string head = engine.exchange(make_request("HEAD", "/d/"));
    EXPECT_EQ(head, whole.substr(0, whole.find("\r\n\r\n") + 4));
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK\r\n"));
}

}  // namespace
