// Static files: GET and HEAD with ranges, and the receiving end of a PUT.
#pragma once

#include <sys/stat.h>

#include <ctime>

#include "core/fwd.h"

// Opens a regular file for reading without ever blocking. `st` is the status that the path had a
// moment ago; it is refreshed from the descriptor. Returns the descriptor, -1 for anything else.
int open_regular_file(const char* path, struct stat* st);

// The same for a file stream, which may share the descriptor with other requests for the same
// unchanged file; only the class io_file may close it.
int open_shared_file(const char* path, struct stat* st);

// Answers GET and HEAD with the file that stands open in the local stream's channel (class io_file
// installed), whose status is `st`: headers, entity tag, dates, at most one byte range.
void get_file(conn* c, const struct stat* st);

// Creates the missing directories of a path. Returns 1 when a file name is left, 0 when the path
// ends in "/" and exists now, -1 when a directory can't be made or a prefix is over 2047 bytes.
int put_dir(const char* path);

// Opens (creating, truncating) the target of a PUT and lets the request's body flow into it. The
// status becomes the request's when all of it has come: an upload that breaks off was no success.
bool receive_file(conn* c, const char* path, int status);

// Formats a time the way HTTP headers show dates here: English names, local time.
// Kept: the text says GMT whatever the time zone is. `out` has room for 64 bytes.
void format_http_date(std::time_t t, char* out);

// Closes the files that are kept open between requests and not in use.
void drop_cached_files();

// Closes those that have been unused for a few seconds; looks once a second. True when some are
// still open and will want another look.
bool close_idle_files();
