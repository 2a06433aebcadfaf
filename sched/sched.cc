#include "sched/sched.h"

void scheduler_init(shttpd_ctx* ctx) { (void)ctx; }
int sched_check_run(shttpd_ctx* ctx) {
    (void)ctx;
    return 0;
}
void sched_fini() {}
