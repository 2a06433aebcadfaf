// Ping bookkeeping, the compaction of id lists, and the printed forms of a host record.
#include "domain/registry.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "domain/domain_uris.h"
#include "lib/plat.h"
#include "tests/support/engine_fixture.h"

namespace {

agent_host* bare_host(const std::string& id, const char* name_space = "plx") {
    return make_host(qzstrdup("h"), qzstrdup(""), qzstrdup(id.c_str()), qzstrdup("os"),
                     qzstrdup("1"), qzstrdup("x"), name_space ? qzstrdup(name_space) : nullptr);
}

// A domain server's registry without a server.
struct domain_context {
    shttpd_ctx ctx;

    explicit domain_context(bool domain_mode = true) {
        ctx.domain_file = domain_mode ? "unused" : "";
        ctx.registry =
            new_qz_map(compare_string, nullptr, domain_mode ? free_agent_host : free_dhc_info_map);
    }
    ~domain_context() {
        free_drlist(&ctx);
        qz_map_destroy(ctx.registry);
    }
    domain_context(const domain_context&) = delete;
    domain_context& operator=(const domain_context&) = delete;
    domain_context(domain_context&&) = delete;
    domain_context& operator=(domain_context&&) = delete;

    agent_host* add(const std::string& id) {
        agent_host* host = bare_host(id);
        EXPECT_EQ(qz_map_insert(ctx.registry, host->hostid, host), 0);
        return host;
    }
};

TEST(Ping, NextDueTime) {
    struct {
        bool is_dhc;
        std::uint32_t frequency, configured, fudge;
        std::int64_t expected;
    } const cases[] = {
        {false, 60, 300, 60, 360},
        {false, 600, 300, 60, 660},
        {false, 0, 300, 0, 300},
        {true, 60, 300, 60, 66},
        {true, 5, 300, 60, 7},
        {true, 29, 300, 60, 31},
        {true, 30, 300, 60, 33},
        {true, 604800, 1, 1, 665280},
        {false, 604800, 2147483647, 2147483647, 4294967294},
    };
    domain_context domain;
    agent_host* host = domain.add("id");
    for (const auto& each : cases) {
        domain_config config;
        config.ping_frequency = each.configured;
        config.fudge = each.fudge;
        const std::int64_t before = get_current_time();
        update_ping_time(&domain.ctx, config, host, each.is_dhc, each.frequency, nullptr);
        EXPECT_LE(before, host->last_ping);
        EXPECT_LE(host->last_ping, get_current_time());
        EXPECT_EQ(host->next_due - host->last_ping, each.expected)
            << each.is_dhc << " " << each.frequency;
    }
}

struct ping_outcome {
    std::string rest;
    std::uint32_t known;
};

// The list stands in a block of exactly its size, so that a sanitizer sees every step too far.
ping_outcome ping_with_list(domain_context* domain, const std::string& text) {
    std::vector<char> exact(text.begin(), text.end());
    agent_host* host = bare_host("collector");
    host_id_list list{.text = exact.data(), .length = exact.size()};
    update_ping_time(&domain->ctx, domain_config{}, host, true, 60, &list);
    EXPECT_LE(list.length, exact.size());
    ping_outcome outcome{.rest = std::string(exact.data(), list.length), .known = host->reported};
    free_agent_host(host);
    return outcome;
}

TEST(Ping, ListKeepsWhatIsUnknown) {
    const std::string id62(62, 'a');
    const std::string id63(63, 'b');
    const std::string id64(64, 'c');
    domain_context domain;
    for (const std::string& id : {std::string("x"), std::string("yy"), id62, id63, id64}) {
        domain.add(id);
    }
    struct {
        std::string list, rest;
        std::uint32_t known;
    } const cases[] = {
        {"", "", 0},
        {"x", "", 1},
        {"x:yy:x", "", 3},
        {"nope", "nope", 0},
        {"x:nope:yy", "nope", 2},
        {"n1:x:n2:yy:n3", "n1:n2:n3", 2},
        {"::x::n::", "n", 1},
        {":::", "", 0},
        {id62, "", 1},
        {id63, id63, 0},       // the last one is too long with 63 characters
        {id63 + ":x", "", 2},  // another one is not
        {id63 + ":", "", 1},
        {id64 + ":x", id64, 1},
        {"x:" + id64, id64, 1},
    };
    for (const auto& each : cases) {
        const ping_outcome outcome = ping_with_list(&domain, each.list);
        EXPECT_EQ(outcome.rest, each.rest) << each.list;
        EXPECT_EQ(outcome.known, each.known) << each.list;
    }
}

TEST(Ping, RandomListsAgainstASet) {
    std::mt19937 random(4);
    domain_context domain;
    std::set<std::string> known;
    for (int i = 0; i < 20; ++i) {
        known.insert("k" + std::to_string(i));
        domain.add("k" + std::to_string(i));
    }
    for (int round = 0; round < 2000; ++round) {
        std::string list, rest;
        std::uint32_t hits = 0;
        for (auto n = random() % 12; n > 0; --n) {
            const std::string id =
                random() % 8 == 0 ? "" : (random() % 2 ? "k" : "u") + std::to_string(random() % 25);
            list += id + (n > 1 ? ":" : "");
            if (known.count(id) != 0) {
                ++hits;
            } else if (!id.empty()) {
                rest += (rest.empty() ? "" : ":") + id;
            }
        }
        const ping_outcome outcome = ping_with_list(&domain, list);
        ASSERT_EQ(outcome.rest, rest) << list;
        ASSERT_EQ(outcome.known, hits) << list;
    }
}

TEST(Ping, StandaloneListsNeverTouchDomainEntries) {
    domain_context standalone(false);
    domain_entry* entry = make_domain_entry("example");
    ASSERT_EQ(qz_map_insert(standalone.ctx.registry, entry->name, entry), 0);
    const ping_outcome outcome = ping_with_list(&standalone, "example:");
    EXPECT_EQ(outcome.rest, "example");
    EXPECT_EQ(outcome.known, 0U);
}

TEST(Namespaces, AreFoundAndRemovedByExactName) {
    agent_host* host = bare_host("id", "a");
    for (const char* name : {"b", "a", "c"}) {
        qz_vector_pushback(host->namespaces, qzstrdup(name));
    }
    EXPECT_EQ(ns_exists(host->namespaces, "A"), 0);
    EXPECT_EQ(ns_remove(host->namespaces, "a"), 1);
    EXPECT_EQ(ns_exists(host->namespaces, "a"), 1) << "only the first one is removed";
    EXPECT_EQ(ns_remove(host->namespaces, "a"), 1);
    EXPECT_EQ(ns_remove(host->namespaces, "a"), 0);
    EXPECT_EQ(qz_vector_size(host->namespaces), 2);
    free_agent_host(host);
    EXPECT_EQ(ns_exists(nullptr, "a"), 0);
    EXPECT_EQ(ns_remove(nullptr, "a"), 0);
}

TEST(DrList, HoldsOnlyRegisteredHostsUpToItsLimit) {
    domain_context domain;
    drlist_add(&domain.ctx, domain.add("one"), 2);
    drlist_add(&domain.ctx, find_host(&domain.ctx, "one"), 2);
    drlist_add(&domain.ctx, domain.add("two"), 2);
    drlist_add(&domain.ctx, domain.add("three"), 2);
    EXPECT_EQ(qz_map_size(domain.ctx.drlist), 2);
    registry_remove_host(&domain.ctx, "one");
    EXPECT_EQ(qz_map_find(domain.ctx.drlist, "one"), nullptr);
    EXPECT_EQ(find_host(&domain.ctx, "one"), nullptr);
    registry_remove_host(&domain.ctx, "three");  // registered, not listed
    EXPECT_EQ(qz_map_size(domain.ctx.registry), 1);
}

std::string print(const agent_host* host, bool json, bool short_form, std::int64_t now,
                  bool* first) {
    const stream_ptr stream(new_qz_stream(0));
    print_domain_record(host, stream.get(), json, now, short_form, false, first);
    return {reinterpret_cast<const char*>(stream->data), stream->length};
}

TEST(Record, PrintedForms) {
    agent_host* host =
        make_host(qzstrdup("fe80::1"), qzstrdup("rev"), qzstrdup("id"), qzstrdup("Linux"),
                  qzstrdup("6.1"), qzstrdup("x86"), qzstrdup("a"));
    qz_vector_pushback(host->namespaces, qzstrdup("b"));
    host->last_ping = 990;
    host->next_due = 1050;
    bool first = true;
    EXPECT_EQ(print(host, false, false, 1000, &first),
              "fe80::1,rev,id,Linux,6.1,x86,10 seconds,50 seconds,UP\n");
    EXPECT_EQ(print(host, false, true, 1000, &first), "id\n");
    EXPECT_TRUE(first);
    EXPECT_EQ(print(host, true, true, 1000, &first), "{\n\"hostid\":\"id\"}");
    EXPECT_FALSE(first);
    EXPECT_EQ(print(host, true, false, 1000, &first),
              ",\n{\n   \"hostname\":\"fe80::1\",\n   \"revhostname\":\"rev\",\n"
              "   \"hostid\":\"id\",\n   \"namespaces\": [\"a\", \"b\"],\n"
              "   \"osname\":\"Linux\",\n   \"osrelease\":\"6.1\",\n   \"cputype\":\"x86\",\n"
              "   \"pingtime\":\"10 seconds\",\n   \"nexttime\":\"50 seconds\",\n"
              "   \"status\":\"UP\"\n}");
    free_agent_host(host);
}

TEST(Record, TimesAndMissingFields) {
    agent_host* host =
        make_host(qzstrdup("h"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    const std::string head = "h,,,unknown,unknown,unknown,";
    struct {
        std::int64_t last, next, now;
        const char* tail;
    } const cases[] = {
        {0, 0, 1000, "0 seconds,0 seconds,DN\n"},         // never pinged
        {900, 1000, 1000, "100 seconds,0 seconds,UP\n"},  // due this very second
        {900, 999, 1000, "100 seconds,0 seconds,DN\n"},   // overdue
        {1010, 1070, 1000, "0 seconds,70 seconds,UP\n"},  // the clock was set back
    };
    bool first = true;
    for (const auto& each : cases) {
        host->last_ping = each.last;
        host->next_due = each.next;
        EXPECT_EQ(print(host, false, false, each.now, &first), head + each.tail);
    }
    EXPECT_NE(print(host, true, false, 1000, &first).find("\"namespaces\": [],\n"),
              std::string::npos);
    free_agent_host(host);
}

TEST(Variables, NumbersAreReadInsideTheirValueOnly) {
    struct {
        const char* text = "";
        std::optional<std::uint32_t> expected;
    } const cases[] = {
        {"", std::nullopt},
        {"n=", std::nullopt},
        {"n=7", 7},
        {"n=7&m=8", 7},
        {"m=1&n=12x", 12},
        {"n=yes", 0},
        {"n=-1", std::nullopt},
        {"n=2147483647", 2147483647},
        {"n=2147483648", std::nullopt},
        {"n=99999999999999999999999", std::nullopt},
    };
    for (const auto& each : cases) {
        // Digits behind the text must not become part of the number.
        const std::string buffer = std::string(each.text) + "99";
        EXPECT_EQ(number_variable(std::string_view(buffer).substr(0, buffer.size() - 2), "n"),
                  each.expected)
            << each.text;
    }
}

}  // namespace
