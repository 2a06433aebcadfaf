// The one security URI routine that reads a file, apart from the rest so that property sets, which
// need the text routines, never depend on the INI store.
#include <sys/stat.h>

#include <cstdlib>
#include <string_view>
#include <utility>

#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/qz_result.h"
#include "security/sec_uri.h"

const char* qz_resolver_file = nullptr;

namespace {

const char* resolver_file(const char* file) {
    if (file != nullptr) {
        return file;
    }
    const char* named = std::getenv("PLX_RESOLV");
    return named != nullptr ? named : qz_resolver_file;
}

qz_owned<char> value_of(parse_handle* store, const char* section, const char* key) {
    char* value = nullptr;
    (void)parse_get(store, section, key, &value);  // any failure leaves null: no such value
    return qz_owned<char>(value);
}

bool is_primary(parse_handle* store, const char* domain) {
    const qz_owned<char> value = value_of(store, domain, "primary");
    return value != nullptr && std::string_view(value.get()).starts_with("true");
}

}  // namespace

char* get_default_user(const char* file) noexcept {
    const char* path = resolver_file(file);
    struct stat status = {};
    parse_handle* opened = nullptr;
    if (path == nullptr || ::stat(path, &status) != 0 ||
        parse_open(path, nullptr, &opened) != qz_ok) {
        return nullptr;
    }
    const parse_ptr store(opened);
    qz_vector* names = nullptr;
    if (parse_enum_domains(store.get(), &names) != qz_ok) {
        return nullptr;
    }
    const vector_ptr domains(names);
    qz_owned<char> broker;
    for (void* word : qz_each(names)) {
        const char* domain = qz_as<char>(word);
        if (!is_primary(store.get(), domain)) {
            continue;
        }
        if (qz_owned<char> named = value_of(store.get(), domain, "primary_broker")) {
            broker = std::move(named);
        }
    }
    return broker.release();
}
