// The INI store: a sectioned key/value file that several processes may share.
//
//     [section]
//     key = value;
//     other = "a value with blanks";
//
// Reads are answered from memory, after re-reading the file when its modification time (whole
// seconds) has changed; every change rewrites the whole file through PATH.tmp and a rename. All
// operations of the process are serialised by one recursive lock. A handle may be used from several
// threads; each open handle is closed once.
//
// Results: 0, 2 not found, 6 syntax error, 7 the file exists but cannot be read, 8 the temporary
// file cannot be created, -1 writing or renaming it failed (the old file stands, memory has the new
// value).
//
// Kept: nothing is escaped on writing. Keys and section names with blanks, and texts with quotes,
// ";", "[", "]" or line breaks, are written as they are and make the next read fail with 6.
#pragma once

#include <cstdio>
#include <ctime>
#include <memory>

#include "lib/kv.h"
#include "lib/qz_vector.h"
#include "lib/rbtree.h"

struct parse_handle;

enum class parse_op {
    open,
    get,
    put,
    enum_keys,
    enum_sections,
    delete_key,
    delete_section,
    close,
};

// What a hook is told: the operation and its arguments, null where it has none.
struct parse_call {
    parse_op op = parse_op::open;
    parse_handle* handle = nullptr;  // null for open, and in the leave call of close
    const char* path = nullptr;      // open only
    const char* section = nullptr;
    const char* key = nullptr;
    const char* value = nullptr;
};

// Called around every public operation: enter before the lock is taken, leave just before it is
// released. Either may be null. An open that fails while parsing runs the pair twice, nested: the
// half-built store is closed in between.
struct parse_hooks {
    void (*enter)(const parse_call*);
    void (*leave)(const parse_call*);
};

// The operations of a handle, for callers that go through the table.
struct parse_ops {
    int (*get)(parse_handle*, const char* section, const char* key, char** value);
    int (*put)(parse_handle*, const char* section, const char* key, const char* value);
    int (*enum_keys)(parse_handle*, const char* section, qz_vector** keys);
    int (*enum_sections)(parse_handle*, qz_vector** sections);
    int (*delete_key)(parse_handle*, const char* section, const char* key);
    int (*delete_section)(parse_handle*, const char* section);
    int (*close)(parse_handle*);
};

struct parse_handle {
    qz_map* sections;  // section name -> propset of string entries, both owned
    parse_hooks hooks;
    const char* current_section;  // while parsing only
    char* path;
    time_t modified;  // the file's time when it was last read or written, seconds
    const parse_ops* ops;
};

// Creates the store lock; 0. May be called any number of times, and happens by itself at first use.
int conf_parse_init() noexcept;

// Enter and leave the store lock: several operations as one. Return the pthread result.
int parser_lock() noexcept;
int parser_unlock() noexcept;

// The modification time of `path` in seconds; the current time when it cannot be looked up, so that
// a missing file looks changed in every new second.
time_t get_m_time(const char* path) noexcept;

// Opens a store and stores it in `*handle`; 0, 6 or 7 (then `*handle` is untouched). A missing file
// is an empty store. `hooks` is copied; null means none.
int parse_open(const char* path, const parse_hooks* hooks, parse_handle** handle) noexcept;

// Stores a copy of the value in `*value` (free with qzfree); on any result but 0 it is untouched.
int parse_get(parse_handle* handle, const char* section, const char* key, char** value) noexcept;

// Sets a value, creating section and key as needed, and rewrites the file.
int parse_put(parse_handle* handle, const char* section, const char* key,
              const char* value) noexcept;

// Store a new vector of owned copies in byte order (free with qz_vector_destroy); on any result but
// 0 it is untouched.
int parse_enum_keys(parse_handle* handle, const char* section, qz_vector** keys) noexcept;
int parse_enum_sections(parse_handle* handle, qz_vector** sections) noexcept;

// The names of the domains in a domain list: the keys of section [domains] when there is one, else
// the names of all sections. As the enumerations above.
int parse_enum_domains(parse_handle* handle, qz_vector** names) noexcept;

// Deletes a key and rewrites the file. Kept: a missing section or key gives 0 and writes nothing.
int parse_delete_key(parse_handle* handle, const char* section, const char* key) noexcept;

// Deletes a section with all its keys and rewrites the file; 2 when absent.
int parse_delete_section(parse_handle* handle, const char* section) noexcept;

// Frees the store; the result of the unlock. 5 for null.
int parse_close(parse_handle* handle) noexcept;

// --- Called by the parser and the store itself, under the lock ---

// Begins a section; 0 (the store owns `name` now), or 1 when it exists (the caller keeps it).
int start_section(parse_handle* handle, char* name) noexcept;

// Adds a statement to the current section and frees key and value in every case; 0, 1 when the key
// exists.
int add_statement(parse_handle* handle, char* key, char* value) noexcept;

// Adds a string entry with copies of both texts; 0, or ps_add's refusal.
int insert_statement(propset* set, const char* key, const char* value) noexcept;

// Re-reads the file when its time has changed. On failure the contents stay and the result is 6
// or 7.
int p_sync(parse_handle* handle) noexcept;

// Writes the file; 0, 8 or -1.
int p_write(parse_handle* handle) noexcept;

// Writes "[name]", one line per statement and an empty line; 0, or -1 when the stream has an error.
int write_section(FILE* file, const char* name, const propset* statements) noexcept;

struct parse_handle_deleter {
    void operator()(parse_handle* handle) const noexcept { (void)parse_close(handle); }
};
using parse_ptr = std::unique_ptr<parse_handle, parse_handle_deleter>;
