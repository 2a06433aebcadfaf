#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "security/api.h"
#include "security/api_debug.h"
#include "security/api_monitor.h"
#include "security/api_state.h"
#include "security/at_osf.h"
#include "security/at_symbols.h"

namespace {

constexpr const char* library_template = "/opt/MOLBat/lib//libmolbat4L_t.so";
constexpr std::size_t path_bytes_max = 2048;
constexpr int tolerated_symbols = 100;  // a library that has more of them may lack newer ones

// Addresses are read without the lock by calls of other threads while one is being resolved.
struct symbol_row {
    const char* name;
    std::atomic<void*> address{nullptr};
};

#define MOLBAT_ROW(index, name, kind) {#name},
std::array<symbol_row, api_index_max + 2> symtab = {{MOLBAT_ENTRY_POINTS(MOLBAT_ROW){nullptr}}};
#undef MOLBAT_ROW

// A row's place in the list is its index: nothing may be missing, doubled or out of order.
constexpr bool rows_in_order() {
#define MOLBAT_INDEX(index, name, kind) index,
    constexpr std::array indices = {MOLBAT_ENTRY_POINTS(MOLBAT_INDEX)};
#undef MOLBAT_INDEX
    for (std::size_t i = 0; i < indices.size(); ++i) {
        if (indices[i] != static_cast<int>(i)) {
            return false;
        }
    }
    return indices.size() == api_index_max + 1;
}
static_assert(rows_in_order());

// What an interface version promises: every symbol up to its highest index.
struct api_version {
    int major;
    int minor;
    int highest_index;
};

constexpr std::array<api_version, 7> static_apitab = {{
    {4, 1, 100},
    {4, 2, 103},
    {4, 3, 111},
    {4, 4, 116},
    {5, 0, 130},
    {5, 1, 134},
    {6, 0, 174},
}};

using control_function = std::uint32_t (*)(const char*, void*);

// Written under the write lock only. Stubs look at the atomic members before they take theirs.
struct loader_state {
    std::atomic<void*> handle{nullptr};
    void* admin_handle = nullptr;           // cleared on unload, never set
    control_function autoloader = nullptr;  // stays known after an unload, with its open file
    std::atomic<int> load_count{0};
    std::atomic<int> highest{-1};    // resolved in bulk; later symbols may be known one by one
    char* g_zel_home_dir = nullptr;  // owned; the first home given, until the unload
};

loader_state state;
pthread_once_t api_once = PTHREAD_ONCE_INIT;

std::FILE* debug_stream = nullptr;
int debug_level_wanted = 0;

const char* last_dl_error() {
    const char* text = dlerror();
    return text != nullptr ? text : "";
}

bool is_set(const char* text) {
    return text != nullptr && *text != '\0';
}

const api_version* find_version(int major, int minor) {
    for (const api_version& row : static_apitab) {
        if (row.major == major && row.minor == minor) {
            return &row;
        }
    }
    return nullptr;
}

// Turns any version into a listed one. The minors listed for a major are contiguous.
// Kept: a minor below the listed ones goes up to the largest, so 4.0 wants the symbols of 4.4.
void truncate_version(molb_version* version) {
    if (version->major < static_apitab.front().major ||
        version->major > static_apitab.back().major) {
        debug(2, "autoloader 'Load'; unknown major version %d; truncating to %d\n", version->major,
              static_apitab.back().major);
        version->major = static_apitab.back().major;
    }
    int largest = -1;
    for (const api_version& row : static_apitab) {
        largest = row.major == version->major ? row.minor : largest;
    }
    if (find_version(version->major, version->minor) == nullptr) {
        debug(2, "autoloader 'Load'; unknown minor version %d; truncating to %d\n", version->minor,
              largest);
        version->minor = largest;
    }
}

// A library without the newest symbols is good enough for a caller that asks for no version: stubs
// of missing ones answer that they are not available.
bool tolerable(std::uint32_t result, const molb_version* version) {
    return result == at_not_available && version == nullptr &&
           state.highest + 1 > tolerated_symbols;
}

// For a library that is loaded: resolves what a newer version wants beyond what is known.
std::uint32_t load_more(const molb_version* version, int wanted) {
    std::uint32_t result = at_ok;
    if (wanted > state.highest) {
        result = molbatLoadSymbols(state.handle, state.highest + 1, wanted);
        if (tolerable(result, version)) {
            result = at_ok;
        }
    }
    if (result == at_ok) {
        ++state.load_count;
        debug(2, "molbatLibraryLoad: load count now %d\n", state.load_count.load());
        debug(2, "molbatLibraryLoad: current symbol count %d\n", state.highest + 1);
    }
    return result;
}

// Opens the library's file and finds its loader entry; both stay known after an unload.
std::uint32_t find_autoloader(const molb_init* settings) {
    if (state.autoloader != nullptr) {
        return at_ok;
    }
    molbat_load_problem.clear();
    std::array<char, path_bytes_max> path{};
    std::uint32_t error = at_ok;
    if (tpk_method_make_path_ex(0, library_template, settings, path.size(), path.data(), &error) ==
        0) {
        debug(1, "make_path(%s): %d\n", library_template, static_cast<int>(error));
        return error;
    }
    debug(3, "molbatLibraryLoad: loading %s\n", path.data());
    void* file = dlopen(path.data(), RTLD_NOW | RTLD_GLOBAL);
    if (file == nullptr) {
        molbat_load_problem = last_dl_error();  // it begins with the path
        debug(1, "dlopen(%s) failed: %s\n", path.data(), molbat_load_problem.c_str());
        return at_not_available;
    }
    void* entry = dlsym(file, "molbatLibraryControl");
    if (entry == nullptr) {
        molbat_load_problem = last_dl_error();
        debug(1, "dlsym(%s) failed: %s\n", "molbatLibraryControl", molbat_load_problem.c_str());
        (void)dlclose(file);  // some other library stands there, and the next call looks again
        return at_not_available;
    }
    state.autoloader = reinterpret_cast<control_function>(entry);
    return at_ok;
}

// Has the library load its interface. From here on there is a handle to give back, so the count is
// raised at once: whatever fails next ends in the ordinary unload.
std::uint32_t call_autoloader(const molb_init* settings) {
    debug(3, "molbatLibraryLoad: calling autoloader 'Load'\n");
    char* command = makeLoadCmd(settings);
    if (command == nullptr) {
        return at_no_memory;
    }
    void* handle = nullptr;
    const std::uint32_t result = state.autoloader(command, static_cast<void*>(&handle));
    std::free(command);
    if (result != at_ok || handle == nullptr) {
        debug(1, "autoloader 'Load' failed: %d\n", static_cast<int>(result));
        return result != at_ok ? result : std::uint32_t{at_not_available};
    }
    state.handle = handle;
    state.load_count = 1;
    return at_ok;
}

std::uint32_t first_load(const molb_version* version, const molb_version& used, int wanted,
                         const molb_init* settings) {
    std::uint32_t result = find_autoloader(settings);
    if (result == at_ok) {
        result = call_autoloader(settings);
    }
    if (result != at_ok) {
        return result;
    }
    debug(3, "molbatLibraryLoad: Loading API version %d.%d\n", used.major, used.minor);
    result = molbatLoadSymbols(state.handle, 0, wanted);
    if (result != at_ok && !tolerable(result, version)) {
        molbatLibraryUnload();
        return result;
    }
    return at_ok;
}

// Kept: the first home directory stays until the library is unloaded; an instance that names
// another one is started with the first.
void remember_home(const molb_init* init) {
    if (state.g_zel_home_dir != nullptr) {
        return;
    }
    const char* home = init != nullptr ? init->home : nullptr;
    if (!is_set(home)) {
        home = std::getenv("ZEL_HOME_DIR");
    }
    state.g_zel_home_dir = is_set(home) ? strdup(home) : nullptr;
}

// Starts an instance, the older way where the library knows no other. It gets the caller's own
// version, not the truncated one.
std::uint32_t call_library_init(const molb_version* version, void** handle,
                                const molb_init& settings, std::uintptr_t a, std::uintptr_t b,
                                std::uintptr_t c) {
    if (void* address = molbatGetSymbol(170, "molbAtInitEx"); address != nullptr) {
        debug_call("molbAtInitEx");
        return reinterpret_cast<decltype(&molbAtInitEx)>(address)(version, handle, &settings, a, b,
                                                                  c);
    }
    if (void* address = molbatGetSymbol(0, "molbAtInit"); address != nullptr) {
        debug_call("molbAtInit");
        return reinterpret_cast<decltype(&molbAtInit)>(address)(version, handle);
    }
    return at_not_available;
}

// Finds one symbol and remembers its address. Two threads may both look: they find the same.
std::uint32_t resolve(void* library, int index) {
    symbol_row& row = symtab[static_cast<std::size_t>(index)];
    void* address = dlsym(library, row.name);
    if (address == nullptr) {
        debug(1, "dlsym(%s) failed: %s\n", row.name, last_dl_error());
        return at_not_available;
    }
    (void)pthread_mutex_lock(&api_mon.mutex);
    row.address = address;
    (void)pthread_mutex_unlock(&api_mon.mutex);
    debug(4, "symbol %d (%s) => 0x%x\n", index, row.name,
          static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address)));
    return at_ok;
}

}  // namespace

void debug_configure() {
    const char* level = std::getenv("MOLBat_API_DEBUG_LEVEL");
    debug_level_wanted = level != nullptr ? static_cast<int>(std::strtol(level, nullptr, 10)) : 0;
    // Under inetd this is the client's socket: MOLBat_API_DEBUG_FILE is for that.
    debug_stream = stdout;
    const char* file = std::getenv("MOLBat_API_DEBUG_FILE");
    if (debug_level_wanted != 0 && file != nullptr) {
        std::FILE* opened = nullptr;
        if (at_os_fopen_nr(file, "ab", &opened) == 0) {
            debug_stream = opened;
        }
    }
}

void debug(debug_level level, const char* format, ...) {
    if (debug_level_wanted < level.level || debug_stream == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    flockfile(debug_stream);  // one message, one line, whatever other threads write
    (void)std::fprintf(debug_stream, "api(%d) ", level.line);
    (void)std::vfprintf(debug_stream, format, args);
    (void)std::fflush(debug_stream);  // the next call may be the one that crashes
    funlockfile(debug_stream);
    va_end(args);
}

void debug_call(const char* name) {
    if (debug_level_wanted >= 4 && debug_stream != nullptr) {
        (void)std::fprintf(debug_stream, "Calling %s\n", name);
        (void)std::fflush(debug_stream);
    }
}

void molbatOnceInit() {
    debug_configure();
    at_check(api_mon.m_initialized == TPK_False, "(&api_mon)->m_initialized == TPK_False");
    monitor_init(&api_mon);
}

void run_once_init() {
    (void)pthread_once(&api_once, molbatOnceInit);
}

api_status molbat_status() {
    return {.load_count = state.load_count,
            .highest = state.highest,
            .loaded = state.handle.load() != nullptr};
}

char* makeLoadCmd(const molb_init* settings) {
    std::string command = "Load";
    if (settings != nullptr) {
        command += "|";
        command += settings->home != nullptr ? settings->home : "";
        if (is_set(settings->library_path)) {
            command += "|";
            command += settings->library_path;
        }
    }
    return strdup(command.c_str());
}

int molbat_negotiate(const molb_version* version, molb_version* used) {
    *used = {.major = static_apitab.back().major, .minor = static_apitab.back().minor};
    if (version == nullptr) {
        return api_index_max;
    }
    *used = *version;
    truncate_version(used);
    const api_version* row = find_version(used->major, used->minor);
    if (row == nullptr) {  // unreachable while the minors of each major have no gap
        debug(2, "autoloader 'Load'; unknown version %d.%d; allowed upto %d.%d\n", used->major,
              used->minor, static_apitab.back().major, static_apitab.back().minor);
        return -1;
    }
    return row->highest_index;
}

// For commands to the library that was loaded first; loading and unloading are done above.
std::uint32_t molbatLibraryControl(const char* command, void* arg) {
    return state.autoloader != nullptr ? state.autoloader(command, arg)
                                       : std::uint32_t{at_not_available};
}

void* molbatGetSymbol(int index, const char* name) {
    if (index < 0 || index > api_index_max) {
        return nullptr;
    }
    symbol_row& row = symtab[static_cast<std::size_t>(index)];
    if (void* known = row.address; known != nullptr) {
        return known;
    }
    if (std::strcmp(name, row.name) != 0 || state.handle == nullptr) {
        return nullptr;
    }
    return resolve(state.handle, index) == at_ok ? row.address.load() : nullptr;
}

std::uint32_t molbatLoadSymbols(void* handle, int first, int last) {
    if (first < 0 || last > api_index_max || first > last) {
        debug(1, "molbatLoadSymbols; Error : invalid range %d..%d; max allowed %d\n", first, last,
              api_index_max);
        return at_invalid_argument;
    }
    if (handle == nullptr) {
        debug(1, "molbatLoadSymbols: Error : Invalid API DLL handle !!!!\n");
        return at_invalid_argument;
    }
    std::uint32_t result = at_ok;
    for (int index = first; index <= last && result == at_ok; ++index) {
        symbol_row& row = symtab[static_cast<std::size_t>(index)];
        if (row.address == nullptr) {
            result = resolve(handle, index);
        }
        if (result == at_ok) {
            state.highest = std::max(index, state.highest.load());
        }
    }
    debug(2, "molbatLoadSymbols: rc %d; current max api index %d\n", static_cast<int>(result),
          state.highest.load());
    return result;
}

std::uint32_t molbatLibraryLoad(const molb_version* version, const molb_init* settings) {
    molb_init completed{};
    if (settings != nullptr) {
        completed = *settings;
        if (!is_set(completed.home)) {
            completed.home = state.g_zel_home_dir;
        }
        settings = &completed;
    }
    molb_version used{};
    const int wanted = molbat_negotiate(version, &used);
    if (wanted < 0) {
        return at_invalid_argument;
    }
    return state.load_count > 0 ? load_more(version, wanted)
                                : first_load(version, used, wanted, settings);
}

void molbatLibraryUnload() {
    if (state.load_count > 1) {
        --state.load_count;
        debug(2, "molbatLibraryUnload: load count now %d\n", state.load_count.load());
        return;
    }
    if (state.load_count == 1) {
        state.load_count = 0;
        debug(1, "molbatLibraryUnload: unloading the API DLL\n");
        (void)state.autoloader("Unload", state.handle);
    }
    debug(1, "molbatLibraryUnload: destroying the symbol table\n");
    // Also when the count was 0 already: nothing half known stays.
    state.handle = nullptr;
    state.admin_handle = nullptr;
    state.highest = -1;
    for (symbol_row& row : symtab) {
        row.address = nullptr;
    }
    std::free(state.g_zel_home_dir);
    state.g_zel_home_dir = nullptr;
}

std::uint32_t molbAtInit_S(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t a, std::uintptr_t b, std::uintptr_t c) {
    if (handle != nullptr) {
        *handle = nullptr;
    }
    run_once_init();
    const write_lock_guard lock(&api_mon);
    if (lock.refused()) {
        return at_not_available;
    }
    debug(1, "AtInit version {%d,%d}\n", version != nullptr ? version->major : 0,
          version != nullptr ? version->minor : 0);
    remember_home(init);
    molb_init settings = init != nullptr ? *init : molb_init{};
    settings.home = state.g_zel_home_dir;
    // The library is looked for where this record says only when it names a home; its instance gets
    // the completed record in any case.
    const bool has_home = init != nullptr && is_set(init->home);
    std::uint32_t result = molbatLibraryLoad(version, has_home ? &settings : nullptr);
    if (result != at_ok) {
        debug(1, "molbAtInit(S): load failed %d\n", static_cast<int>(result));
        return result;
    }
    result = call_library_init(version, handle, settings, a, b, c);
    if (result != at_ok) {
        molbatLibraryUnload();
        debug(1, "molbAtInit(S): initialize failed %d\n", static_cast<int>(result));
    }
    return result;
}

std::uint32_t molbAtInit(const molb_version* version, void** handle) {
    return molbAtInit_S(version, handle, nullptr, 0, 0, 0);
}

std::uint32_t molbAtInitEx(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t a, std::uintptr_t b, std::uintptr_t c) {
    return molbAtInit_S(version, handle, init, a, b, c);
}

std::uint32_t molbAtTerminate(void* handle) {
    if (handle == nullptr) {
        return at_ok;
    }
    run_once_init();
    const write_lock_guard lock(&api_mon);
    if (lock.refused() || state.handle == nullptr) {
        return at_not_available;
    }
    if (void* address = molbatGetSymbol(1, "molbAtTerminate"); address != nullptr) {
        const std::uint32_t result = reinterpret_cast<decltype(&molbAtTerminate)>(address)(handle);
        if (result != at_ok) {
            debug(1, "molbAtTerminate(S): uninitialize failed %d\n", static_cast<int>(result));
        }
    }
    molbatLibraryUnload();
    return at_ok;
}
