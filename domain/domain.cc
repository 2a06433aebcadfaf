#include "domain/domain.h"

#include "core/context.h"

void init_domain_info(shttpd_ctx* ctx) {
    (void)ctx;
}

void free_domain_info(shttpd_ctx* ctx) {
    ctx->domain_file.clear();
}
