// Puts growing numbers into an INI store until it is killed, and tells each once it is stored.
// ini_writer FILE KEYS FIRST
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/ini.h"

int main(int argc, char** argv) {
    parse_handle* store = nullptr;
    if (argc != 4 || parse_open(argv[1], nullptr, &store) != 0) {
        return 2;
    }
    const parse_ptr owner(store);
    const int keys = std::atoi(argv[2]);
    for (long number = std::atol(argv[3]);; ++number) {
        const std::string key = "key" + std::to_string(number % keys);
        const std::string value = std::to_string(number);
        if (parse_put(store, "numbers", key.c_str(), value.c_str()) != 0) {
            return 1;
        }
        // One write call for each line: what the reader has got was stored.
        (void)std::printf("%ld\n", number);
        (void)std::fflush(stdout);
    }
}
