// The domain file: what each kind of line means, that everything written is read back, and that a
// file which could not be read or written is never made worse.
#include "domain/domain_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "domain/domain.h"
#include "domain/registry.h"
#include "lib/plat.h"
#include "tests/domain/local_peer.h"
#include "tests/support/engine_fixture.h"

namespace {

// One host as "name|rev|id|os|release|cpu|ns,ns".
std::string describe(const agent_host* host) {
    std::string out;
    for (const char* field :
         std::vector<const char*>{host->hostname, host->revhostname, host->hostid, host->osname,
                                  host->osrelease, host->cputype}) {
        out.append(field).append("|");
    }
    const char* separator = "";
    for (const void* name : qz_each(host->namespaces)) {
        out.append(separator).append(static_cast<const char*>(name));
        separator = ",";
    }
    return out;
}

std::vector<std::string> parse(std::string_view text) {
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    parse_domain_text(text, hosts.get());
    std::vector<std::string> out;
    for (const qz_pair& pair : qz_each(hosts.get())) {
        out.push_back(describe(static_cast<const agent_host*>(pair.value)));
    }
    return out;
}

struct line_case {
    const char* what;
    std::string text;
    std::vector<std::string> hosts;
};

TEST(DomainFile, EveryKindOfLine) {
    using namespace std::string_literals;
    const std::vector<line_case> cases = {
        {"empty file", "", {}},
        {"all fields", "h:r:id:os:1:x86:ns\n", {"h|r|id|os|1|x86|ns"}},
        {"no line break at the end", "h:r:id:os:1:x86:ns", {"h|r|id|os|1|x86|ns"}},
        {"empty reverse name", "h::id:os:1:x86:ns\n", {"h||id|os|1|x86|ns"}},
        {"no namespace field", "h:r:id:os:1:x86\n", {"h|r|id|os|1|x86|plx"}},
        {"empty namespace", "h:r:id:os:1:x86:\n", {"h|r|id|os|1|x86|plx"}},
        {"CPU type ends at a blank", "h:r:id:os:1:x86 64:ns\n", {"h|r|id|os|1|x86|ns"}},
        {"CPU type ends at a tab", "h:r:id:os:1:x86\t64\n", {"h|r|id|os|1|x86|plx"}},
        {"carriage return in the CPU type", "h:r:id:os:1:x86\r\n", {"h|r|id|os|1|x86|plx"}},
        {"carriage return in the namespace", "h:r:id:os:1:x86:ns\r\n", {"h|r|id|os|1|x86|ns\r"}},
        {"colon in the namespace", "h:r:id:os:1:x86:a:b\n", {"h|r|id|os|1|x86|a:b"}},
        {"IPv6 host name", "[fe80::1]:r:id:os:1:x86:ns\n", {"fe80::1|r|id|os|1|x86|ns"}},
        {"brackets around an ordinary name", "[h]:r:id:os:1:x86:ns\n", {"h|r|id|os|1|x86|ns"}},
        {"bracket that is never closed", "[h:r:id:os:1:x86:ns\n", {"[h|r|id|os|1|x86|ns"}},
        {"text behind the closing bracket", "[h]x:r:id:os:1:x86:ns\n", {}},
        {"nothing behind the closing bracket", "[h]\n", {}},
        {"empty brackets", "[]:r:id:os:1:x86:ns\n", {}},
        {"too few fields", "h:r:id:os:1\n", {}},
        {"comments do not exist", "# a comment\n", {}},
        {"empty host name", ":r:id:os:1:x86:ns\n", {}},
        {"empty id", "h:r::os:1:x86:ns\n", {}},
        {"empty OS name", "h:r:id::1:x86:ns\n", {}},
        {"empty OS release", "h:r:id:os::x86:ns\n", {}},
        {"empty CPU type", "h:r:id:os:1::ns\n", {}},
        {"blank instead of a CPU type", "h:r:id:os:1: x86:ns\n", {}},
        {"bad lines around a good one", "\nx\nh:r:id:os:1:x86:ns\n\n:\n", {"h|r|id|os|1|x86|ns"}},
        {"two namespaces", "h:r:id:os:1:x:a\nh:r:id:os:1:x:b\n", {"h|r|id|os|1|x|a,b"}},
        {"a namespace twice", "h:r:id:os:1:x:a\nh:r:id:os:1:x:a\n", {"h|r|id|os|1|x|a"}},
        {"the first line decides", "h:r:id:os:1:x:a\nH:R:id:OS:2:X:b\n", {"h|r|id|os|1|x|a,b"}},
        {"order of ids",
         "b:r:b:o:1:x\nB:r:B:o:1:x\na:r:a:o:1:x\n",
         {"B|r|B|o|1|x|plx", "a|r|a|o|1|x|plx", "b|r|b|o|1|x|plx"}},
        {"a zero byte ends its line",
         "h:r:id:os:1:x\0:a\ni:r:i2:os:1:x\n"s,
         {"i|r|i2|os|1|x|plx", "h|r|id|os|1|x|plx"}},
    };
    for (const line_case& each : cases) {
        EXPECT_EQ(parse(each.text), each.hosts) << each.what;
    }
}

TEST(DomainFile, LongLinesAreReadInPieces) {
    const std::string head = "h:r:id:os:1:x:";
    const auto with_namespace = [&](std::size_t length, const std::string& rest) {
        return head + std::string(length - head.size(), 'n') + rest;
    };
    const std::string kept = "h|r|id|os|1|x|" + std::string(1023 - head.size(), 'n');
    EXPECT_EQ(parse(with_namespace(1022, "\n")).at(0).size(), kept.size() - 1);
    // A full piece leaves its line break behind as an empty line, and anything else as a line.
    EXPECT_EQ(parse(with_namespace(1023, "\n")), std::vector{kept});
    EXPECT_EQ(parse(with_namespace(1023, "i:r:i2:os:1:x:y\n")),
              (std::vector<std::string>{"i|r|i2|os|1|x|y", kept}));
}

TEST(DomainFile, WhatIsWrittenIsReadBack) {
    std::mt19937 random(5634);
    const std::string letters = "abcXYZ019.-_[/@%# \"";
    const auto field = [&](std::size_t least, bool blanks) {
        std::string text;
        for (std::size_t n = least + random() % 12; text.size() < n;) {
            const char c = letters[random() % letters.size()];
            text += blanks || c != ' ' ? c : 'b';
        }
        return text;
    };
    const auto add = [](qz_map* hosts, const std::vector<std::string>& f) {
        agent_host* host =
            make_host(qzstrdup(f[0].c_str()), qzstrdup(f[1].c_str()), qzstrdup(f[2].c_str()),
                      qzstrdup(f[3].c_str()), qzstrdup(f[4].c_str()), qzstrdup(f[5].c_str()),
                      qzstrdup(f[6].c_str()));
        for (std::size_t i = 7; i < f.size(); ++i) {
            qz_vector_pushback(host->namespaces, qzstrdup(f[i].c_str()));
        }
        ASSERT_EQ(qz_map_insert(hosts, host->hostid, host), 0);
    };
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    std::map<std::string, std::string> expected;
    for (int i = 0; i < 500; ++i) {
        const std::string name = i % 3 == 0 ? "fe80::" + std::to_string(i) : "h" + field(1, true);
        std::vector<std::string> f = {name,           field(0, true), std::to_string(i) + "-id",
                                      field(1, true), field(1, true), field(1, false)};
        for (int n = i % 4; n >= 0; --n) {
            f.push_back(field(1, true) + std::to_string(n));
        }
        add(hosts.get(), f);
        expected[f[2]] = describe(static_cast<agent_host*>(qz_map_find(hosts.get(), f[2].c_str())));
    }
    std::vector<std::string> in_order;
    in_order.reserve(expected.size());
    for (const auto& [id, host] : expected) {
        in_order.push_back(host);
    }
    const std::string text = format_domain_text(hosts.get());
    EXPECT_EQ(parse(text), in_order);
    const map_ptr again(new_qz_map(compare_string, nullptr, free_agent_host));
    parse_domain_text(text, again.get());
    EXPECT_EQ(format_domain_text(again.get()), text);
}

// A running domain server over a file of the test's own.
class domain_file_on_disk : public testing::Test {
  protected:
    std::string path() const { return engine.root.path() / "domain"; }

    void switch_to(const std::string& file) {
        EXPECT_EQ(body_of(engine.exchange(make_request("POST", "/admin/dovmad/config",
                                                       "mode=domain&domain_file=" + file))),
                  "Success\n");
    }
    std::string enrol(const std::string& id) {
        return engine.exchange(make_request("POST", "/agent/domain/register", "host=h&id=" + id));
    }
    std::string list() {
        return body_of(engine.exchange(make_request("GET", "/agent/domain/enum")));
    }

    test_engine engine;
};

TEST_F(domain_file_on_disk, AMissingFileIsMade) {
    switch_to(path());
    EXPECT_NE(enrol("id1").find("200 OK"), std::string::npos);
    EXPECT_EQ(
        parse(read_whole_file(path())),
        std::vector<std::string>{"h|" + local_peer_name() + "|id1|unknown|unknown|unknown|plx"});
}

TEST_F(domain_file_on_disk, AFileThatWasNotReadIsNotRewritten) {
    // A folder stands for every file that exists and cannot be read, also for the superuser.
    std::filesystem::create_directory(path());
    testing::internal::CaptureStderr();
    switch_to(path());
    EXPECT_NE(enrol("id1").find("200 OK"), std::string::npos);
    EXPECT_NE(enrol("id2").find("200 OK"), std::string::npos);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::filesystem::is_directory(path()));
    EXPECT_NE(list().find(",id2,"), std::string::npos) << "the registry goes on in memory";
    std::size_t told = 0;
    for (std::size_t at = 0; (at = log.find("is not written", at)) != std::string::npos; ++at) {
        ++told;
    }
    EXPECT_EQ(told, 1U) << log;
}

TEST_F(domain_file_on_disk, SpecialFilesAreLeftAlone) {
    ASSERT_EQ(mkfifo(path().c_str(), 0600), 0);
    switch_to(path());  // must not wait for a writer
    EXPECT_NE(enrol("id1").find("200 OK"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_fifo(path()));
}

TEST_F(domain_file_on_disk, AFailedWriteIsToldOnceAndMadeUpFor) {
    const std::string folder = engine.root.path() / "later\n";
    const std::string file = folder + "/domain";
    testing::internal::CaptureStderr();
    switch_to(engine.root.path().string() + "/later%0A/domain");
    EXPECT_NE(enrol("id1").find("200 OK"), std::string::npos);
    EXPECT_NE(enrol("id2").find("200 OK"), std::string::npos);
    std::filesystem::create_directory(folder);
    EXPECT_NE(enrol("id3").find("200 OK"), std::string::npos);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(parse(read_whole_file(file)).size(), 3U);
    const std::size_t failed = log.find("is not written");
    ASSERT_NE(failed, std::string::npos) << log;
    EXPECT_EQ(log.find("is not written", failed + 1), std::string::npos) << log;
    EXPECT_NE(log.find("is written again", failed), std::string::npos) << log;
    EXPECT_NE(log.find("later?/domain"), std::string::npos) << "a request writes no log lines";
}

}  // namespace
