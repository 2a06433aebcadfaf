// Content types by file name extension.
#pragma once

#include <cstddef>

#include "core/fwd.h"

struct mime_type_record;

// The type for a name, judged by its last `length` characters; never null, not owned.
const char* get_mime_type(shttpd_ctx* ctx, const char* name, std::size_t length);

// Reads a file of "type extension" lines, which win over the built-in types; lines that begin with
// "#" are skipped. A file that can't be read is fatal.
// Kept: which further words of a line become extensions depends on the length of the type.
void set_mime_types(shttpd_ctx* ctx, const char* path);

// Frees a record that has been unlinked.
void mime_type_destructor(mime_type_record* record);
