// Where the authentication library's file is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "security/at_types.h"

// The file that names the library's installation directory when no home directory is set. The
// shim knows no fixed places, so the daemon sets it before the first call; null: no such file.
extern const char* molbat_loc_path;

// Why the library's file could not be loaded the last time: its path and the loader's reason. Empty
// when another step failed.
extern std::string molbat_load_problem;

// Builds the path of a library file from a template below "/opt/MOLBat/". `kind` is 0, 3 or 4; kind
// 3 ignores every home directory. `settings` (may be null) may override home directory and
// library path; ZEL_HOME_DIR and ZEL_USE_LIBPATH stand in for empty ones. With a library path the
// result is the bare file name, left to dlopen's own search. Returns 1 and a terminated text of at
// most `size` bytes, or 0 with an at_result in *error.
int tpk_method_make_path_ex(int kind, const char* path_template, const molb_init* settings,
                            std::size_t size, char* out, std::uint32_t* error);
int tpk_method_make_path(int kind, const char* path_template, std::size_t size, char* out,
                         std::uint32_t* error);

// The value of "ProductInstallDir" in a file of "name = value" lines. *out is a new text (free):
// the value, or a copy of `fallback` when the file has none; null when the file can't be read or
// memory is short. Returns 0 when found, else 24579.
std::uint32_t get_install_dir(const char* file, const char* fallback, char** out);
