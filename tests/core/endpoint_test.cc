// The driver of the built-in endpoints over a whole engine: what is refused in which order, bodies,
// long replies, and answers that wait.
#include "core/endpoint.h"

#include "tests/support/engine_fixture.h"

namespace {

const std::string head = "HTTP/1.1 200 OK\r\n\r\n";

bool closed = false;

bool is_open(shttpd_call_arg* arg) {
    if (closed) {
        show_error(arg, "403", "Closed");
    }
    return !closed;
}

void echo(shttpd_call_arg* arg) {
    const std::string text = get_variable(request_body(arg), "text", 64);
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n<%s>", text.c_str());
}

void long_reply(shttpd_call_arg* arg) {
    answer_text(arg, head + std::string(1000000, 'x') + "end");
}

// A waiting request and what has become of it.
struct waiter : endpoint_wait {
    explicit waiter(conn* c) : connection(c) { current = this; }
    waiter(const waiter&) = delete;
    waiter& operator=(const waiter&) = delete;
    ~waiter() override { current = nullptr; }

    conn* connection;
    bool come = false;
    int calls = 0;
    static inline waiter* current = nullptr;
};

void wait_first(shttpd_call_arg* arg) {
    auto* mine = waiting_for<waiter>(arg);
    if (mine == nullptr) {
        not_yet(arg, std::make_unique<waiter>(arg->connection));
    } else if (++mine->calls; mine->come) {
        answer_text(arg, head + std::to_string(mine->calls));
    } else {
        not_yet(arg, nullptr);
    }
}

constexpr std::array<endpoint, 5> rows = {{
    {"/any", endpoint_method::any, endpoint_body::ignored, echo},
    {"/post", endpoint_method::post, endpoint_body::awaited, echo, is_open},
    {"/get", endpoint_method::get, endpoint_body::awaited_with_get, echo, is_open},
    {"/long", endpoint_method::any, endpoint_body::awaited_with_post, long_reply},
    {"/wait", endpoint_method::post, endpoint_body::awaited, wait_first, is_open},
}};

class endpoints : public testing::Test {
  protected:
    endpoints() {
        closed = false;
        register_endpoints(engine.ctx, rows);
    }
    ~endpoints() override { EXPECT_EQ(waiter::current, nullptr); }

    std::string ask(const std::string& method, const std::string& uri,
                    const std::string& body = "") {
        return engine.exchange(make_request(method, uri, body));
    }

    test_engine engine;
};

TEST_F(endpoints, AreAdmittedInOrder) {
    EXPECT_EQ(ask("POST", "/post", "text=a%20b"), head + "<a b>");
    // A pipelined request behind the body is no part of the last variable.
    EXPECT_EQ(ask("POST", "/post", "x=1&text=z" + get("/")).substr(0, 19), head);
    const std::string too_big(40000, 'x');
    EXPECT_EQ(body_of(ask("POST", "/post", too_big)), "Request is too big");
    EXPECT_EQ(body_of(ask("GET", "/get", too_big)), "Request is too big");
    EXPECT_EQ(body_of(ask("POST", "/any", too_big)), "<>");
    EXPECT_EQ(body_of(ask("GET", "/long", too_big)).size(), 1000003U);
    EXPECT_EQ(ask("GET", "/post").substr(0, 34), "HTTP/1.1 400 Inappropriate method\r");
    EXPECT_EQ(ask("POST", "/get").substr(0, 33), "HTTP/1.1 405 Method not allowed\r\n");
    closed = true;
    EXPECT_EQ(body_of(ask("GET", "/post")), "Closed");
    EXPECT_EQ(body_of(ask("POST", "/get", too_big)), "Closed");
}

TEST_F(endpoints, AreAdmittedAnewUntilTheBodyIsThere) {
    const unique_fd client = engine.connect();
    EXPECT_EQ(engine.exchange_on(client, "POST /post HTTP/1.1\r\nContent-Length: 6\r\n\r\n"), "");
    closed = true;
    EXPECT_EQ(body_of(engine.exchange_on(client, "text=a")), "Closed");
}

TEST_F(endpoints, RepliesOfAnyLengthArriveWhole) {
    EXPECT_EQ(body_of(ask("GET", "/long")), std::string(1000000, 'x') + "end");
}

TEST_F(endpoints, AnAnswerThatWaitsIsCalledAgainWhenItsThingHasCome) {
    const unique_fd client = engine.connect();
    EXPECT_EQ(engine.exchange_on(client, make_request("POST", "/wait", "x=1")), "");
    ASSERT_NE(waiter::current, nullptr);
    EXPECT_EQ(waiter::current->calls, 0) << "nothing is called in vain";
    closed = true;  // what has been admitted stays so
    visit_soon(waiter::current->connection);
    EXPECT_EQ(engine.exchange_on(client, ""), "");
    waiter::current->come = true;
    visit_soon(waiter::current->connection);
    EXPECT_EQ(engine.exchange_on(client, ""), head + "2");
}

TEST_F(endpoints, AWaitEndsWithItsClient) {
    { (void)engine.exchange_on(engine.connect(), make_request("POST", "/wait", "x=1")); }
    engine.poll();
    EXPECT_EQ(waiter::current, nullptr);
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

}  // namespace
