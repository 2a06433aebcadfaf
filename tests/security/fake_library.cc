#include "tests/security/fake_library.h"

#include "security/api.h"

fake_library fake;

namespace {

std::int32_t next_count() {
    if (fake.counts.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const std::int32_t count = fake.counts.front();
    fake.counts.pop_front();
    return count;
}

}  // namespace

void* molbatGetSymbol(int, const char* name) {
    return fake.lacking.count(name) == 0 ? &fake : nullptr;
}
std::uint32_t molbAtAuthenticate(void*, const molb_identity* who, std::uint32_t,
                                 void** credential) {
    std::string id;
    for (const char* part : {who->host, who->domain, who->name, who->password}) {
        id.append(id.empty() ? "" : "|").append(part != nullptr ? part : "(null)");
    }
    fake.asked.push_back(id);
    *credential = &fake;  // garbage that a careful caller does not keep
    return at_refused;
}
std::uint32_t molbAtExtractInfo(void*, void*, molb_info** info) {
    *info = const_cast<molb_info*>(fake.extracted);
    return fake.extracted != nullptr ? at_ok : at_invalid_argument;
}
std::uint32_t molbAtFree(void* block) {
    fake.freed.push_back(block);
    return at_ok;
}
std::uint32_t molbAtSecConnAcceptWithCommExtn(void*, int, void* server_credential,
                                              std::uint32_t mode, void* params, std::uint32_t flags,
                                              std::uint32_t, void** channel,
                                              void** client_credential) {
    fake.server_credential = server_credential;
    fake.accept_mode = mode;
    fake.accept_params = params;
    fake.accept_flags = flags;
    const std::uint32_t result = fake.handshakes.front();
    fake.handshakes.pop_front();
    *channel = result == at_channel_failed ? nullptr : fake.channel;
    *client_credential = fake.accept_credential;
    return result;
}
std::uint32_t molbAtSecConnConnect(int, void*, std::uint32_t, void** channel, char**) {
    if (fake.connects.empty()) {
        return at_not_available;
    }
    const std::uint32_t result = fake.connects.front();
    fake.connects.pop_front();
    *channel = result == at_channel_failed ? nullptr : fake.channel;
    return result;
}
std::int32_t molbAtSecConnRead(void*, void*, std::int32_t) {
    return next_count();
}
std::int32_t molbAtSecConnWrite(void*, const void*, std::int32_t) {
    return next_count();
}
std::uint32_t molbAtSecConnClose(void** channel) {
    fake.freed.push_back(*channel);
    *channel = nullptr;
    return at_ok;
}

std::uint32_t molbatLibraryControl(const char* command, void* arg) {
    if (std::string(command) == "Log") {
        fake.log = reinterpret_cast<molb_log_function>(arg);
    } else if (std::string(command) == "Peer") {
        fake.peer = arg != nullptr ? static_cast<const char*>(arg) : "";
    }
    return at_ok;
}

// What the rest of the engine links against and no test here reaches.
std::uint32_t molbAtInit(const molb_version*, void**) {
    return at_not_available;
}
std::uint32_t molbAtInitEx(const molb_version*, void**, const molb_init*, std::uintptr_t,
                           std::uintptr_t, std::uintptr_t) {
    return at_not_available;
}
std::uint32_t molbAtTerminate(void*) {
    return at_not_available;
}
std::uint32_t molbAtGetCredentials(void*, const molb_identity*, std::uint32_t, void***,
                                   std::int32_t*) {
    return at_not_available;
}
std::uint32_t molbAtGetDomainInfos(void*, std::uint32_t, molb_domain_info**, std::int32_t*) {
    return at_not_available;
}
