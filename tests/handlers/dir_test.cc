// Directory listings through the engine: rows, sizes, order, large directories, slow readers.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "core/shttpd.h"
#include "handlers/io_dir.h"
#include "tests/support/engine_fixture.h"

namespace {

constexpr const char* page_head =
    "<html><head><title>Index of /d/</title><style>th {text-align: left;}</style></head>"
    "<body><h1>Index of /d/</h1><pre><table cellpadding=\"0\">"
    "<tr><th>Name</th><th>Modified</th><th>Size</th></tr>"
    "<tr><td colspan=\"3\"><hr></td></tr>";

class directory_listing : public testing::Test {
  protected:
    directory_listing() {
        setenv("TZ", "UTC0", 1);
        tzset();
        std::filesystem::create_directory(folder());
    }

    [[nodiscard]] std::filesystem::path folder() const { return engine_.root.path() / "d"; }
    void add(const std::string& name, long size) const {
        engine_.root.write("d/" + name, "");
        EXPECT_EQ(truncate((folder() / name).c_str(), size), 0);
        const timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, (folder() / name).c_str(), times, 0), 0);
    }
    // The rows of the listing, sorted, without that of "..".
    std::vector<std::string> rows() {
        std::string body = body_of(engine_.exchange(make_request("GET", "/d/")));
        EXPECT_TRUE(body.starts_with(page_head)) << body;
        body.erase(0, std::string_view(page_head).size());
        std::vector<std::string> found;
        for (std::size_t end = body.find('\n'); end != std::string::npos; end = body.find('\n')) {
            found.push_back(body.substr(0, end));
            body.erase(0, end + 1);
        }
        EXPECT_EQ(body, "");
        EXPECT_EQ(std::erase_if(found,
                                [](const std::string& row) {
                                    return row.starts_with("<tr><td><a href=\"/d/..\">../</a>");
                                }),
                  1U);
        std::sort(found.begin(), found.end());
        return found;
    }

    test_engine engine_;
};

std::string row(const std::string& name, const std::string& size) {
    return "<tr><td><a href=\"/d/" + name + "\">" + name +
           "</a></td><td>&nbsp;14-Nov-2023 22:13</td><td>&nbsp;&nbsp;" + size + "</td></tr>";
}

TEST_F(directory_listing, HeadAndEmptyDirectory) {
    const std::string reply = engine_.exchange(make_request("GET", "/d/"));
    EXPECT_TRUE(
        reply.starts_with("HTTP/1.1 200 OK\r\nConnection: close\r\n"
                          "Content-Type: text/html; charset=utf-8\r\n\r\n" +
                          std::string(page_head)))
        << reply;
    EXPECT_TRUE(rows().empty());
}

TEST_F(directory_listing, SizesAndNames) {
    add("a-0", 0);
    add("b-1023", 1023);
    add("c-1024", 1024);
    add("d-1048575", 1048575);
    add("e-1048576", 1048576);
    add("f-2M", 2097152);
    add("g-<&\"'> %41", 5);
    add("h-.hidden", 1536);
    add(".dovmaaccess", 10);
    EXPECT_EQ(rows(), (std::vector<std::string>{row("a-0", "0"), row("b-1023", "1023"),
                                                row("c-1024", "2k"), row("d-1048575", "1024k"),
                                                row("e-1048576", "1.0M"), row("f-2M", "2.0M"),
                                                row("g-<&\"'> %41", "5"), row("h-.hidden", "2k")}));
    std::filesystem::create_directory(folder() / "sub");
    const std::string sub = rows().back();
    EXPECT_TRUE(sub.starts_with("<tr><td><a href=\"/d/sub\">sub/</a></td>")) << sub;
    EXPECT_TRUE(sub.ends_with("<td>&nbsp;&nbsp;&lt;DIR&gt;</td></tr>")) << sub;
}

TEST_F(directory_listing, EntryWithoutStatusIsListed) {
    ASSERT_EQ(symlink("nowhere", (folder() / "dangling").c_str()), 0);
    ASSERT_EQ(rows().size(), 1U);
}

TEST_F(directory_listing, CannotBeOpened) {
    const unique_fd client = engine_.connect();
    engine_.poll();
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const unique_fd next(dup(0));  // no descriptor above this one for the moment
    const rlimit none{static_cast<rlim_t>(next.get()), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const std::string reply = engine_.exchange_on(client.get(), make_request("GET", "/d/"));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(reply, "HTTP/1.1 500 Cannot open directory\r\n\r\n500 Cannot open directory");
}

TEST_F(directory_listing, ThousandsOfEntriesForAnyReader) {
    std::set<std::string> expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string name = "entry-" + std::to_string(i);
        engine_.root.write("d/" + name, "");
        expected.insert(name);
    }
    for (const int buffer_bytes : {2560, 4000, 16384}) {
        engine_.ctx->io_buf_size = buffer_bytes;
        const unique_fd client = engine_.connect();
        const int few = 4608;  // so that replies leave in small parts
        ASSERT_EQ(setsockopt(client.get(), SOL_SOCKET, SO_RCVBUF, &few, sizeof few), 0);
        const std::string body =
            body_of(engine_.exchange_on(client.get(), make_request("GET", "/d/"), 200));
        std::set<std::string> found;
        std::size_t count = 0;
        for (std::size_t at = body.find("href=\"/d/entry"); at != std::string::npos;
             at = body.find("href=\"/d/entry", at + 1)) {
            found.insert(body.substr(at + 9, body.find('"', at + 9) - at - 9));
            ++count;
        }
        EXPECT_EQ(count, expected.size()) << buffer_bytes;
        EXPECT_EQ(found, expected) << buffer_bytes;
    }
}

TEST_F(directory_listing, BufferTooSmallForARowEndsThePage) {
    add("a", 1);
    engine_.ctx->io_buf_size = 2559;
    EXPECT_EQ(body_of(engine_.exchange(make_request("GET", "/d/"))), page_head);
}

}  // namespace
