#include "handlers/cgi.h"

int my_socketpair(conn*, int[2]) {
    return -1;
}

void build_cgi_environment(conn*, const char*, env_block*) {}

int run_cgi(conn*, const char*) {
    return -1;
}

void do_cgi(conn*) {}
