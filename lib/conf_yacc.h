// The parser of the INI store.
//
//     file      = section*
//     section   = "[" text "]" statement*
//     statement = text "=" text ";"
#pragma once

#include <cstddef>

struct parse_handle;

// Parses a block into the store through start_section and add_statement; 0, or 6 at the first
// error, with the line in conflineno and the sections so far in the handle. Requires: the store
// lock.
int confparse(const char* text, std::size_t length, parse_handle* handle) noexcept;

// Takes notice of a syntax error. Silent: the result tells, and a caller with a log reports it.
void conferror(const char* message) noexcept;
