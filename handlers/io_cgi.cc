#include "core/stream.h"

constinit const io_class io_cgi{.name = "cgi", .read = nullptr, .write = nullptr, .close = nullptr};
