// A program with a management entry point of its own: one URI, and everything that dovmad serves.
// Usage: hello CONFIG
#include <core/shttpd.h>

#include <csignal>
#include <cstring>

namespace {

volatile std::sig_atomic_t ended = 0;

void end(int /*sig*/) {
    ended = 1;
}

void say_hello(shttpd_call_arg* arg) {
    char name[64] = {};
    const char* query = shttpd_get_env(arg, "QUERY_STRING");
    const int length = query != nullptr ? static_cast<int>(std::strlen(query)) : 0;
    if (shttpd_get_var("name", query != nullptr ? query : "", length, name, sizeof name) <= 0) {
        name[0] = '?';
    }
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nhello, %s\n", name);
    arg->flags |= ARG_END_OF_OUTPUT;
}

}  // namespace

int main(int argc, char** argv) {
    (void)std::signal(SIGTERM, end);
    (void)std::signal(SIGPIPE, SIG_IGN);  // clients go away whenever they like
    shttpd_ctx* ctx = shttpd_init(argc > 1 ? argv[1] : nullptr, "", "");
    shttpd_register_uri(ctx, "/world/hello", say_hello, nullptr);
    open_listening_ports(ctx);
    while (ended == 0) {
        shttpd_poll(ctx, 1000);
    }
    shttpd_fini(ctx);
    return 0;
}
