// Four threads share one INI store. Built with ThreadSanitizer, which reports any access that the
// store lock does not cover and makes the program fail.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "lib/ini.h"
#include "lib/plat.h"

namespace {

constexpr int rounds = 200;

void get_and_put(parse_handle* store, const char* key, int* failures) {
    for (int i = 0; i < rounds; ++i) {
        const std::string value = std::to_string(i);
        *failures += parse_put(store, "s", key, value.c_str()) != 0;
        char* read = nullptr;
        *failures += parse_get(store, "s", key, &read) != 0;
        const qz_owned<char> owned(read);
        *failures += owned == nullptr || owned.get() != value;
        qz_vector* keys = nullptr;
        *failures += parse_enum_keys(store, "s", &keys) != 0;
        qz_vector_destroy(keys);
    }
}

}  // namespace

int main() {
    char path[] = "/tmp/ini_threads.XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        return 1;
    }
    (void)close(fd);
    parse_handle* store = nullptr;
    int total = parse_open(path, nullptr, &store);
    std::array<int, 4> failures{};
    std::array<std::thread, 4> threads;
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i] = std::thread([&failures, store, i] {
            get_and_put(store, std::string(1, static_cast<char>('a' + i)).c_str(), &failures[i]);
        });
    }
    for (std::size_t i = 0; i < threads.size(); ++i) {
        threads[i].join();
        total += failures[i];
    }
    total += parse_close(store);
    (void)unlink(path);
    std::printf("%d failures\n", total);
    return total == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
