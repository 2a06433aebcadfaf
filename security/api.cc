#include "security/api.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "security/api_debug.h"
#include "security/api_monitor.h"
#include "security/api_state.h"
#include "security/at_symbols.h"

namespace {

constexpr std::array<std::string_view, 53> admin_symtab = {
    "molbAtGetAuthBrokerAttribs",
    "molbAtSetAuthBrokerAttribs",
    "molbAtGetFullyQualifiedHostName",
    "molbAtGetAttribIsDUQExchangeInstalled",
    "molbAtSetAttribIsDUQExchangeInstalled",
    "molbAtGetPDRs",
    "molbAtGetPDAttribs",
    "molbAtSetPDAttribs",
    "molbAtGetPDDomains",
    "molbAtCreatePDDomain",
    "molbAtGetPDDomainAttribs",
    "molbAtSetPDDomainAttribs",
    "molbAtDeletePDDomain",
    "molbAtGetPDPrincipals",
    "molbAtCreatePDPrincipal",
    "molbAtGetPDPrincipalAttribs",
    "molbAtSetPDPrincipalAttribs",
    "molbAtChangePassword",
    "molbAtDeletePDPrincipal",
    "molbAtFindPDDomain",
    "molbAtFindPDPrincipal",
    "molbAtGetPluginsAttribs",
    "molbAtSetPluginsAttribs",
    "molbAtGetPluginInfos",
    "molbAtFreePluginInfos",
    "molbAtAddPluginInfo",
    "molbAtFindPluginInfo",
    "molbAtFindPluginInfo1",
    "molbAtGetPluginAttribs",
    "molbAtGetPluginAttribsEx",
    "molbAtSetPluginAttribs",
    "molbAtRemovePluginInfo",
    "molbAtSetPluginAttrib",
    "molbAtGetDomainDiscoveryInterval",
    "molbAtGetRootBrokerTag",
    "molbAtSetRootBrokerTag",
    "molbAtGetAuthBrokerTag",
    "molbAtSetAuthBrokerTag",
    "molbAtGetCredFileName",
    "molbAtGetBrokerUuid",
    "molbAtExtractIssuerUuid",
    "molbAtExtractAuthPluginName",
    "molbAtToggleBrokerType",
    "molbAtQueryBrokerType",
    "molbAtGetAuthSequence",
    "molbAtSetAuthSequence",
    "molbAtDeleteAuthSequence",
    "molbAtGetRootBrokerName",
    "molbAtSetRootBrokerName",
    "molbAtGetDisableIPAcceptor",
    "molbAtSetDisableIPAcceptor",
    "molbAtGetPDRTag",
    "molbAtSetBrokerDebugLevel",
};

// What every stub does before the call: the address to call, or null. The lock covers the look-up
// alone. The call itself runs without it, so that the library may call back, and so that a slow
// call keeps no other thread waiting; only molbAtTerminate unloads, and whoever calls that last
// must see to it that no call is still running.
void* enter(int index, const char* name) {
    if (molbat_status().load_count == 0) {
        void* handle = nullptr;  // lost: a library that nobody initialised stays loaded
        (void)molbAtInit_S(nullptr, &handle, nullptr, 0, 0, 0);
    }
    run_once_init();
    const lock_result lock = monitor_read_lock(&api_mon);
    if (lock == lock_result::own_writer) {
        return nullptr;
    }
    void* address = molbat_status().loaded ? molbatGetSymbol(index, name) : nullptr;
    if (lock == lock_result::taken) {
        monitor_release(&api_mon);
    }
    if (address != nullptr) {
        debug_call(name);
    }
    return address;
}

// Part of each stub, so that arguments are passed on once.
template <class Result, class... Args>
[[gnu::always_inline]] inline Result forward(int index, const char* name, Args... args) {
    void* address = enter(index, name);
    if (address == nullptr) {
        // Positive: callers that expect a count of bytes must check it against what they offered.
        return static_cast<Result>(at_not_available);
    }
    return reinterpret_cast<Result (*)(Args...)>(address)(args...);
}

// Twelve of these reach the library whatever its own argument list is, the first in registers and
// the rest on the stack; a shorter list leaves the others alone.
using word = std::uintptr_t;

}  // namespace

int isAdminAPI(const char* name) {
    if (name == nullptr) {
        return 0;
    }
    const auto found = std::find(admin_symtab.begin(), admin_symtab.end(), std::string_view(name));
    return found != admin_symtab.end() ? 1 : 0;
}

// --- Entry points with a known signature ---
// Their types are those of at_types.h, which the default library is compiled against as well.

std::uint32_t molbAtAuthenticate(void* handle, const molb_identity* who, std::uint32_t flags,
                                 void** credential) {
    return forward<std::uint32_t>(2, "molbAtAuthenticate", handle, who, flags, credential);
}

std::uint32_t molbAtExtractInfo(void* handle, void* credential, molb_info** info) {
    return forward<std::uint32_t>(4, "molbAtExtractInfo", handle, credential, info);
}

std::uint32_t molbAtGetCredentials(void* handle, const molb_identity* who, std::uint32_t flags,
                                   void*** list, std::int32_t* count) {
    return forward<std::uint32_t>(5, "molbAtGetCredentials", handle, who, flags, list, count);
}

std::uint32_t molbAtGetDomainInfos(void* handle, std::uint32_t flags, molb_domain_info** list,
                                   std::int32_t* count) {
    return forward<std::uint32_t>(20, "molbAtGetDomainInfos", handle, flags, list, count);
}

std::uint32_t molbAtSecConnConnect(int fd, void* handle, std::uint32_t mode, void** channel,
                                   char** error) {
    return forward<std::uint32_t>(60, "molbAtSecConnConnect", fd, handle, mode, channel, error);
}

std::int32_t molbAtSecConnRead(void* channel, void* buffer, std::int32_t length) {
    return forward<std::int32_t>(62, "molbAtSecConnRead", channel, buffer, length);
}

std::int32_t molbAtSecConnWrite(void* channel, const void* data, std::int32_t length) {
    return forward<std::int32_t>(63, "molbAtSecConnWrite", channel, data, length);
}

std::int32_t molbAtDataPending(void* channel) {
    return forward<std::int32_t>(64, "molbAtDataPending", channel);
}

std::uint32_t molbAtSecConnClose(void** channel) {
    return forward<std::uint32_t>(65, "molbAtSecConnClose", channel);
}

std::uint32_t molbAtFree(void* block) {
    return forward<std::uint32_t>(91, "molbAtFree", block);
}

std::uint32_t molbAtSecConnAcceptWithCommExtn(void* handle, int fd, void* server_credential,
                                              std::uint32_t mode, void* params, std::uint32_t flags,
                                              std::uint32_t reserved, void** channel,
                                              void** client_credential) {
    return forward<std::uint32_t>(174, "molbAtSecConnAcceptWithCommExtn", handle, fd,
                                  server_credential, mode, params, flags, reserved, channel,
                                  client_credential);
}

// --- All others ---

// The compiler may turn the call into a jump and write the stack words back into the frame of a
// caller that passed fewer arguments; using the result afterwards keeps it a call.
#define MOLBAT_STUB_at_words(index, name)                                                         \
    extern "C" std::uint64_t name(word a, word b, word c, word d, word e, word f, word g, word h, \
                                  word i, word j, word k, word l);                                \
    extern "C" std::uint64_t name(word a, word b, word c, word d, word e, word f, word g, word h, \
                                  word i, word j, word k, word l) {                               \
        auto result = forward<std::uint64_t>(index, #name, a, b, c, d, e, f, g, h, i, j, k, l);   \
        asm volatile("" : "+r"(result));                                                          \
        return result;                                                                            \
    }
#define MOLBAT_STUB_at_typed(index, name)
#define MOLBAT_STUB_at_framework(index, name)
#define MOLBAT_STUB(index, name, kind) MOLBAT_STUB_##kind(index, name)

MOLBAT_ENTRY_POINTS(MOLBAT_STUB)
