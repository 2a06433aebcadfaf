// Result codes of the foundation library.
#pragma once

// Every int result of the containers, property sets and the INI store is one of these numbers;
// the rename at the end of an INI write adds -1. The INI store alone uses 6 to 8.
enum qz_result : int {
    qz_ok = 0,
    qz_exists = 1,
    qz_not_found = 2,
    qz_type_mismatch = 3,
    qz_unchanged = 4,
    qz_invalid = 5,
    qz_syntax_error = 6,
    qz_unreadable = 7,
    qz_no_temporary = 8,
};
