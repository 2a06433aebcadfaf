#include "core/stream.h"

constinit const io_class io_proxy{
    .name = "proxy", .read = nullptr, .write = nullptr, .close = nullptr};
