// The domain file: what each kind of line means, and that what was read is written the same.
#include "domain/domain_file.h"

#include "domain/registry.h"
#include "lib/plat.h"
#include "tests/support/testing.h"

namespace {

// One host as "name|rev|id|os|release|cpu|ns,ns".
std::string describe(const agent_host* host) {
    std::string out;
    for (const char* field : {host->hostname, host->revhostname, host->hostid, host->osname,
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
        {"empty reverse name", "h::id:os:1:x86:ns\n", {"h||id|os|1|x86|ns"}},
        {"no namespace field", "h:r:id:os:1:x86\n", {"h|r|id|os|1|x86|plx"}},
        {"empty namespace", "h:r:id:os:1:x86:\n", {"h|r|id|os|1|x86|plx"}},
        {"CPU type ends at a blank", "h:r:id:os:1:x86 64:ns\n", {"h|r|id|os|1|x86|ns"}},
        {"carriage return in the namespace", "h:r:id:os:1:x86:ns\r\n", {"h|r|id|os|1|x86|ns\r"}},
        {"colon in the namespace", "h:r:id:os:1:x86:a:b\n", {"h|r|id|os|1|x86|a:b"}},
        {"IPv6 host name", "[fe80::1]:r:id:os:1:x86:ns\n", {"fe80::1|r|id|os|1|x86|ns"}},
        {"bracket that is never closed", "[h:r:id:os:1:x86:ns\n", {"[h|r|id|os|1|x86|ns"}},
        {"text behind the closing bracket", "[h]x:r:id:os:1:x86:ns\n", {}},
        {"too few fields", "h:r:id:os:1\n", {}},
        {"comments do not exist", "# a comment\n", {}},
        {"empty host name", ":r:id:os:1:x86:ns\n", {}},
        {"empty id", "h:r::os:1:x86:ns\n", {}},
        {"empty CPU type", "h:r:id:os:1::ns\n", {}},
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

// "HOSTS: NO HOSTS; RETURNS; NO UTF-8 | DROPPED"
std::string report_on(std::string_view text) {
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    const domain_text_report report = parse_domain_text(text, hosts.get());
    const auto numbers = [](const line_numbers& lines) {
        return lines.count() == 0 ? "-" : lines.text();
    };
    return std::to_string(report.host_lines) + ": " + numbers(report.no_hosts) + "; " +
           numbers(report.returns) + "; " + numbers(report.no_utf8) + " | " + report.dropped;
}

TEST(DomainFile, OddLinesAreTold) {
    using namespace std::string_literals;
    const std::string host = "h:r:id:os:1:x:ns";
    EXPECT_EQ(report_on(""), "0: -; -; - | ");
    EXPECT_EQ(report_on("# c\n\r\n \t\n#\n" + host), "1: -; -; - | ");
    EXPECT_EQ(report_on("x\n" + host + "\r\n:\n" + host + "\xff\n" + host),
              "3: lines 1 and 3; line 2; line 4 | x\n:\n");
    EXPECT_EQ(report_on(host + "\0tail\n"s), "0: line 1; -; - | " + host + "\0tail\n"s)
        << "a part of it would be lost";
    const std::string endless(1'000'000, 'x');
    EXPECT_EQ(report_on(endless), "0: line 1; -; - | " + endless + "\n");
    std::string many;
    for (int i = 0; i < 100'000; ++i) {
        many += "x\n";
    }
    EXPECT_EQ(report_on(many),
              "0: 100000 lines, the first of them 1, 2, 3, 4, 5, 6, 7 and 8; -; - "
              "| " +
                  many);
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

TEST(DomainFile, WhatIsReadIsWrittenTheSame) {
    std::mt19937 random(5634);
    const auto field = [&](std::size_t least, std::string_view letters) {
        std::string text;
        for (std::size_t n = least + random() % 12; text.size() < n;) {
            text += letters[random() % letters.size()];
        }
        return text;
    };
    constexpr std::string_view any = "abcXYZ019.-_[/@%# \"";
    std::string text;
    for (int id = 1000; id < 1500; ++id) {
        const std::string number = std::to_string(id);
        const std::string line = (id % 3 == 0 ? "[fe80::" + number + "]" : "h" + field(1, any)) +
                                 ":" + field(0, any) + ":" + number + ":" + field(1, any) + ":" +
                                 field(1, any) + ":" + field(1, "x86_64") + ":";
        for (int n = id % 4; n >= 0; --n) {
            text += line + field(1, any) + std::to_string(n) + "\n";
        }
    }
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    parse_domain_text(text, hosts.get());
    EXPECT_EQ(qz_map_size(hosts.get()), 500);
    EXPECT_EQ(format_domain_text(hosts.get()), text);
}

}  // namespace
