// The endpoints of the management domain over a whole engine: every refusal, membership per
// namespace, the lifetime of what registry and DR list share, collectors and their blacklists, and
// domain files that cannot be read or written.
#include "domain/domain_uris.h"

#include <sys/un.h>

#include "core/resolver.h"
#include "domain/domain.h"
#include "domain/registry.h"
#include "security/authz.h"
#include "tests/support/engine_fixture.h"

namespace {

// Over a socket pair every peer is this very host.
std::string local_peer_name() {
    char name[256] = {};
    (void)gethostname(name, sizeof name - 1);
    return name;
}

struct refusal {
    const char* method;
    const char* uri;
    const char* body;
    const char* status;
    const char* text;
};

class domain_server : public testing::Test {
  protected:
    domain_server() {
        engine.ctx->domain_file = path;
        init_domain_info(engine.ctx);
        add_namespace_to_map(engine.ctx, "one", engine.root.path().string());
        add_namespace_to_map(engine.ctx, "two", engine.root.path().string());
    }

    std::string post(const std::string& uri, const std::string& body) {
        return engine.exchange(make_request("POST", uri, body));
    }
    std::string get(const std::string& uri) { return engine.exchange(make_request("GET", uri)); }
    std::string list(const std::string& query = "", const std::string& prefix = "") {
        return body_of(get(prefix + "/agent/domain/enum" + query));
    }
    std::string file() { return read_whole_file(path); }
    void enrol(const std::string& id, const std::string& prefix = "") {
        EXPECT_EQ(status_line(post(prefix + "/agent/domain/register", "host=h&id=" + id)),
                  "HTTP/1.1 200 OK");
    }
    std::string leave(const std::string& id, const std::string& prefix = "") {
        return body_of(post(prefix + "/agent/domain/unregister", "id=" + id));
    }
    std::string report(const std::string& body) { return post("/agent/domain/report", body); }
    std::int64_t interval(const char* id) {
        const agent_host* host = find_host(engine.ctx, id);
        return host->next_due - host->last_ping;
    }
    void be_standalone() {
        EXPECT_EQ(body_of(post("/admin/dovmad/config", "mode=standalone")), "Success\n");
    }
    // Drops everything in memory and loads a file as after a restart.
    void reload(const std::string& domain_file) {
        be_standalone();
        EXPECT_EQ(body_of(post("/admin/dovmad/config", "mode=domain&domain_file=" + domain_file)),
                  "Success\n");
    }
    void expect_refused(const std::vector<refusal>& cases) {
        for (const refusal& each : cases) {
            EXPECT_EQ(engine.exchange(make_request(each.method, each.uri, each.body)),
                      std::string("HTTP/1.1 ") + each.status + " " + each.text +
                          "\r\nContent-Type: text/plain\r\n\r\n" + each.text)
                << each.method << " " << each.uri << " " << each.body;
        }
    }

    test_engine engine{true};
    const std::string path = engine.root.path() / "domain";
    const std::string rev = local_peer_name();
    const std::string empty_answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n";
};

class collector : public domain_server {
  protected:
    collector() {
        be_standalone();
        EXPECT_EQ(get("/admin/domain/add?domain=d&enable=1"), empty_answer);
    }
    std::string ping(const std::string& id) { return body_of(report("domain=d&id=" + id)); }
};

TEST_F(domain_server, Refusals) {
    constexpr const char* method = "Inappropriate method";
    constexpr const char* missing = "Error: Missing information";
    constexpr const char* no_id = "Error: Host Identifier not specified";
    expect_refused({
        {"GET", "/agent/domain/register?id=a&host=b", "", "400", method},
        {"POST", "/agent/domain/register?id=a&host=b", "", "400", missing},
        {"POST", "/agent/domain/register", "id=a", "400", missing},
        {"POST", "/agent/domain/register", "id=a&host=b%0Ax:y:z:o:1:x", "400", missing},
        {"POST", "/agent/domain/unregister", "host=a", "400", no_id},
        {"GET", "/agent/domain/report?id=a", "", "400", method},
        {"POST", "/agent/domain/report", "freq=3", "400", no_id},
        {"GET", "/admin/domain/host_rename", "", "400", method},
        {"POST", "/admin/domain/host_rename", "id=a", "400", "Invalid arguments"},
        {"POST", "/admin/domain/host_rename", "id=a&host=b%0A", "400", "Invalid arguments"},
        {"POST", "/admin/domain/host_rename", "id=a&host=b", "400", "Not found"},
        {"POST", "/admin/domain/dhc", "enable=1", "405", "Method not allowed"},
        {"GET", "/admin/domain/dhc", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/dhc?", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/add?domain=d", "", "403", "Domain add not allowed on DC"},
        {"GET", "/admin/domain/remove?domain=d", "", "403", "Domain remove not allowed on DC"},
        {"GET", "/admin/dovmad/config?mode=domain", "", "400", method},
        {"POST", "/admin/dovmad/config", "mode=domain", "400", "Already in domain mode"},
        {"POST", "/admin/dovmad/config", "mode=Standalone", "400", "Bad Params"},
    });
    const std::string unknown =
        "HTTP/1.1 404 Host not found\r\nContent-Type: text/plain\r\n\r\nHost not found\n";
    EXPECT_EQ(post("/agent/domain/unregister", "id=nobody"), unknown);
    EXPECT_EQ(report("id=nobody"), unknown);
    EXPECT_EQ(list("?scope=all"), "");
    EXPECT_FALSE(std::filesystem::exists(path)) << "nothing was changed";
}

TEST_F(collector, Refusals) {
    expect_refused({
        {"POST", "/agent/domain/register", "id=a&host=b", "404", "Not Found"},
        {"POST", "/agent/domain/unregister", "id=a", "404", "Not Found"},
        {"POST", "/admin/domain/host_rename", "id=a&host=b", "404", "Not Found"},
        {"GET", "/admin/domain/dhc?freq=1", "", "403", "DHC enable/disable allowed only on CMS"},
        {"POST", "/admin/domain/add?domain=x", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/add?enable=1", "", "400", "Bad Request."},
        {"GET", "/admin/domain/remove?name=d", "", "400", "Bad Request."},
        {"GET", "/agent/domain/enum", "", "400", "Bad Request"},
        {"POST", "/agent/domain/enum", "domain=d", "400", "Bad Request"},
        {"POST", "/agent/domain/report", "domain=x&id=a", "400", "Bad Request"},
        {"POST", "/agent/domain/report", "domain=d&id=a%0Ab", "400", "Bad Request"},
        {"POST", "/admin/dovmad/config", "mode=standalone", "400", "Already in standalone mode"},
        {"POST", "/admin/dovmad/config", "mode=domain", "400", "Bad Params: domain_file"},
    });
    EXPECT_EQ(list("?domain=d"), "") << "the domain is still served";
}

TEST_F(domain_server, RegisterAnswersWhatItReceivedAndStoresWhatTheFileCanHold) {
    EXPECT_EQ(post("/agent/domain/register",
                   "id=id1&host=fe80::1&osname=a%3A+b&osrelease=6.1%22&cputype=x86+64"),
              "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n"
              "\"output\" : {\n\"Status\" : \"Success\",\n\"Hostname\" : \"fe80::1\",\n"
              "\"id\" : \"id1\",\n\"Remote_Hostname\" : \"" +
                  rev +
                  "\",\n\"OsName\" : \"a: b\",\n"
                  "\"OsRelease\" : \"6.1\"\",\n\"CpuType\" : \"x86 64\"\n}\n");
    const std::string line = "[fe80::1]:" + rev + ":id1:a_ b:6.1_:x86_64:";
    EXPECT_EQ(file(), line + "plx\n");
    enrol("id1", "/two");  // again: only its namespaces can grow
    enrol("id1", "/two");
    EXPECT_EQ(file(), line + "plx\n" + line + "two\n");
}

TEST_F(domain_server, TextIsUtf8) {
    for (const std::string_view text : {"%ff", "%c3", "%ed%a0%80", "%22", "%5c", "%01", "%7f"}) {
        const std::string bad(text);
        for (const std::string& body : {"id=" + bad + "&host=h", "id=i&host=" + bad}) {
            EXPECT_EQ(body_of(post("/agent/domain/register", body)), "Error: Missing information");
        }
    }
    for (const char* body : {"id=a:b&host=h", "id=i&host=[::1]", "id=i&host=h]", "id=&host=h"}) {
        EXPECT_EQ(body_of(post("/agent/domain/register", body)), "Error: Missing information");
    }
    // An id of more than 39 characters can't be named again.
    enrol(std::string(40, 'i'));
    enrol(std::string(39, 'i'));
    EXPECT_EQ(leave(std::string(40, 'i')), "Success\n") << "cut, it is the other one";
    EXPECT_EQ(leave(std::string(40, 'i')), "Host not found\n");
    registry_remove_host(engine.ctx, std::string(40, 'i').c_str());
    // A value that is too long is not cut inside a character.
    const std::string id(62, 'i');
    const std::string os(30, 'o');
    EXPECT_EQ(status_line(post("/agent/domain/register",
                               "host=%c3%a9&id=" + id + "%c3%a9&osname=" + os +
                                   "%e2%82%ac&osrelease=a%ffb%e2%82&cputype=%c3%a9%3a")),
              "HTTP/1.1 200 OK");
    EXPECT_EQ(file(), "\xc3\xa9:" + rev + ":" + id + ":" + os + ":a_b__:\xc3\xa9_:plx\n");
    EXPECT_EQ(body_of(report("id=" + id + "%c3%a9")), "Success\n");
    EXPECT_EQ(body_of(post("/admin/domain/host_rename", "id=x&host=%ff")), "Invalid arguments");
    // What stands in a file that somebody else wrote is shown as JSON that everybody can read.
    reload(engine.root.write("foreign", "a\"\\\x01:\xff:id1:o:1:x:p\"\r\n"));
    EXPECT_TRUE(contains(list("?format=json&scope=all"),
                         "\"hostname\":\"a\\\"\\\\\\u0001\",\n   \"revhostname\":\"\\ufffd\",\n"
                         "   \"hostid\":\"id1\",\n   \"namespaces\": [\"p\\\"\\u000d\"],"));
}

// What comes from elsewhere than the form can break the file as well.
TEST_F(domain_server, NoNameBreaksALine) {
    EXPECT_FALSE(is_storable_namespace("a\nb"));
    const std::string form = "id=i&host=h";
    set_resolver_backend({.addresses = [](const std::string&) { return name_answer(); },
                          .name =
                              [](const host_address&) {
                                  name_answer answer;
                                  answer.name = "a:b\nc\xff";
                                  return answer;
                              },
                          .name_servers = [] { return 1; }});
    loopback_listener listener;
    const unique_fd client = listener.client();
    shttpd_add_socket(engine.ctx, accept(listener.fd.get(), nullptr, nullptr), false, true);
    EXPECT_EQ(status_line(engine.exchange_on(
                  client, make_request("POST", "/agent/domain/register", form), 1'000'000)),
              "HTTP/1.1 200 OK");
    EXPECT_EQ(file(), "h:a_b_c_:i:unknown:unknown:unknown:plx\n");
    resolver_fini();
}

TEST_F(domain_server, RenameTakesTheReverseNameOfTheCaller) {
    reload(engine.root.write("old", "h:rev:id1:os:1:x:plx\nh:rev:id1:os:1:x:two\n"));
    EXPECT_EQ(body_of(post("/admin/domain/host_rename", "id=id1&host=::2")), "Success\n");
    EXPECT_EQ(read_whole_file(engine.root.path() / "old"),
              "[::2]:" + rev + ":id1:os:1:x:plx\n[::2]:" + rev + ":id1:os:1:x:two\n");
}

TEST_F(domain_server, JsonFormsOfAnEnumeration) {
    EXPECT_EQ(list("?format=json"), "[\n\n]");
    enrol("id1");
    enrol("id2");
    EXPECT_TRUE(contains(list("?format=json"), "\"status\":\"DN\"\n},\n{\n   \"hostname\""));
    EXPECT_EQ(list("?format=JSON").find("h," + rev + ",id1,"), 0U);
    EXPECT_EQ(list("?scope=ALL", "/one"), "");
    EXPECT_EQ(body_of(post("/agent/domain/enum", "format=json")).find("h," + rev + ",id1,"), 0U)
        << "only a GET has variables";
    EXPECT_EQ(list("?dronly=1&format=json"), "[\n\n]");
}

TEST_F(domain_server, LongAnswersArriveWholeThroughASmallBuffer) {
    std::string text, expected,
        unknown = "x";  // of ids that make the reply longer than the request
    for (int i = 1000; i < 2000; ++i) {
        const std::string id = "id" + std::to_string(i);
        text += "h:r:" + id + ":os:1:x:plx\n";
        expected += "h,r," + id + ",os,1,x,0 seconds,0 seconds,DN\n";
        unknown += i < 1165 ? ":" + id.substr(1) : "";
    }
    reload(engine.root.write("many", text));
    (void)get("/admin/domain/dhc?enable=1&max_report_per_dhc=1000");
    EXPECT_EQ(leave("id1000"), "Success\n");
    engine.ctx->io_buf_size = 1024;
    EXPECT_EQ(body_of(report("id=id1001&dhc=1&list=" + unknown)), "Success\n" + unknown + "\n");
    reload(engine.root.path() / "many");
    EXPECT_EQ(list(), expected.substr(expected.find('\n') + 1));
    // Somebody who is still reading shares the listing with nobody who would get another one.
    const unique_fd reader = engine.connect();
    const int small = 4096;
    const int channel = engine.ctx->connections.first()->remote.channel.fd;
    ASSERT_EQ(setsockopt(channel, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    engine.say(reader, make_request("GET", "/agent/domain/enum"));
    engine.poll();
    for (const char* id : {"new1", "new2", "new3"}) {
        enrol(id);
        EXPECT_TRUE(contains(list(), id));
        (void)report(std::string("id=") + id);
        EXPECT_TRUE(contains(list(), "360 seconds,UP\n"));
    }
    // The longest values of a registration fit as they are.
    std::string form = "host=" + std::string(299, 'h');
    for (const char* name : {"id", "osname", "osrelease", "cputype"}) {
        form += std::string("&") + name + "=" + std::string(99, *name);
    }
    const std::string reply = post("/agent/domain/register", form);
    EXPECT_TRUE(contains(reply, "\"Hostname\" : \"" + std::string(255, 'h') + "\""));
    EXPECT_TRUE(contains(reply, "\"CpuType\" : \"" + std::string(15, 'c') + "\"\n}\n"));
}

TEST_F(domain_server, ReportsAndTheDrList) {
    for (const char* id : {"id1", "id2", "id3"}) {
        enrol(id);
    }
    EXPECT_EQ(body_of(report("id=id1&freq=60")), "Success\n");
    EXPECT_EQ(list("?dronly=1"), "") << "the DR list is kept only while DHC is enabled";
    EXPECT_EQ(status_line(report("id=id1&dhc=1&list=id2")), "HTTP/1.1 403 DHC not enabled");

    (void)get("/admin/domain/dhc?enable=1&max_report_per_dhc=3&max_report_per_dc=2");
    EXPECT_EQ(body_of(report("id=id1&dhc=1&list=id2:nope:id3")), "Success\nnope\n");
    EXPECT_EQ(interval("id3"), 330) << "the server's frequency and a tenth of it";
    EXPECT_EQ(body_of(report("id=id1&freq=99999999")), "Success\n");
    EXPECT_EQ(interval("id1"), 604860) << "a week and the fudge";
    (void)list("?dronly=1");
    EXPECT_EQ(list("?dronly=1"), "") << "a collector is no direct reporter";
    EXPECT_EQ(status_line(report("id=id1&dhc=1&list=id1:id2:id3:a")),
              "HTTP/1.1 403 Too many reports");
    EXPECT_EQ(body_of(report("id=id1&dhc=1&list=::id1::id2:::id3:")), "Success\n");
    for (const char* id : {"id2", "id3", "id1", "id2"}) {
        EXPECT_EQ(body_of(report(std::string("id=") + id)), "Success\n");
    }
    EXPECT_EQ(list("?dronly=1"), "id2\nid3\n") << "the list holds two";
    EXPECT_EQ(list("?dronly=1"), "");
}

TEST_F(domain_server, TheDrListNeverOutlivesItsHosts) {
    enrol("id2");
    enrol("id3");
    (void)get("/admin/domain/dhc?enable=1");
    (void)report("id=id2");
    (void)report("id=id3");
    EXPECT_EQ(leave("id2"), "Success\n");
    EXPECT_EQ(body_of(post("/admin/domain/host_rename", "id=id3&host=new")), "Success\n");
    EXPECT_EQ(list("?dronly=1&format=json"), "[\n{\n\"hostid\":\"id3\"}\n]");
    (void)report("id=id3");
    reload(path);
    EXPECT_EQ(list("?dronly=1"), "") << "a mode switch drops the list";
    EXPECT_EQ(status_line(report("id=id3&dhc=1")), "HTTP/1.1 403 DHC not enabled");
}

TEST_F(domain_server, DhcSettings) {
    const domain_config& config = *domain_mode_config();
    using words = std::vector<std::uint32_t>;
    const std::vector<std::pair<std::string, words>> cases = {
        {"freq=600&fudge=30", {0, 600, 30}},
        {"enable=1&freq=&fudge=-5", {1, 600, 30}},
        {"enable=yes&freq=12x&fudge=2147483648", {0, 12, 30}},
        {"freq=2147483647&fudge=99999999999999999999999", {0, 2147483647, 30}},
    };
    for (const auto& [query, expected] : cases) {
        EXPECT_EQ(get("/admin/domain/dhc?" + query), empty_answer);
        EXPECT_EQ((words{config.dhc_enabled, config.ping_frequency, config.fudge}), expected)
            << query;
    }
    // A body hides the query, and what stands behind the body is no part of it.
    (void)engine.exchange(make_request("GET", "/admin/domain/dhc?freq=7", "fudge=8") + "99");
    EXPECT_EQ((words{config.ping_frequency, config.fudge}), (words{2147483647, 8}));
}

TEST_F(collector, LimitsAndSwitches) {
    (void)get("/admin/domain/add?domain=d&max_report_per_dhc=2");
    EXPECT_EQ(ping("a"), "Success\n");
    EXPECT_EQ(ping("b"), "Success\n");
    EXPECT_EQ(ping("c"), "Too many reports");
    EXPECT_EQ(ping("a"), "Success\n") << "a known host is no new one";
    EXPECT_EQ(body_of(report("domain=d&id=x&dhc=1&list=a:b:c")), "Too many reports");
    (void)get("/admin/domain/add?domain=d&enable=0");
    EXPECT_EQ(ping("a"), "DHC not enabled");
    EXPECT_EQ(list("?domain=d"), "a\nb\n") << "updating a domain keeps its hosts";
    EXPECT_EQ(get("/admin/domain/remove?domain=unknown"), empty_answer);
    EXPECT_EQ(get("/admin/domain/remove?domain=d"), empty_answer);
    EXPECT_EQ(list("?domain=d"), "Bad Request");
}

TEST_F(collector, ABlacklistLastsForItsCycles) {
    (void)get("/admin/domain/add?domain=d&blacklist=a:b:");  // two cycles by default
    EXPECT_EQ(list("?domain=d"), "");
    (void)get("/admin/domain/add?domain=d&blacklist=a:");  // known already: no new life
    EXPECT_EQ(list("?domain=d"), "");
    EXPECT_EQ(ping("a"), "Host blacklisted");
    EXPECT_EQ(list("?domain=d"), "");
    EXPECT_EQ(ping("a"), "Success\n");
    // The counter stays up, so what a report adds later goes with the next enumeration,
    EXPECT_EQ(ping("b"), "Success\n");
    const std::string long_id(64, 'l');  // could not be looked up
    const std::string log = engine.root.path() / "error.log";
    engine.ctx->error_log = std::fopen(log.c_str(), "ae");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(body_of(report("domain=d&id=x&dhc=1&list=a:a:c:" + long_id)), "Success\n");
    }
    EXPECT_EQ(count_of(read_whole_file(log), "somebody blacklisted 2 hosts of domain d"), 1U);
    EXPECT_EQ(count_of(read_whole_file(log), "\n"), 1U) << "the second one knew them all";
    EXPECT_EQ(qz_set_exists(find_domain(engine.ctx, "d")->blacklist, long_id.c_str()), 0);
    EXPECT_EQ(ping("a"), "Host blacklisted");
    EXPECT_EQ(list("?domain=d"), "b\n") << "what is blacklisted is no longer collected, nor is x";
    EXPECT_EQ(ping("a"), "Success\n");
    // until an administrator's new id starts it again.
    (void)get("/admin/domain/add?domain=d&blacklist=n:");
    EXPECT_EQ(list("?domain=d"), "a\n");
    EXPECT_EQ(list("?domain=d"), "");
    EXPECT_EQ(ping("n"), "Host blacklisted");
}

TEST_F(collector, TheLastBlacklistedIdTakesTheNextCharacter) {
    const auto blacklisted = [&](const std::string& query) {
        (void)get("/admin/domain/remove?domain=d");
        (void)get("/admin/domain/add?" + query);
        std::string ids;
        const auto append = [](void* id, void* text) {
            static_cast<std::string*>(text)->append(static_cast<const char*>(id)).append(" ");
            return 0;
        };
        qz_set_foreach(find_domain(engine.ctx, "d")->blacklist, append, &ids);
        return ids;
    };
    EXPECT_EQ(blacklisted("domain=d&blacklist=a:b"), "a b ");
    EXPECT_EQ(blacklisted("blacklist=a:b&domain=d"), "a b& ");
    EXPECT_EQ(blacklisted("blacklist=a:b:&domain=d"), "a b ");
    EXPECT_EQ(blacklisted("blacklist=::a::&domain=d"), "a ");
    EXPECT_EQ(blacklisted("blacklist=&domain=d"), "");
}

TEST_F(domain_server, AClientThatLeavesChangesNothing) {
    enrol("id1");
    (void)get("/admin/domain/dhc?enable=1");
    (void)report("id=id1");
    // Half of a registration, and then the client is gone.
    unique_fd client = engine.connect();
    (void)engine.exchange_on(client,
                             "POST /agent/domain/register HTTP/1.1\r\nContent-Length: 50\r\n\r\n"
                             "host=h&id=half");
    // A switch during the upload decides about the request, even when the rest then arrives.
    unique_fd late = engine.connect();
    (void)engine.exchange_on(late,
                             "POST /agent/domain/register HTTP/1.1\r\nContent-Length: 14\r\n\r\n"
                             "host=h&");
    client.reset();
    engine.poll(5);
    EXPECT_EQ(find_host(engine.ctx, "half"), nullptr);
    EXPECT_EQ(list("?dronly=1"), "id1\n");
    be_standalone();
    EXPECT_EQ(status_line(engine.exchange_on(late, "id=late")), "HTTP/1.1 404 Not Found");
}

TEST_F(domain_server, ASwitchFollowsThePendingWriteWhoseReplyStillComes) {
    const unique_fd agent = engine.connect();
    const unique_fd admin = engine.connect();
    engine.say(agent, make_request("POST", "/agent/domain/register", "id=a&host=h"));
    engine.say(admin, make_request("POST", "/admin/dovmad/config", "mode=standalone"));
    engine.poll();  // both in one pass
    EXPECT_FALSE(in_domain_mode(engine.ctx));
    EXPECT_EQ(body_of(engine.exchange_on(admin, "")), "Success\n");
    EXPECT_EQ(status_line(engine.exchange_on(agent, "")), "HTTP/1.1 200 OK");
    EXPECT_EQ(count_of(file(), ":a:unknown:"), 1U);
    // Two that lead back at once: the second is judged when the first is over.
    const std::string back =
        make_request("POST", "/admin/dovmad/config", "mode=domain&domain_file=" + path);
    const unique_fd one = engine.connect();
    const unique_fd two = engine.connect();
    engine.say(one, back);
    engine.say(two, back);
    EXPECT_EQ(body_of(engine.exchange_on(two, "")), "Already in domain mode");
    EXPECT_EQ(body_of(engine.exchange_on(one, "")), "Success\n");
    EXPECT_NE(find_host(engine.ctx, "a"), nullptr);
}

TEST_F(domain_server, WhatWasNotReadIsNotRewritten) {
    // A folder and a pipe stand for every file that exists and cannot be read, by whomever.
    std::filesystem::create_directory(engine.root.path() / "folder");
    ASSERT_EQ(mkfifo((engine.root.path() / "pipe").c_str(), 0600), 0);
    const unique_fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = ""};
    (void)(engine.root.path() / "socket").string().copy(address.sun_path, 100);
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    for (const char* name : {"folder", "pipe", "socket"}) {
        const std::string log = stderr_of([&] {
            reload(engine.root.path() / name);  // must not wait for a writer
            enrol("id1");
            enrol("id2");
        });
        EXPECT_EQ(count_of(log, "cannot be read: not a regular file\n"), 1U) << log;
        EXPECT_EQ(count_of(log, "is not written"), 1U) << name;
        EXPECT_EQ(count_of(list(), "\n"), 2U) << "the registry goes on in memory";
        EXPECT_FALSE(std::filesystem::is_regular_file(engine.root.path() / name));
    }
    // So does a file that is none of ours.
    const std::string hosts = "127.0.0.1 localhost\n::1 ip6-localhost\n";
    reload(engine.root.write("hosts", hosts));
    enrol("id1");
    EXPECT_EQ(read_whole_file(engine.root.path() / "hosts"), hosts);
    reload(path);
    enrol("id1");
    EXPECT_EQ(count_of(file(), "\n"), 1U) << "a good load ends it";
}

TEST_F(domain_server, WhatSomebodyWroteIsToldAndSaved) {
    const std::string bad = "b.example:r:idb:Linux::x86:plx\n";
    const std::filesystem::path mine = engine.root.write(
        "mine", "# ours\n\na:r:ida:o:1:x:plx\n" + bad + "c:r:idc:o:1:x:plx\r\nno host\n");
    const std::string log = stderr_of([&] { reload(mine); });
    EXPECT_TRUE(contains(log, "mine, lines 4 and 6: no host, skipped\n"));
    EXPECT_TRUE(contains(log, "mine, line 5: the carriage return"));
    EXPECT_FALSE(std::filesystem::exists(mine.string() + ".bak")) << "nothing is lost yet";
    enrol("idd");
    enrol("ide");
    EXPECT_EQ(read_whole_file(mine.string() + ".bak"), bad + "no host\n");
    EXPECT_EQ(count_of(read_whole_file(mine), "\n"), 4U);
    // An edit while the daemon runs.
    const std::string edit = "z.example:r:idz:o:1:x:plx\n";
    (void)engine.root.write("mine", "# new\n" + edit + read_whole_file(mine));
    EXPECT_TRUE(contains(stderr_of([&] { enrol("idf"); }), "was edited meanwhile: 1 lines"));
    EXPECT_EQ(read_whole_file(mine.string() + ".bak"), bad + "no host\n" + edit);
    EXPECT_EQ(count_of(read_whole_file(mine), "\n"), 5U);
    // Comments alone are an empty domain.
    reload(engine.root.write("comments", "# one\n\n"));
    enrol("ida");
    EXPECT_EQ(count_of(read_whole_file(engine.root.path() / "comments"), "\n"), 1U);
    EXPECT_FALSE(std::filesystem::exists(engine.root.path() / "comments.bak"));
}

TEST_F(domain_server, AFailedWriteIsToldOnceAndMadeUpFor) {
    testing::internal::CaptureStderr();
    reload(engine.root.path().string() + "/later%0A/domain");
    enrol("id1");
    enrol("id2");
    std::filesystem::create_directory(engine.root.path() / "later\n");
    enrol("id3");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(count_of(read_whole_file(engine.root.path() / "later\n/domain"), "\n"), 3U);
    EXPECT_EQ(count_of(log, "is not written"), 1U) << log;
    EXPECT_EQ(count_of(log, "later?/domain is written again\n"), 1U) << "no line of the caller's";
    // One that fails when the daemon has left the file is told, too.
    std::filesystem::remove_all(engine.root.path() / "later\n");
    testing::internal::CaptureStderr();
    const unique_fd agent = engine.connect();
    engine.say(agent, make_request("POST", "/agent/domain/register", "id=last&host=h"));
    be_standalone();
    EXPECT_EQ(status_line(engine.exchange_on(agent, "")), "HTTP/1.1 200 OK");
    EXPECT_EQ(count_of(testing::internal::GetCapturedStderr(), "later?/domain is not written"), 1U);
}

}  // namespace
