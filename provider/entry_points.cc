// The entry points that this library offers. Out arguments are nulled before anything else.
#include <dlfcn.h>
#include <openssl/crypto.h>
#include <string.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "provider/channel.h"
#include "provider/first_use.h"
#include "provider/library.h"
#include "provider/report.h"
#include "security/at_types.h"

using namespace provider;

namespace {

// Room for the keys of a few thousand handshakes at once: OpenSSL refuses a handshake when its
// secure heap is full. Pages are touched, and locked, only as they are needed.
constexpr std::size_t secure_heap_bytes = 4U << 20;
constexpr std::size_t smallest_secure_block = 32;

// Private keys live on OpenSSL's secure heap: locked in memory where the limits allow it, and never
// part of a core dump.
void keep_keys_apart() {
    static const bool once = [] {
        if (CRYPTO_secure_malloc_initialized() == 0) {
            (void)CRYPTO_secure_malloc_init(secure_heap_bytes, smallest_secure_block);
        }
        return true;
    }();
    (void)once;
}

bool is_empty(const char* text) {
    return text == nullptr || *text == '\0';
}

std::string_view text_of(const char* text) {
    return text == nullptr ? "" : text;
}

// Without a directory of its own the instance is the daemon's: that one is set up when it is new,
// has to be complete, and says on standard error what is wrong, since no log is open yet.
std::uint32_t open_instance(const molb_init* init, void** handle) {
    const bool own = init == nullptr || is_empty(init->data_dir);
    const char* data_dir = own ? std::getenv("ZEL_DATA_DIR") : init->data_dir;
    if (is_empty(data_dir)) {
        return at_invalid_argument;
    }
    keep_keys_apart();
    // Where memory fails it here, OpenSSL reads through nulls later, for as long as the process
    // lives.
    if (OSSL_LIB_CTX_get0_global_default() == nullptr) {
        return at_no_memory;
    }
    if (own) {
        const std::uint32_t result = set_up_on_first_use(data_dir);
        if (result != at_ok) {
            return result;
        }
    }
    auto opened = std::make_unique<instance>();
    std::string why;
    const std::uint32_t result = site::open(data_dir, own, &opened->owner, &why);
    if (result != at_ok) {
        if (own) {
            print_at_start("authentication: %s", why.c_str());
        }
        return result;
    }
    *handle = opened.release();
    return at_ok;
}

// The three texts are never asked for in a request; they show up where a caller confuses
// credentials.
std::unique_ptr<credential> service_credential(const site_ref& owner) {
    auto service = std::make_unique<credential>();
    service->owner = owner;
    service->is_service = true;
    service->who = {"localhost", "service", "service"};
    return service;
}

char* error_block(std::string_view text) {
    void* block = new_block(text.size() + 1);
    return block == nullptr ? nullptr : text_appender(block).append(text);
}

// On whose behalf this thread asks about logins.
thread_local std::string current_peer;

// Drops the channel behind *slot after a failure.
std::uint32_t drop_channel(void** slot, channel* c) {
    close_channel(c);
    *slot = nullptr;
    return at_channel_failed;
}

}  // namespace

std::uint32_t molbatLibraryControl(const char* command, void* arg) {
    if (command != nullptr && strcmp(command, "Log") == 0) {
        set_log(reinterpret_cast<molb_log_function>(arg));
        return at_ok;
    }
    if (command != nullptr && strcmp(command, "Peer") == 0) {
        current_peer = arg != nullptr ? static_cast<const char*>(arg) : "";
        return at_ok;
    }
    if (command == nullptr || arg == nullptr) {
        return at_invalid_argument;
    }
    if (strcmp(command, "Unload") == 0) {
        (void)dlclose(arg);  // this code stays mapped: the library is linked not to be unloaded
        return at_ok;
    }
    if (strncmp(command, "Load", 4) != 0 || (command[4] != '\0' && command[4] != '|')) {
        return at_invalid_argument;
    }
    Dl_info own{};
    void* handle = nullptr;
    if (dladdr(reinterpret_cast<void*>(&molbatLibraryControl), &own) != 0) {
        handle = dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    }
    *static_cast<void**>(arg) = handle;
    return handle != nullptr ? at_ok : at_not_available;
}

std::uint32_t molbAtInit(const molb_version* version, void** handle) {
    return molbAtInitEx(version, handle, nullptr, 0, 0, 0);
}

// Every version is welcome: the entry points offered are the same in all of them.
std::uint32_t molbAtInitEx(const molb_version* /*version*/, void** handle, const molb_init* init,
                           std::uintptr_t /*a*/, std::uintptr_t /*b*/, std::uintptr_t /*c*/) {
    if (handle == nullptr) {
        return at_invalid_argument;
    }
    *handle = nullptr;
    return open_instance(init, handle);
}

std::uint32_t molbAtTerminate(void* handle) {
    auto* opened = object_cast<instance>(handle);
    if (opened == nullptr) {
        return at_invalid_argument;
    }
    delete opened;
    return at_ok;
}

std::uint32_t molbAtAuthenticate(void* handle, const molb_identity* who, std::uint32_t /*flags*/,
                                 void** result) {
    if (result == nullptr) {
        return at_invalid_argument;
    }
    *result = nullptr;
    auto* opened = object_cast<instance>(handle);
    if (opened == nullptr || who == nullptr || text_of(who->host) != "localhost") {
        return at_invalid_argument;
    }
    // Only null pointers ask for the service itself: empty texts come from the network.
    if (who->domain == nullptr && who->name == nullptr && who->password == nullptr) {
        opened->owner->refresh_key_pair();
        if (!opened->owner->has_key_pair()) {
            return at_not_available;
        }
        *result = service_credential(opened->owner).release();
        return at_ok;
    }
    if (is_empty(who->domain) || is_empty(who->name) || is_empty(who->password)) {
        return at_refused;
    }
    const std::optional<principal> user =
        opened->owner->check_login({who->domain, who->name, who->password, current_peer});
    if (!user) {
        return at_refused;
    }
    auto granted = std::make_unique<credential>();
    granted->owner = opened->owner;
    granted->who = *user;
    *result = granted.release();
    return at_ok;
}

std::uint32_t molbAtExtractInfo(void* handle, void* from, molb_info** result) {
    if (result == nullptr) {
        return at_invalid_argument;
    }
    *result = nullptr;
    const auto* holder = object_cast<credential>(from);
    if (object_cast<instance>(handle) == nullptr || holder == nullptr) {
        return at_invalid_argument;
    }
    const principal& who = holder->who;
    const std::size_t texts = who.qualifier.size() + who.domain.size() + who.name.size() + 3;
    auto* info = static_cast<molb_info*>(new_block(sizeof(molb_info) + texts));
    if (info == nullptr) {
        return at_no_memory;
    }
    text_appender texts_of(info + 1);
    *info = {texts_of.append(who.qualifier), texts_of.append(who.domain),
             texts_of.append(who.name)};
    *result = info;
    return at_ok;
}

std::uint32_t molbAtGetCredentials(void* handle, const molb_identity* /*who*/,
                                   std::uint32_t /*flags*/, void*** list, std::int32_t* count) {
    if (list == nullptr || count == nullptr) {
        return at_invalid_argument;
    }
    *list = nullptr;
    *count = 0;
    auto* opened = object_cast<instance>(handle);
    if (opened == nullptr) {
        return at_invalid_argument;
    }
    if (!opened->owner->has_key_pair()) {
        return at_not_available;
    }
    auto* entries = static_cast<void**>(new_block(sizeof(void*)));
    if (entries == nullptr) {
        return at_no_memory;
    }
    entries[0] = service_credential(opened->owner).release();
    *list = entries;
    *count = 1;
    return at_ok;
}

std::uint32_t molbAtGetDomainInfos(void* handle, std::uint32_t /*flags*/, molb_domain_info** list,
                                   std::int32_t* count) {
    if (list == nullptr || count == nullptr) {
        return at_invalid_argument;
    }
    *list = nullptr;
    *count = 0;
    auto* opened = object_cast<instance>(handle);
    if (opened == nullptr) {
        return at_invalid_argument;
    }
    // Two passes: the texts' lengths first, because records and texts share one block.
    const std::vector<domain_entry> domains = opened->owner->domains();
    if (domains.empty()) {
        return at_not_available;
    }
    const auto kind_text = [](const domain_entry& domain) -> std::string_view {
        return domain.kind == domain_kind::password ? "password" : "certificate";
    };
    std::size_t bytes = domains.size() * sizeof(molb_domain_info);
    for (const domain_entry& domain : domains) {
        bytes += kind_text(domain).size() + domain.name.size() + 2;
    }
    auto* entries = static_cast<molb_domain_info*>(new_block(bytes));
    if (entries == nullptr) {
        return at_no_memory;
    }
    text_appender texts(entries + domains.size());
    for (std::size_t i = 0; i < domains.size(); ++i) {
        entries[i] = {texts.append(kind_text(domains[i])), texts.append(domains[i].name), 0, 0};
    }
    *list = entries;
    *count = static_cast<std::int32_t>(domains.size());
    return at_ok;
}

// Handles and channels have a call of their own that ends them; here they are refused.
std::uint32_t molbAtFree(void* block) {
    if (block == nullptr) {
        return at_ok;
    }
    if (auto* holder = object_cast<credential>(block)) {
        delete holder;
        return at_ok;
    }
    if (is_object(block, object_kind::handle) || is_object(block, object_kind::channel) ||
        !is_block(block)) {
        return at_invalid_argument;
    }
    free_block(block);
    return at_ok;
}

std::uint32_t molbAtSecConnConnect(int fd, void* handle, std::uint32_t /*mode*/, void** result,
                                   char** error) {
    if (error != nullptr) {
        *error = nullptr;
    }
    if (result == nullptr) {
        return at_invalid_argument;
    }
    auto* c = object_cast<channel>(*result);
    if (c == nullptr) {
        auto* opened = object_cast<instance>(handle);
        if (*result != nullptr || opened == nullptr || fd < 0) {
            return at_invalid_argument;
        }
        c = new channel;
        c->fd = fd;
        c->owner = opened->owner;
        *result = c;
    }
    std::string why;
    const std::uint32_t step = connect_step(c, &why);
    if (step == at_channel_failed && error != nullptr) {
        *error = error_block(why);
    }
    return step == at_channel_failed ? drop_channel(result, c) : step;
}

std::uint32_t molbAtSecConnAcceptWithCommExtn(void* handle, int fd, void* server_credential,
                                              std::uint32_t /*mode*/, void* params,
                                              std::uint32_t /*flags*/, std::uint32_t /*reserved*/,
                                              void** result, void** client_credential) {
    if (client_credential != nullptr) {
        *client_credential = nullptr;
    }
    if (result == nullptr || client_credential == nullptr) {
        return at_invalid_argument;
    }
    auto* c = object_cast<channel>(*result);
    if (c == nullptr) {
        const auto* service = object_cast<credential>(server_credential);
        const auto* opened = object_cast<instance>(handle);
        if (*result != nullptr || opened == nullptr || fd < 0 ||
            (server_credential != nullptr && (service == nullptr || !service->is_service))) {
            return at_invalid_argument;
        }
        c = new channel;
        c->fd = fd;
        c->owner = service != nullptr ? service->owner : opened->owner;
        c->params = static_cast<const molb_accept_params*>(params);
        *result = c;
    }
    // Every call after the first one finds its channel in *result; the service that it was begun
    // with stays, whatever credential is passed now.
    const std::uint32_t step = accept_step(c);
    if (step == at_ok) {
        auto client = std::make_unique<credential>();
        client->owner = c->owner;
        client->who = c->client;
        *client_credential = client.release();
    }
    return step == at_channel_failed ? drop_channel(result, c) : step;
}

std::int32_t molbAtSecConnRead(void* target, void* buffer, std::int32_t length) {
    auto* c = object_cast<channel>(target);
    if (c == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return read_channel(c, buffer, length);
}

std::int32_t molbAtSecConnWrite(void* target, const void* data, std::int32_t length) {
    auto* c = object_cast<channel>(target);
    if (c == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return write_channel(c, data, length);
}

std::int32_t molbAtDataPending(void* target) {
    const auto* c = object_cast<channel>(target);
    return c == nullptr ? 0 : pending_bytes(c);
}

std::uint32_t molbAtSecConnClose(void** slot) {
    auto* c = slot == nullptr ? nullptr : object_cast<channel>(*slot);
    if (c == nullptr) {
        return at_invalid_argument;
    }
    close_channel(c);
    *slot = nullptr;
    return at_ok;
}
