#include "tests/core/library_double.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "security/api.h"

library_double library;

namespace {

std::string text_of(const char* text) {
    return text != nullptr ? text : "(null)";
}

void* new_block(std::size_t size) {
    void* block = std::calloc(1, size);
    library.blocks.insert(block);
    return block;
}

void* new_instance() {
    void* instance = std::malloc(1);
    library.instances.insert(instance);
    return instance;
}

}  // namespace

std::uint32_t molbatLibraryControl(const char*, void*) {
    return at_not_available;
}
void* molbatGetSymbol(int, const char*) {
    return &library;
}
std::uint32_t molbAtInit(const molb_version*, void** handle) {
    *handle = library.init_result == at_ok ? new_instance() : nullptr;
    return library.init_result;
}
std::uint32_t molbAtInitEx(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t, std::uintptr_t, std::uintptr_t) {
    library.data_dirs.push_back(text_of(init->data_dir));
    return molbAtInit(version, handle);
}
std::uint32_t molbAtTerminate(void* handle) {
    if (library.instances.erase(handle) == 0) {
        return at_invalid_argument;
    }
    std::free(handle);
    return at_ok;
}
std::uint32_t molbAtAuthenticate(void*, const molb_identity* who, std::uint32_t,
                                 void** credential) {
    const bool service = std::strcmp(who->host, "localhost") == 0 && who->domain == nullptr &&
                         who->name == nullptr && who->password == nullptr;
    *credential = nullptr;
    if (!service || library.authenticate_result != at_ok) {
        return at_refused;
    }
    *credential = new_block(1);
    return at_ok;
}
std::uint32_t molbAtExtractInfo(void*, void*, molb_info**) {
    return at_not_available;
}
std::uint32_t molbAtGetCredentials(void*, const molb_identity* who, std::uint32_t, void*** list,
                                   std::int32_t* count) {
    library.asked.push_back(text_of(who->host) + "|" + text_of(who->domain) + "|" +
                            text_of(who->name));
    if (library.credentials < 0) {
        return at_not_available;
    }
    *count = library.credentials;
    *list = static_cast<void**>(new_block(sizeof(void*) * 8));
    for (int i = 0; i < *count; ++i) {
        (*list)[i] = new_block(1);
    }
    return at_ok;
}
std::uint32_t molbAtGetDomainInfos(void*, std::uint32_t, molb_domain_info** list,
                                   std::int32_t* count) {
    *count = static_cast<std::int32_t>(library.domains.size());
    *list = static_cast<molb_domain_info*>(new_block(sizeof(molb_domain_info) * 8));
    for (std::size_t i = 0; i < library.domains.size(); ++i) {
        (*list)[i].name = library.domains[i].data();
    }
    return at_ok;
}
std::uint32_t molbAtFree(void* block) {
    if (block != nullptr && library.blocks.erase(block) == 0) {
        std::abort();  // freed twice, or never handed out
    }
    std::free(block);
    return at_ok;
}
std::uint32_t molbAtSecConnConnect(int, void*, std::uint32_t, void**, char**) {
    return at_channel_failed;
}
std::uint32_t molbAtSecConnAcceptWithCommExtn(void*, int, void*, std::uint32_t, void*,
                                              std::uint32_t, std::uint32_t, void**, void**) {
    return at_channel_failed;
}
std::int32_t molbAtSecConnRead(void*, void*, std::int32_t) {
    errno = EAGAIN;
    return -1;
}
std::int32_t molbAtSecConnWrite(void*, const void*, std::int32_t) {
    errno = EAGAIN;
    return -1;
}
std::int32_t molbAtDataPending(void*) {
    return 0;
}
std::uint32_t molbAtSecConnClose(void**) {
    return at_ok;
}
