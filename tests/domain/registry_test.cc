// Ping bookkeeping, the compaction of id lists, and the printed forms of a host record.
#include "domain/registry.h"

#include "core/context.h"
#include "lib/plat.h"
#include "tests/support/testing.h"

namespace {

agent_host* bare_host(const std::string& id) {
    return make_host(copy_text("h"), copy_text(""), copy_text(id), copy_text("os"), copy_text("1"),
                     copy_text("x"), copy_text("a"));
}

// A domain server's registry without a server.
class registry : public testing::Test {
  protected:
    registry() {
        ctx.domain_file = "unused";
        ctx.registry = hosts.get();
    }
    agent_host* add(const std::string& id) {
        agent_host* host = bare_host(id);
        EXPECT_EQ(qz_map_insert(ctx.registry, host->hostid, host), 0);
        return host;
    }
    // Pings with a list that stands in a block of exactly its size, so that a sanitizer sees every
    // step too far. "REST KNOWN": what remains of the list, and the number of hosts found.
    std::string ping_with_list(const std::string& text) {
        std::vector<char> exact(text.begin(), text.end());
        agent_host* host = bare_host("collector");
        host_id_list list{.text = exact.data(), .length = exact.size()};
        update_ping_time(&ctx, domain_config{}, host, true, 60, &list);
        EXPECT_LE(list.length, exact.size());
        const std::string outcome =
            std::string(exact.data(), list.length) + " " + std::to_string(host->reported);
        free_agent_host(host);
        return outcome;
    }

    const map_ptr hosts{new_qz_map(compare_string, nullptr, free_agent_host)};
    shttpd_ctx ctx;
};

TEST_F(registry, NextDueTime) {
    struct {
        bool is_dhc;
        std::uint32_t frequency, configured, fudge;
        std::int64_t expected;
    } const cases[] = {
        {false, 60, 300, 60, 360},    {false, 600, 300, 60, 660},
        {false, 0, 300, 0, 300},      {true, 60, 300, 60, 66},
        {true, 5, 300, 60, 7},        {true, 30, 300, 60, 33},
        {true, 604800, 1, 1, 665280}, {false, 604800, 2147483647, 2147483647, 4294967294},
    };
    agent_host* host = add("id");
    for (const auto& each : cases) {
        domain_config config;
        config.ping_frequency = each.configured;
        config.fudge = each.fudge;
        const std::int64_t before = get_current_time();
        update_ping_time(&ctx, config, host, each.is_dhc, each.frequency, nullptr);
        EXPECT_TRUE(before <= host->last_ping && host->last_ping <= get_current_time());
        EXPECT_EQ(host->next_due - host->last_ping, each.expected)
            << each.is_dhc << " " << each.frequency;
    }
}

TEST_F(registry, ListKeepsWhatIsUnknown) {
    const std::string id62(62, 'a');
    const std::string id63(63, 'b');
    const std::string id64(64, 'c');
    for (const std::string& id : {std::string("x"), std::string("yy"), id62, id63, id64}) {
        add(id);
    }
    struct {
        std::string list, outcome;
    } const cases[] = {
        {"", " 0"},
        {"x:yy:x", " 3"},
        {"n1:x:n2:yy:n3", "n1:n2:n3 2"},
        {":::", " 0"},
        {id62, " 1"},
        {id63, id63 + " 0"},  // the last one is too long with 63 characters
        {id63 + ":x", " 2"},  // another one is not
        {id63 + ":", " 1"},
        {id64 + ":x", id64 + " 1"},
        {"x:" + id64, id64 + " 1"},
    };
    for (const auto& each : cases) {
        EXPECT_EQ(ping_with_list(each.list), each.outcome) << each.list;
    }
    // The keys of standalone mode are no hosts: they must not be taken for any.
    ctx.domain_file.clear();
    EXPECT_EQ(ping_with_list("x:yy"), "x:yy 0");
}

TEST_F(registry, RandomListsAgainstASet) {
    std::mt19937 random(4);
    std::set<std::string> known;
    for (int i = 0; i < 20; ++i) {
        known.insert("k" + std::to_string(i));
        add("k" + std::to_string(i));
    }
    for (int round = 0; round < 2000; ++round) {
        std::string list, rest;
        int hits = 0;
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
        ASSERT_EQ(ping_with_list(list), rest + " " + std::to_string(hits)) << list;
    }
}

TEST(Namespaces, AreFoundAndRemovedByExactName) {
    agent_host* host = bare_host("id");  // in "a"
    qz_vector_pushback(host->namespaces, copy_text("a"));
    EXPECT_EQ(ns_exists(host->namespaces, "A"), 0);
    EXPECT_EQ(ns_remove(host->namespaces, "a"), 1);
    EXPECT_EQ(ns_exists(host->namespaces, "a"), 1) << "only the first one is removed";
    EXPECT_EQ(ns_exists(nullptr, "a") + ns_remove(nullptr, "a"), 0);
    free_agent_host(host);
}

std::string print(const agent_host* host, bool json, bool short_form, std::int64_t now,
                  bool* first) {
    const stream_ptr stream(new_qz_stream(0));
    print_domain_record(host, stream.get(), json, now, short_form, false, first);
    return {reinterpret_cast<const char*>(stream->data), stream->length};
}

TEST(Record, PrintedForms) {
    agent_host* host =
        make_host(copy_text("fe80::1"), copy_text("rev"), copy_text("id"), copy_text("Linux"),
                  copy_text("6.1"), copy_text("x86"), copy_text("a"));
    EXPECT_TRUE(join_namespace(host, "b"));
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
        make_host(copy_text("h"), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
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
    EXPECT_TRUE(contains(print(host, true, false, 1000, &first), "\"namespaces\": [],\n"));
    free_agent_host(host);
}

}  // namespace
