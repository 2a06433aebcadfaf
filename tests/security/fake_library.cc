#include "tests/security/fake_library.h"

#include <algorithm>
#include <cerrno>

#include "security/api.h"

fake_library fake;

namespace {

std::string text_of(const char* text) {
    return text != nullptr ? text : "(null)";
}

int channel_object;

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

long fake_library::times_freed(const void* p) const {
    return std::count(freed.begin(), freed.end(), p);
}

void* molbatGetSymbol(int, const char* name) {
    return fake.lacking.count(name) == 0 ? &channel_object : nullptr;
}
std::uint32_t molbatLibraryControl(const char*, void*) {
    return at_not_available;
}
std::uint32_t molbAtInit(const molb_version*, void** handle) {
    *handle = nullptr;
    return at_not_available;
}
std::uint32_t molbAtInitEx(const molb_version* version, void** handle, const molb_init*,
                           std::uintptr_t, std::uintptr_t, std::uintptr_t) {
    return molbAtInit(version, handle);
}
std::uint32_t molbAtTerminate(void*) {
    return at_ok;
}
std::uint32_t molbAtAuthenticate(void*, const molb_identity* who, std::uint32_t,
                                 void** credential) {
    const fake_identity id{text_of(who->host), text_of(who->domain), text_of(who->name),
                           text_of(who->password)};
    fake.asked.push_back(id);
    const auto found = fake.logins.find(id);
    if (found == fake.logins.end()) {
        *credential = &fake;  // garbage that a careful caller does not keep
        return at_refused;
    }
    *credential = found->second;
    return at_ok;
}
std::uint32_t molbAtExtractInfo(void*, void*, molb_info** info) {
    fake.extracts++;
    *info = fake.extract_result == at_ok ? fake.handed_out : nullptr;
    return fake.extract_result;
}
std::uint32_t molbAtGetCredentials(void*, const molb_identity*, std::uint32_t, void***,
                                   std::int32_t*) {
    return at_not_available;
}
std::uint32_t molbAtGetDomainInfos(void*, std::uint32_t, molb_domain_info**, std::int32_t*) {
    return at_not_available;
}
std::uint32_t molbAtFree(void* block) {
    fake.freed.push_back(block);
    return at_ok;
}
std::uint32_t molbAtSecConnConnect(int, void*, std::uint32_t, void**, char**) {
    return at_channel_failed;
}
std::uint32_t molbAtSecConnAcceptWithCommExtn(void*, int, void* server_credential,
                                              std::uint32_t mode, void* params, std::uint32_t flags,
                                              std::uint32_t, void** channel,
                                              void** client_credential) {
    fake.server_credential = server_credential;
    fake.accept_mode = mode;
    fake.accept_params = params;
    fake.accept_flags = flags;
    if (fake.handshakes.empty()) {
        return at_again;
    }
    const std::uint32_t result = fake.handshakes.front();
    fake.handshakes.pop_front();
    *channel = result == at_channel_failed ? nullptr : &channel_object;
    *client_credential = fake.accept_credential;
    return result;
}
std::int32_t molbAtSecConnRead(void*, void*, std::int32_t) {
    return next_count();
}
std::int32_t molbAtSecConnWrite(void*, const void*, std::int32_t) {
    return next_count();
}
std::int32_t molbAtDataPending(void*) {
    return 0;
}
std::uint32_t molbAtSecConnClose(void** channel) {
    fake.closes++;
    *channel = nullptr;
    return at_ok;
}
