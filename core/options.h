// The table of options: keyword, setter and target field of each.
#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <variant>

#include "core/config.h"
#include "core/context.h"

// Options are set by keyword, from the configuration file or by an embedder. Letters, argument
// names and descriptions appear in the usage text only.

// Where a setter stores its value; empty for a setter that needs no field.
using option_field = std::variant<std::monostate, std::string shttpd_ctx::*, int shttpd_ctx::*,
                                  std::FILE * shttpd_ctx::*>;

// Applies one value. 0, or -1 when the value was not taken; errors of the configuration are fatal.
using option_setter = int (*)(shttpd_ctx* ctx, const option_field& field, const char* value);

// What kind of value an option has. Kept: carried in the table and read by nothing.
enum option_flag : unsigned {
    option_on_off = 0x1,
    option_number = 0x2,
    option_file = 0x4,
    option_directory = 0x8,
    option_listed = 0x10,
};

struct option_row {
    char letter;  // 0 in the row that ends the table
    const char* keyword;
    const char* description;
    option_setter setter;
    option_field field;
    const char* argument;
    const char* default_value;  // null: none
    unsigned flags;             // option_flag bits; read by nothing
};

// 25 rows and the one that ends them, in the order of the usage text and of applying values.
// Kept: two rows share the letter "s", and the description of zel_home does not fit its value.
extern const std::array<option_row, 26> options;

// The slot that belongs to a row of the table; null inside until a value or default is stored.
std::unique_ptr<std::string>& option_slot(option_slots* slots, const option_row* row);
