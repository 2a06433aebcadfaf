// The shim in front of the authentication library: loads it on first use, resolves its symbols and
// forwards calls.
//
// Every entry point of the library exists under its own name; the ones the daemon uses are declared
// in at_types.h, the others forward twelve machine words (no floating point, no structures by
// value) and return a 64-bit word. A call returns 24598 when the library can't be loaded or lacks
// the symbol. The stubs are hidden symbols: a library that calls its own functions must not land
// here. Should it do so while it is being loaded, initialised or unloaded, the call is refused with
// 24598, since the thread holds the lock that the call would wait for. No stub may be called after
// the last molbAtTerminate: it would load the library again.
#pragma once

#include <cstddef>
#include <cstdint>

#include "security/at_types.h"
#include "security/tpk_make_path.h"

inline constexpr int api_index_max = 174;

// What the loader knows; `highest` is the highest symbol index resolved in bulk, -1 for none.
struct api_status {
    int load_count;
    int highest;
    bool loaded;
};

// A snapshot for tests and diagnosis.
api_status molbat_status();

// Reads the debug settings and builds the monitor; run once through pthread_once.
void molbatOnceInit();

// molbAtInit and molbAtInitEx with every argument: loads the library under the write lock and
// calls its initialisation.
std::uint32_t molbAtInit_S(const molb_version* version, void** handle, const molb_init* init,
                           std::uintptr_t a, std::uintptr_t b, std::uintptr_t c);

// Loads the library, or raises the load count. `version` and `settings` may be null. Requires, as
// the next two: the write lock is held, or there is one thread.
std::uint32_t molbatLibraryLoad(const molb_version* version, const molb_init* settings);
// Lowers the load count; the last call unloads and forgets every symbol.
void molbatLibraryUnload();

// Resolves the symbols first..last; stops at the first that is missing.
std::uint32_t molbatLoadSymbols(void* handle, int first, int last);
// The address of one entry point, or null; from any thread. `name` must be the table's name at
// `index`.
void* molbatGetSymbol(int index, const char* name);

// "Load", "Load|HOME" or "Load|HOME|LIBRARY_PATH" as a new text (free); null without memory.
char* makeLoadCmd(const molb_init* settings);

// 1 when the name is one of the administrative entry points, else 0.
int isAdminAPI(const char* name);

// The highest symbol index of an interface version after truncation to a known one, -1 when there
// is none. *used is the version taken. A null version wants all symbols.
int molbat_negotiate(const molb_version* version, molb_version* used);
