// Result codes of the foundation library.
#pragma once

// Every int result of the containers, property sets and the INI store is one of these numbers;
// the rename at the end of an INI write adds -1. The INI store alone uses 6 to 8.
enum qz_result : int {
    qz_ok = 0,
    qz_exists = 1,         // nothing was stored; the caller keeps what it offered
    qz_not_found = 2,      // no such key, section or entry
    qz_type_mismatch = 3,  // the old value stands
    qz_unchanged = 4,      // the values were equal already
    qz_invalid = 5,        // null, or an entry without data
    qz_syntax_error = 6,   // conflineno tells the line
    qz_unreadable = 7,     // the file exists
    qz_no_temporary = 8,   // nothing was written; memory has the new value
};
