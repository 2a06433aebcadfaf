// A library with every entry point, loadable by the shim, that records how it was called.
#include "tests/shim/fake_library.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "security/at_symbols.h"

#define EXPORTED __attribute__((visibility("default")))

extern "C" {
// In the block that threads start with: for one that is made later, LeakSanitizer guesses where it
// lies from its address, and crashes when that happens to be 16 bytes into a page.
EXPORTED thread_local fake_call fake_last __attribute__((tls_model("initial-exec"))){};
EXPORTED std::uint64_t fake_result = 0;
EXPORTED char fake_command[256] = "";
EXPORTED void (*fake_on_control)() = nullptr;
EXPORTED int fake_loads = 0;
EXPORTED int fake_unloads = 0;
}

namespace {

using word = std::uintptr_t;

std::uint64_t record(int index, const word (&arguments)[12]) {
    fake_last.index = index;
    ++fake_last.count;
    std::memcpy(fake_last.arguments, arguments, sizeof(arguments));
    return fake_result;
}

}  // namespace

#define FAKE_ENTRY(index, name, kind)                                                              \
    extern "C" EXPORTED std::uint64_t name(word a, word b, word c, word d, word e, word f, word g, \
                                           word h, word i, word j, word k, word l);                \
    extern "C" EXPORTED std::uint64_t name(word a, word b, word c, word d, word e, word f, word g, \
                                           word h, word i, word j, word k, word l) {               \
        return record(index, {a, b, c, d, e, f, g, h, i, j, k, l});                                \
    }

MOLBAT_ENTRY_POINTS(FAKE_ENTRY)

extern "C" EXPORTED std::uint32_t molbatLibraryControl(const char* command, void* arg);

std::uint32_t molbatLibraryControl(const char* command, void* arg) {
    if (fake_on_control != nullptr) {
        fake_on_control();
    }
    std::strncpy(fake_command, command, sizeof(fake_command) - 1);
    if (std::strcmp(command, "Log") == 0) {
        fake_last.arguments[0] = reinterpret_cast<word>(arg);
        return 24578;
    }
    if (std::strncmp(command, "Load", 4) != 0) {
        ++fake_unloads;
        return static_cast<std::uint32_t>(dlclose(arg));
    }
    ++fake_loads;
    const char* failure = std::getenv("FAKE_LOAD_RESULT");
    if (failure != nullptr) {
        return static_cast<std::uint32_t>(std::atoi(failure));  // 0: success without a handle
    }
    Dl_info self{};
    dladdr(reinterpret_cast<void*>(&molbatLibraryControl), &self);
    *static_cast<void**>(arg) = dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD);
    return 0;
}
