#include "tests/support/engine_fixture.h"

#include "core/state_writer.h"
#include "domain/domain.h"
#include "handlers/uri_handlers.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "sched/sched.h"
#include "security/authz.h"
#include "tests/support/wait_choice.h"

test_engine::test_engine(bool bare) : ctx(new shttpd_ctx) {
    choose_wait_source();
    refresh_clocks();
    conf_parse_init();
    init_critical_section(&ctx->lock);
    ctx->document_root = root.path();
    ctx->auth_realm = "testhost";
    ctx->noauth = 1;
    ctx->list_directories = 1;
    ctx->io_buf_size = 16384;
    ctx->index_files = "index.html, index.htm, index.pl, index.cgi";
    ctx->cgi_extensions = ".cgi";
    ctx->ssi_extensions = ".shtml";
    ctx->var_dir = root.path();
    init_auth_info(ctx);
    if (!bare) {
        init_domain_info(ctx);
        scheduler_init(ctx);
        init_world_uris(ctx);
    }
}

test_engine::~test_engine() {
    shttpd_fini(ctx);
    sched_fini();
}

unique_fd test_engine::connect() {
    auto [ours, theirs] = connected_pair();
    shttpd_add_socket(ctx, theirs.release(), true, false);
    return std::move(ours);
}

void test_engine::say(const unique_fd& client, std::string_view bytes) {
    EXPECT_EQ(send(client.get(), bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
}

void test_engine::poll(int passes) {
    for (int i = 0; i < passes; ++i) {
        shttpd_poll(ctx, 0);
    }
}

std::string test_engine::exchange(std::string_view bytes, int quiet_passes) {
    std::string reply;
    {
        const unique_fd client = connect();
        reply = exchange_on(client, bytes, quiet_passes);
    }
    poll();  // the engine notices that the client has gone
    return reply;
}

std::string test_engine::exchange_on(const unique_fd& client, std::string_view bytes,
                                     int quiet_passes) {
    const int fd = client.get();
    std::string reply;
    ended = connection_end::open;
    for (int quiet = 0; quiet < quiet_passes; ++quiet) {
        if (!bytes.empty()) {
            const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent > 0) {
                bytes.remove_prefix(static_cast<std::size_t>(sent));
                quiet = 0;
            }
        }
        poll();
        finish_state_writes();  // a reply that waits for a file goes out in the next pass
        char buffer[65536];
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
            reply.append(buffer, static_cast<std::size_t>(got));
            quiet = 0;
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            ended = got == 0 ? connection_end::closed : connection_end::reset;
            break;
        }
    }
    return reply;
}

std::string make_request(std::string_view method, std::string_view uri, std::string_view body) {
    std::string text;
    text.append(method).append(" ").append(uri).append(" HTTP/1.1\r\nHost: test\r\n");
    if (!body.empty()) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text.append("\r\n").append(body);
}

std::string body_of(std::string_view reply) {
    const std::size_t blank = reply.find("\r\n\r\n");
    return blank == std::string_view::npos ? std::string() : std::string(reply.substr(blank + 4));
}
