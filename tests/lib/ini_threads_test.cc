// Four threads share one INI store. Built with ThreadSanitizer, which reports any access that the
// store lock does not cover and makes the program fail.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <string>
#include <thread>

#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/unique_fd.h"

namespace {

constexpr int rounds = 200;

void get_and_put(parse_handle* store, char name, int* failures) {
    const char key[] = {name, '\0'};
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
    const unique_fd file(mkstemp(path));
    parse_handle* store = nullptr;
    int total = parse_open(path, nullptr, &store);
    std::array<int, 4> failures{};
    {
        std::array<std::jthread, 4> threads;
        for (std::size_t i = 0; i < threads.size(); ++i) {
            threads[i] = std::jthread(get_and_put, store, "abcd"[i], &failures[i]);
        }
    }
    total += std::accumulate(failures.begin(), failures.end(), 0) + parse_close(store);
    (void)unlink(path);
    std::printf("%d failures\n", total);
    return total == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
