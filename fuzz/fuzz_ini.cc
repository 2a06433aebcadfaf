// The INI parser on a block of memory: an accepted file of harmless characters must survive being
// written and read again.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "fuzz/check.h"
#include "lib/conf_yacc.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/qz_result.h"

namespace {

parse_handle* empty_store() {
    parse_handle* store = nullptr;
    check(parse_open("/nonexistent/fuzz.conf", nullptr, &store) == 0);
    return store;
}

bool is_harmless(std::string_view text, std::string_view extra) {
    for (const char c : text) {
        const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                           (c >= 'A' && c <= 'Z') || extra.find(c) != std::string_view::npos;
        if (!plain) {
            return false;
        }
    }
    return true;
}

bool is_harmless(const parse_handle* store) {
    for (const qz_pair& section : qz_each(store->sections)) {
        const char* name = qz_as<char>(section.key);
        if (*name == '\0' || !is_harmless(name, "_.-")) {
            return false;
        }
        for (void* word : qz_each(qz_as<propset>(section.value)->entries)) {
            const auto* entry = qz_as<kv>(word);
            if (*entry->name == '\0' || !is_harmless(entry->name, "_.-") ||
                !is_harmless(qz_as<char>(entry->value->data), "_.- \t")) {
                return false;
            }
        }
    }
    return true;
}

void check_round_trip(const parse_handle* store, parse_handle* again) {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* file = open_memstream(&text, &length);
    for (const qz_pair& section : qz_each(store->sections)) {
        check(write_section(file, qz_as<char>(section.key), qz_as<propset>(section.value)) == 0);
    }
    check(std::fclose(file) == 0);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    qz_map_clear(again->sections);
    check(confparse(text, length, again) == 0);
    check(qz_map_size(again->sections) == qz_map_size(store->sections));
    for (const qz_pair& section : qz_each(store->sections)) {
        const void* other = qz_map_find(again->sections, section.key);
        check(ps_compare(qz_as<propset>(section.value), static_cast<const propset*>(other)) == 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static parse_handle* const store = empty_store();
    static parse_handle* const again = empty_store();
    qz_map_clear(store->sections);
    const int result = confparse(reinterpret_cast<const char*>(data), size, store);
    check(result == qz_ok || result == qz_syntax_error);
    if (result == qz_ok && is_harmless(store)) {
        check_round_trip(store, again);
    }
    return 0;
}
