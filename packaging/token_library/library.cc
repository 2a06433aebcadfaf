// A small authentication library for dovmad: everybody who knows the token of the environment
// variable DOVMAD_TOKEN is the user "token". Connections are plain: for a loopback port, or behind
// something that encrypts. See dovmad-library(3).
#include <dlfcn.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "security/at_types.h"

namespace {

constexpr const char* domain_name = "token";

// What the daemon gets are plain blocks of malloc, so that molbAtFree needs to know no types.
struct credential {
    char name[16];
};

std::uint32_t new_credential(const char* name, void** result) {
    auto* made = static_cast<credential*>(std::calloc(1, sizeof(credential)));
    if (made == nullptr) {
        return at_no_memory;
    }
    std::strncpy(made->name, name, sizeof made->name - 1);
    *result = made;
    return at_ok;
}

// Compares everything, whatever the first difference: the time tells nothing.
bool same_secret(std::string_view a, std::string_view b) {
    unsigned difference = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned>(a[i] ^ (i < b.size() ? b[i] : '\0'));
    }
    return difference == 0;
}

char* copy_to(char** room, const char* text) {
    char* start = *room;
    *room = stpcpy(start, text) + 1;
    return start;
}

}  // namespace

extern "C" {

// The daemon asks for the library's handle here, and looks the 175 names up in it.
std::uint32_t molbatLibraryControl(const char* command, void* arg) {
    if (std::strcmp(command, "Unload") == 0) {
        (void)dlclose(arg);
        return at_ok;
    }
    Dl_info own{};
    if (std::strncmp(command, "Load", 4) != 0 ||
        dladdr(reinterpret_cast<void*>(&molbatLibraryControl), &own) == 0) {
        return at_invalid_argument;  // also "Log" and "Peer", which the daemon can do without
    }
    *static_cast<void**>(arg) = dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    return *static_cast<void**>(arg) != nullptr ? at_ok : at_not_available;
}

std::uint32_t molbAtInitEx(const molb_version* /*version*/, void** handle,
                           const molb_init* /*init*/, std::uintptr_t /*a*/, std::uintptr_t /*b*/,
                           std::uintptr_t /*c*/) {
    static int only_instance;
    *handle = &only_instance;
    return std::getenv("DOVMAD_TOKEN") != nullptr ? at_ok : at_file_error;
}

// The service itself asks with three null pointers; everybody else brings a name and a password.
std::uint32_t molbAtAuthenticate(void* /*handle*/, const molb_identity* who,
                                 std::uint32_t /*flags*/, void** result) {
    if (who->name == nullptr && who->password == nullptr) {
        return new_credential("service", result);
    }
    const char* token = std::getenv("DOVMAD_TOKEN");
    const char* password = who->password != nullptr ? who->password : "";
    const bool good = token != nullptr && same_secret(password, token);
    return good ? new_credential("token", result) : std::uint32_t{at_refused};
}

std::uint32_t molbAtExtractInfo(void* /*handle*/, void* of, molb_info** info) {
    const char* name = static_cast<credential*>(of)->name;
    auto* made = static_cast<molb_info*>(std::calloc(1, sizeof(molb_info) + 64));
    if (made == nullptr) {
        return at_no_memory;
    }
    char* room = reinterpret_cast<char*>(made + 1);
    made->qualifier = copy_to(&room, "local");
    made->domain = copy_to(&room, domain_name);
    made->name = copy_to(&room, name);
    *info = made;
    return at_ok;
}

std::uint32_t molbAtGetDomainInfos(void* /*handle*/, std::uint32_t /*flags*/,
                                   molb_domain_info** list, std::int32_t* count) {
    auto* made = static_cast<molb_domain_info*>(std::calloc(1, sizeof(molb_domain_info) + 64));
    if (made == nullptr) {
        return at_no_memory;
    }
    char* room = reinterpret_cast<char*>(made + 1);
    made->kind = copy_to(&room, "token");
    made->name = copy_to(&room, domain_name);
    *list = made;
    *count = 1;
    return at_ok;
}

std::uint32_t molbAtFree(void* block) {
    std::free(block);
    return at_ok;
}

// A channel is the descriptor itself, as a block: there is no handshake.
std::uint32_t molbAtSecConnAcceptWithCommExtn(void* /*handle*/, int fd, void* /*server*/,
                                              std::uint32_t /*mode*/, void* /*params*/,
                                              std::uint32_t /*flags*/, std::uint32_t /*reserved*/,
                                              void** channel, void** client) {
    auto* made = static_cast<int*>(std::malloc(sizeof(int)));
    if (made == nullptr) {
        return at_no_memory;
    }
    *made = fd;
    *channel = made;
    *client = nullptr;
    return at_no_credential;
}

std::int32_t molbAtSecConnRead(void* channel, void* buffer, std::int32_t length) {
    return static_cast<std::int32_t>(
        recv(*static_cast<int*>(channel), buffer, static_cast<std::size_t>(length), 0));
}

std::int32_t molbAtSecConnWrite(void* channel, const void* data, std::int32_t length) {
    return static_cast<std::int32_t>(
        send(*static_cast<int*>(channel), data, static_cast<std::size_t>(length), MSG_NOSIGNAL));
}

std::uint32_t molbAtSecConnClose(void** channel) {
    std::free(*channel);
    *channel = nullptr;
    return at_ok;
}

}  // extern "C"
