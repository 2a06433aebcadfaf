#include "handlers/cgi_service.h"

int run_cgi_as_service(shttpd_ctx*, const char*, const char*) {
    return -1;
}

int stop_cgi_services() {
    return 0;
}

int gethobport() {
    return 0;
}

int gethobstdio() {
    return -1;
}
