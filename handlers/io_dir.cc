#include "handlers/io_dir.h"

#include <utility>

#include "core/io_class.h"

constinit const io_class io_dir = {
    .name = "dir",
    .read = nullptr,
    .write = nullptr,
    .close = nullptr,
};

void get_dir(conn* c, std::string path) {
    (void)c;
    (void)std::move(path);
}
