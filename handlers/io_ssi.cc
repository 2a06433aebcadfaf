#include "handlers/io_ssi.h"

#include "core/io_class.h"

constinit const io_class io_ssi = {
    .name = "ssi",
    .read = nullptr,
    .write = nullptr,
    .close = nullptr,
};

void do_ssi(conn* c) { (void)c; }
