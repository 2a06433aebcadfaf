// Which credential to present to a client that asks for a host name: the service's own, or the one
// of a management broker that this host also stands for.

#include <unistd.h>

#include <cstdio>
#include <optional>
#include <string>
#include <utility>

#include "core/config.h"
#include "core/context.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/string.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "lib/qz_result.h"
#include "lib/qz_vector.h"
#include "lib/rbtree.h"
#include "security/at_types.h"
#include "security/sec_uri.h"

namespace {

// An instance of the library that runs on a broker's data directory, and its credential.
struct broker_credential {
    void* handle = nullptr;
    void* credential = nullptr;
};

void free_broker_credential(void* value) {
    auto* pair = static_cast<broker_credential*>(value);
    (void)molbAtFree(pair->credential);
    (void)molbAtTerminate(pair->handle);
    delete pair;
}

// What the list of management domains says about a broker.
struct broker_entry {
    std::string broker;
    std::string data_dir;
};

std::optional<std::string> read_value(parse_handle* store, const char* section, const char* key) {
    char* value = nullptr;
    if (parse_get(store, section, key, &value) != 0) {
        return std::nullopt;
    }
    const qz_owned<char> owner(value);
    return std::string(value);
}

// The first domain whose primary broker has this name.
std::optional<broker_entry> find_in_store(parse_handle* store, std::string_view name) {
    qz_vector* names = nullptr;
    if (parse_enum_domains(store, &names) != 0) {
        return std::nullopt;
    }
    const vector_ptr owner(names);
    for (void* word : qz_each(names)) {
        const auto* section = static_cast<const char*>(word);
        std::optional<std::string> broker = read_value(store, section, "primary_broker");
        if (broker != name) {
            continue;
        }
        std::optional<std::string> data_dir = read_value(store, section, "zel_data_dir");
        if (!data_dir) {
            return std::nullopt;
        }
        return broker_entry{.broker = std::move(*broker), .data_dir = std::move(*data_dir)};
    }
    return std::nullopt;
}

std::optional<broker_entry> find_broker(std::string_view name) {
    if (access(paths.resolver_file, F_OK) != 0) {
        return std::nullopt;
    }
    parse_handle* store = nullptr;
    const int result = parse_open(paths.resolver_file, nullptr, &store);
    if (result != 0) {
        const char* problem = result == qz_syntax_error ? "Syntax error in" : "Cannot read";
        elog(elog_info, nullptr, "%s %s", problem, paths.resolver_file);
        return std::nullopt;
    }
    const parse_ptr owner(store);
    return find_in_store(store, name);
}

std::string copy_text(const qz_text& text) {
    return text.text == nullptr ? std::string() : std::string(text.text, text.length);
}

const char* text_or_null(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

// The first credential of an instance; the others are given back. Null when there is none.
void* first_credential(void* handle, const std::string& broker) {
    qz_security parts{};
    if (qz_uri_to_security(broker.c_str(), &parts) == nullptr) {
        return nullptr;
    }
    const std::string host = copy_text(parts.host);
    // A plain name has one part only: the name itself.
    const bool plain = parts.kind == qz_uri_os;
    const std::string domain = plain ? std::string() : copy_text(parts.segment1);
    const std::string user = copy_text(plain ? parts.segment1 : parts.segment2);
    const molb_identity who = {.host = host.empty() ? "localhost" : host.c_str(),
                               .domain = text_or_null(domain),
                               .name = text_or_null(user),
                               .password = nullptr};
    void** list = nullptr;
    std::int32_t count = 0;
    if (molbAtGetCredentials(handle, &who, 0, &list, &count) != at_ok || list == nullptr) {
        return nullptr;
    }
    for (std::int32_t i = 1; i < count; ++i) {
        (void)molbAtFree(list[i]);
    }
    void* first = count > 0 ? list[0] : nullptr;
    (void)molbAtFree(list);
    return first;
}

broker_credential* open_broker(const broker_entry& entry) {
    const molb_init parameters = {.home = nullptr,
                                  .data_dir = entry.data_dir.c_str(),
                                  .reserved = nullptr,
                                  .library_path = nullptr};
    void* handle = nullptr;
    const std::uint32_t code = molbAtInitEx(nullptr, &handle, &parameters, 0, 0, 0);
    if (code != at_ok) {
        std::printf("molbAtInitEx failed; err %d\n", static_cast<int>(code));
        return nullptr;
    }
    void* credential = first_credential(handle, entry.broker);
    if (credential == nullptr) {
        (void)molbAtTerminate(handle);
        return nullptr;
    }
    return new broker_credential{.handle = handle, .credential = credential};
}

// The pair for a name, opened and remembered when it is not known yet; null: none.
const broker_credential* broker_for(shttpd_ctx* ctx, const char* name) {
    if (const void* known = qz_map_find(ctx->broker_credentials, name); known != nullptr) {
        return static_cast<const broker_credential*>(known);
    }
    const std::optional<broker_entry> entry = find_broker(name);
    broker_credential* pair = entry ? open_broker(*entry) : nullptr;
    if (pair == nullptr) {
        return nullptr;
    }
    qz_owned<char> key(qzstrdup(name));
    if (qz_map_insert(ctx->broker_credentials, key.get(), pair) != 0) {
        free_broker_credential(pair);
        return nullptr;
    }
    (void)key.release();
    return pair;
}

}  // namespace

void init_broker_credentials(shttpd_ctx* ctx) {
    ctx->broker_credentials = new_qz_map(compare_string, qzfree, free_broker_credential);
}

void free_broker_credentials(shttpd_ctx* ctx) {
    qz_map_destroy(std::exchange(ctx->broker_credentials, nullptr));
}

std::uint32_t sni_callback(const molb_sni_request* request, void** handle, void** credential) {
    auto* ctx = static_cast<shttpd_ctx*>(request->user_data);
    *handle = ctx->at_handle;
    *credential = ctx->service_credential;
    const char* name = request->host_name;
    if (name == nullptr || starts_with_nocase(name, "localhost")) {
        return at_ok;
    }
    if (const broker_credential* pair = broker_for(ctx, name); pair != nullptr) {
        *handle = pair->handle;
        *credential = pair->credential;
    }
    return at_ok;
}
