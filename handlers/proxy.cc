#include "handlers/proxy.h"

#include "core/route.h"

bool is_proxy(const conn*) {
    return false;
}

bool is_loopback(conn*, std::string*) {
    return false;
}

void adjust_uri(conn*) {}

void do_proxy(conn* c) {
    send_server_error(c, 400, "Bad headers");
}
