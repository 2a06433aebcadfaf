// Access files: who holds a role in a namespace, as text on disk and as two sets in memory.
//
// A file holds one principal a line, "NAME:user" or "NAME:group". A row is the memory of one file;
// it is loaded when it is first needed and again whenever the file's modification time differs from
// the remembered one. Runs on the main loop's thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "core/fwd.h"
#include "lib/odd_lines.h"

// What a principal is; the values are those that callers of assert_role pass.
enum principal_kind : int { kind_group = 0, kind_user = 1 };

// One role of one namespace. The sets own their texts and are null until the first load.
struct role_entry {
    std::int32_t modified = 0;        // of the loaded file, seconds; 0: missing or never read
    const char* directory = nullptr;  // the role's name; null in the row that ends a table
    qz_map* groups = nullptr;
    qz_map* users = nullptr;
    bool current = false;     // until the file's time is another one; else it is read again
    bool unreadable = false;  // the file exists but was not loaded whole: it must not be replaced
    bool reported = false;    // and that was logged
    bool owed = false;        // the sets have changed and the file could not be written
    int told_error = 0;       // why it could not be written, as far as that was told
    std::string strays;       // lines of the loaded file that the next write drops
    line_numbers stray_numbers;    // where they stand
    std::int64_t loaded_ns = 0;    // the loaded file's time in nanoseconds
    std::int64_t strays_told = 0;  // the one whose strays were told
};

// Orders a probe against a stored principal, ignoring case, over the length of the probe.
// Kept: a stored "*" equals every probe that reaches it, and a stored name that begins with the
// probe equals it, so "al" holds what "alice" was granted.
int cmp_str(const void* probe, const void* stored);

// Inserts a copy of `name`. False: the set regards it as present, and it was not inserted.
bool add_principal(qz_map* set, std::string_view name);

qz_map* principals(const role_entry* row, int kind);

// Adds the principals of an open file to the row's sets and its other lines to the strays, among
// them those whose name the set takes for another one. Lines without a name, without a type or of
// another type name nobody; a line of 256 bytes or more counts as several. Returns false when the
// file can't stand for the row: reading failed, or there are stray lines without a single
// principal, or more than 64 KiB of them. Requires: both sets exist.
bool read_access_file(std::FILE* file, role_entry* row);

// Brings the row up to date with the file at `path`, which may be empty: no file. Returns true when
// the sets were rebuilt from nothing and the file, and false when they were current. A file that
// was written in the second in which it was read may change again without its time changing, so it
// is read again by the next call.
bool refresh_row(const std::string& path, role_entry* row);

// The file's content for the row's sets: users, then groups, in set order, without the built-in
// administrators.
// Kept: every name that begins with the administrator's is taken for a built-in one.
std::string access_file_text(const role_entry* row);

// Frees both sets and forgets the file.
void clear_row(role_entry* row);
