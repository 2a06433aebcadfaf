// The endpoints of the management domain over a whole engine: every refusal, membership per
// namespace, the lifetime of what registry and DR list share, collectors and their blacklists.
#include "domain/domain_uris.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "domain/domain.h"
#include "domain/registry.h"
#include "security/authz.h"
#include "tests/domain/local_peer.h"
#include "tests/support/engine_fixture.h"

namespace {

std::string status_line(const std::string& reply) {
    return reply.substr(0, reply.find("\r\n"));
}

class domain_server : public testing::Test {
  protected:
    domain_server() {
        engine.ctx->domain_file = engine.root.path() / "domain";
        init_domain_info(engine.ctx);
        add_namespace_to_map(engine.ctx, "one", engine.root.path().string());
        add_namespace_to_map(engine.ctx, "two", engine.root.path().string());
    }

    std::string post(const std::string& uri, const std::string& body) {
        return engine.exchange(make_request("POST", uri, body));
    }
    std::string get(const std::string& uri) { return engine.exchange(make_request("GET", uri)); }
    std::string list(const std::string& query = "") {
        return body_of(get("/agent/domain/enum" + query));
    }
    std::string file() { return read_whole_file(engine.root.path() / "domain"); }
    void enrol(const std::string& id, const std::string& prefix = "") {
        EXPECT_EQ(status_line(post(prefix + "/agent/domain/register", "host=h&id=" + id)),
                  "HTTP/1.1 200 OK");
    }
    std::string report(const std::string& body) { return post("/agent/domain/report", body); }

    test_engine engine{true};
    const std::string rev = local_peer_name();
};

class collector : public domain_server {
  protected:
    collector() {
        EXPECT_EQ(body_of(post("/admin/dovmad/config", "mode=standalone")), "Success\n");
        EXPECT_EQ(get("/admin/domain/add?domain=d&enable=1"), empty_answer);
    }
    const std::string empty_answer = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n";
    std::string ping(const std::string& id) { return body_of(report("domain=d&id=" + id)); }
};

int append_id(void* id, void* text) {
    static_cast<std::string*>(text)->append(static_cast<const char*>(id)).append(" ");
    return 0;
}

struct refusal {
    const char* method;
    const char* uri;
    const char* body;
    const char* status;
    const char* text;
};

std::string expected_reply(const refusal& each) {
    return std::string("HTTP/1.1 ") + each.status + " " + each.text +
           "\r\nContent-Type: text/plain\r\n\r\n" + each.text;
}

TEST_F(domain_server, Refusals) {
    constexpr const char* method = "Inappropriate method";
    constexpr const char* missing = "Error: Missing information";
    constexpr const char* no_id = "Error: Host Identifier not specified";
    const std::vector<refusal> cases = {
        {"GET", "/agent/domain/register?id=a&host=b", "", "400", method},
        {"PUT", "/agent/domain/register", "id=a&host=b", "400", method},
        {"POST", "/agent/domain/register?id=a&host=b", "", "400", missing},
        {"POST", "/agent/domain/register", "id=a", "400", missing},
        {"POST", "/agent/domain/register", "id=&host=b", "400", missing},
        {"POST", "/agent/domain/register", "id=a%0Ab&host=b", "400", missing},
        {"POST", "/agent/domain/register", "id=a%3Ab&host=b", "400", missing},
        {"POST", "/agent/domain/register", "id=a%22&host=b", "400", missing},
        {"POST", "/agent/domain/register", "id=a&host=b%0Ax:y:z:o:1:x", "400", missing},
        {"POST", "/agent/domain/register", "id=a&host=b%5C", "400", missing},
        {"POST", "/agent/domain/register", "id=a&host=b%7F", "400", missing},
        {"POST", "/agent/domain/register", "id=a&host=[::1]", "400", missing},
        {"GET", "/agent/domain/unregister", "", "400", method},
        {"POST", "/agent/domain/unregister", "host=a", "400", no_id},
        {"GET", "/agent/domain/report?id=a", "", "400", method},
        {"POST", "/agent/domain/report", "freq=3", "400", no_id},
        {"GET", "/admin/domain/host_rename", "", "400", method},
        {"POST", "/admin/domain/host_rename", "id=a", "400", "Invalid arguments"},
        {"POST", "/admin/domain/host_rename", "id=a&host=", "400", "Invalid arguments"},
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
    };
    for (const refusal& each : cases) {
        EXPECT_EQ(engine.exchange(make_request(each.method, each.uri, each.body)),
                  expected_reply(each))
            << each.method << " " << each.uri << " " << each.body;
    }
    const std::string unknown =
        "HTTP/1.1 404 Host not found\r\nContent-Type: text/plain\r\n\r\nHost not found\n";
    EXPECT_EQ(post("/agent/domain/unregister", "id=nobody"), unknown);
    EXPECT_EQ(report("id=nobody"), unknown);
    EXPECT_EQ(list("?scope=all"), "");
    EXPECT_FALSE(std::filesystem::exists(engine.root.path() / "domain")) << "nothing was changed";
}

TEST_F(collector, Refusals) {
    const std::vector<refusal> cases = {
        {"POST", "/agent/domain/register", "id=a&host=b", "404", "Not Found"},
        {"GET", "/agent/domain/register", "", "404", "Not Found"},
        {"POST", "/agent/domain/unregister", "id=a", "404", "Not Found"},
        {"POST", "/admin/domain/host_rename", "id=a&host=b", "404", "Not Found"},
        {"GET", "/admin/domain/dhc?freq=1", "", "403", "DHC enable/disable allowed only on CMS"},
        {"POST", "/admin/domain/add?domain=x", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/add", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/add?enable=1", "", "400", "Bad Request."},
        {"GET", "/admin/domain/add?domain=", "", "400", "Bad Request."},
        {"HEAD", "/admin/domain/remove?domain=d", "", "405", "Method not allowed"},
        {"GET", "/admin/domain/remove?name=d", "", "400", "Bad Request."},
        {"GET", "/agent/domain/enum", "", "400", "Bad Request"},
        {"GET", "/agent/domain/enum?domain=x", "", "400", "Bad Request"},
        {"POST", "/agent/domain/enum", "domain=d", "400", "Bad Request"},
        {"POST", "/agent/domain/report", "domain=x&id=a", "400", "Bad Request"},
        {"POST", "/agent/domain/report", "id=a", "400", "Bad Request"},
        {"POST", "/agent/domain/report", "domain=d&id=a%0Ab", "400", "Bad Request"},
        {"POST", "/admin/dovmad/config", "mode=standalone", "400", "Already in standalone mode"},
        {"POST", "/admin/dovmad/config", "mode=domain", "400", "Bad Params: domain_file"},
        {"POST", "/admin/dovmad/config", "mode=", "400", "Bad Params"},
    };
    for (const refusal& each : cases) {
        EXPECT_EQ(engine.exchange(make_request(each.method, each.uri, each.body)),
                  expected_reply(each))
            << each.method << " " << each.uri << " " << each.body;
    }
    EXPECT_EQ(list("?domain=d"), "") << "the domain is still served";
}

TEST_F(domain_server, RegisterAnswersWhatItReceivedAndStoresWhatTheFileCanHold) {
    EXPECT_EQ(post("/agent/domain/register",
                   "id=id1&host=fe80::1&osname=a%3Ab&osrelease=6.1%22&cputype=x86+64"),
              "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n\r\n"
              "\"output\" : {\n\"Status\" : \"Success\",\n\"Hostname\" : \"fe80::1\",\n"
              "\"id\" : \"id1\",\n\"Remote_Hostname\" : \"" +
                  rev +
                  "\",\n\"OsName\" : \"a:b\",\n"
                  "\"OsRelease\" : \"6.1\"\",\n\"CpuType\" : \"x86 64\"\n}\n");
    EXPECT_EQ(file(), "[fe80::1]:" + rev + ":id1:a_b:6.1_:x86_64:plx\n");
    enrol("id1");  // again: only its namespaces can grow
    EXPECT_EQ(file(), "[fe80::1]:" + rev + ":id1:a_b:6.1_:x86_64:plx\n");
}

TEST_F(domain_server, MembershipIsPerNamespace) {
    enrol("id1", "/one");
    enrol("id1", "/two");
    enrol("id2", "/two");
    const std::string line = ",unknown,unknown,unknown,0 seconds,0 seconds,DN\n";
    const auto file_line = [&](const char* id, const char* name) {
        return "h:" + rev + ":" + id + ":unknown:unknown:unknown:" + name + "\n";
    };
    EXPECT_EQ(file(), file_line("id1", "one") + file_line("id1", "two") + file_line("id2", "two"));
    EXPECT_EQ(body_of(get("/one/agent/domain/enum")), "h," + rev + ",id1" + line);
    EXPECT_EQ(body_of(get("/two/agent/domain/enum")),
              "h," + rev + ",id1" + line + "h," + rev + ",id2" + line);
    EXPECT_EQ(list(), "") << "nobody is in the default namespace";
    EXPECT_EQ(list("?scope=all"), "h," + rev + ",id1" + line + "h," + rev + ",id2" + line);
    EXPECT_EQ(list("?scope=ALL"), "");
    EXPECT_EQ(body_of(post("/agent/domain/unregister", "id=id1")), "Success\n");
    EXPECT_EQ(body_of(post("/one/agent/domain/unregister", "id=id1")), "Success\n");
    EXPECT_EQ(body_of(get("/one/agent/domain/enum")), "");
    EXPECT_EQ(body_of(post("/two/agent/domain/unregister", "id=id1")), "Success\n");
    EXPECT_EQ(file(), file_line("id2", "two"));
}

TEST_F(domain_server, TheFileIsTheRegistryAfterARestart) {
    enrol("id1", "/one");
    enrol("id2", "/two");
    const std::string before = list("?scope=all&format=json");
    const std::string path = engine.root.path() / "domain";
    EXPECT_EQ(body_of(post("/admin/dovmad/config", "mode=standalone")), "Success\n");
    EXPECT_EQ(body_of(post("/admin/dovmad/config", "mode=domain&domain_file=" + path)),
              "Success\n");
    EXPECT_EQ(list("?scope=all&format=json"), before);
}

TEST_F(domain_server, RenameTakesTheReverseNameOfTheCaller) {
    const std::string path =
        engine.root.write("old", "h:rev:id1:os:1:x:plx\nh:rev:id1:os:1:x:two\n");
    (void)post("/admin/dovmad/config", "mode=standalone");
    (void)post("/admin/dovmad/config", "mode=domain&domain_file=" + path);
    EXPECT_EQ(body_of(post("/admin/domain/host_rename", "id=id1&host=::2")), "Success\n");
    EXPECT_EQ(read_whole_file(path),
              "[::2]:" + rev + ":id1:os:1:x:plx\n[::2]:" + rev + ":id1:os:1:x:two\n");
}

TEST_F(domain_server, JsonFormsOfAnEnumeration) {
    EXPECT_EQ(list("?format=json"), "[\n\n]");
    enrol("id1");
    enrol("id2");
    const std::string json = list("?format=json");
    EXPECT_EQ(json.find("[\n{\n   \"hostname\":\"h\""), 0U);
    EXPECT_NE(json.find("\"status\":\"DN\"\n},\n{\n   \"hostname\""), std::string::npos);
    EXPECT_EQ(json.substr(json.size() - 3), "}\n]");
    EXPECT_EQ(list("?format=JSON").find("h," + rev + ",id1,"), 0U);
    EXPECT_EQ(body_of(post("/agent/domain/enum", "format=json")).find("h," + rev + ",id1,"), 0U)
        << "only a GET has variables";
    EXPECT_EQ(list("?dronly=1&format=json"), "[\n\n]");
}

TEST_F(domain_server, LongAnswersArriveWholeThroughASmallBuffer) {
    std::string text;
    std::string expected;
    for (int i = 1000; i < 2000; ++i) {
        const std::string id = "id" + std::to_string(i);
        text += "h:r:" + id + ":os:1:x:plx\n";
        expected += "h,r," + id + ",os,1,x,0 seconds,0 seconds,DN\n";
    }
    const std::string path = engine.root.write("many", text);
    (void)post("/admin/dovmad/config", "mode=standalone");
    (void)post("/admin/dovmad/config", "mode=domain&domain_file=" + path);
    engine.ctx->io_buf_size = 1024;
    EXPECT_EQ(list(), expected);
    const std::string name(250, 'n');
    const std::string reply = post("/agent/domain/register", "id=x&host=" + name);
    EXPECT_NE(reply.find("\"Hostname\" : \"" + name), std::string::npos);
    EXPECT_EQ(reply.substr(reply.size() - 3), "\n}\n");
}

TEST_F(domain_server, ReportsAndTheDrList) {
    for (const char* id : {"id1", "id2", "id3"}) {
        enrol(id);
    }
    EXPECT_EQ(body_of(report("id=id1&freq=60")), "Success\n");
    EXPECT_NE(list().find("id1,unknown,unknown,unknown,"), std::string::npos);
    EXPECT_NE(list().find(" seconds,UP\n"), std::string::npos);
    EXPECT_EQ(list("?dronly=1"), "") << "the DR list is kept only while DHC is enabled";
    EXPECT_EQ(status_line(report("id=id1&dhc=1&list=id2")), "HTTP/1.1 403 DHC not enabled");

    (void)get("/admin/domain/dhc?enable=1&max_report_per_dhc=3&max_report_per_dc=2");
    EXPECT_EQ(body_of(report("id=id1&dhc=1&list=id2:nope:id3")), "Success\nnope\n");
    EXPECT_NE(find_host(engine.ctx, "id3")->last_ping, 0);
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
    EXPECT_EQ(body_of(post("/agent/domain/unregister", "id=id2")), "Success\n");
    EXPECT_EQ(body_of(post("/admin/domain/host_rename", "id=id3&host=new")), "Success\n");
    EXPECT_EQ(list("?dronly=1&format=json"), "[\n{\n\"hostid\":\"id3\"}\n]");
    (void)report("id=id3");
    const std::string path = engine.root.path() / "domain";
    (void)post("/admin/dovmad/config", "mode=standalone");
    (void)post("/admin/dovmad/config", "mode=domain&domain_file=" + path);
    EXPECT_EQ(list("?dronly=1"), "") << "a mode switch drops the list";
    EXPECT_EQ(status_line(report("id=id3&dhc=1")), "HTTP/1.1 403 DHC not enabled");
}

TEST_F(domain_server, DhcSettings) {
    EXPECT_EQ(get("/admin/domain/dhc?freq=600&fudge=30"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n");
    const domain_config& config = *domain_mode_config();
    EXPECT_EQ(config.ping_frequency, 600U);
    EXPECT_EQ(config.fudge, 30U);
    EXPECT_EQ(config.dhc_enabled, 0U);
    (void)get("/admin/domain/dhc?enable=1&freq=&fudge=-5&max_cycles_per_blist=4");
    EXPECT_EQ(config.dhc_enabled, 1U);
    EXPECT_EQ(config.ping_frequency, 600U);
    EXPECT_EQ(config.fudge, 30U);
    EXPECT_EQ(config.max_cycles_per_blist, 4U);
    (void)engine.exchange(make_request("GET", "/admin/domain/dhc?freq=7", "fudge=8"));
    EXPECT_EQ(config.ping_frequency, 600U) << "a body hides the query";
    EXPECT_EQ(config.fudge, 8U);
}

TEST_F(collector, HandsOverItsHostsOnceAndRefusesTheBlacklisted) {
    (void)get("/admin/domain/add?domain=d&max_cycles_per_blist=0");
    EXPECT_EQ(ping("b"), "Success\n");
    EXPECT_EQ(ping("a"), "Success\n");
    EXPECT_EQ(list("?domain=d&format=json"), "[\n{\n\"hostid\":\"a\"},\n{\n\"hostid\":\"b\"}\n]");
    EXPECT_EQ(list("?domain=d"), "");
    EXPECT_EQ(ping("b"), "Success\n");
    EXPECT_EQ(body_of(report("domain=d&id=x&dhc=1&list=b:b:c")), "Success\n");
    EXPECT_EQ(ping("b"), "Host blacklisted");
    EXPECT_EQ(ping("c"), "Host blacklisted");
    EXPECT_EQ(ping("x"), "Success\n") << "the reporter itself is not collected, nor blacklisted";
    EXPECT_EQ(list("?domain=d"), "x\n");
    EXPECT_EQ(ping("b"), "Success\n") << "one enumeration ends the blacklist";
}

TEST_F(collector, LimitsAndSwitches) {
    (void)get("/admin/domain/add?domain=d&max_report_per_dhc=2");
    EXPECT_EQ(ping("a"), "Success\n");
    EXPECT_EQ(ping("b"), "Success\n");
    EXPECT_EQ(ping("c"), "Too many reports");
    EXPECT_EQ(ping("a"), "Success\n") << "a known host is no new one";
    EXPECT_EQ(body_of(report("domain=d&id=x&dhc=1&list=a:b:c")), "Too many reports");
    EXPECT_EQ(ping("b"), "Success\n") << "a refused list changes nothing";
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
    (void)report("domain=d&id=x&dhc=1&list=a");
    EXPECT_EQ(ping("a"), "Host blacklisted");
    EXPECT_EQ(list("?domain=d"), "");
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
        qz_set_foreach(find_domain(engine.ctx, "d")->blacklist, append_id, &ids);
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
    (void)engine.exchange_on(client.get(),
                             "POST /agent/domain/register HTTP/1.1\r\nContent-Length: 50\r\n\r\n"
                             "host=h&id=half");
    // A switch during the upload decides about the request, even when the rest then arrives.
    unique_fd late = engine.connect();
    (void)engine.exchange_on(late.get(),
                             "POST /agent/domain/register HTTP/1.1\r\nContent-Length: 14\r\n\r\n"
                             "host=h&");
    client.reset();
    for (int i = 0; i < 5; ++i) {
        engine.poll();
    }
    EXPECT_EQ(find_host(engine.ctx, "half"), nullptr);
    EXPECT_EQ(list("?dronly=1"), "id1\n");
    (void)post("/admin/dovmad/config", "mode=standalone");
    EXPECT_EQ(status_line(engine.exchange_on(late.get(), "id=late")), "HTTP/1.1 404 Not Found");
}

TEST_F(domain_server, ABodyThatNeverFitsIsRefused) {
    const std::string big = "id=a&host=b&pad=" + std::string(40000, 'x');
    EXPECT_EQ(status_line(post("/agent/domain/register", big)), "HTTP/1.1 400 Request is too big");
    EXPECT_EQ(find_host(engine.ctx, "a"), nullptr);
}

}  // namespace
