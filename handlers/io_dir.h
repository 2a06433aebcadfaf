// Directory listings: an HTML table of a directory's entries, written as the reply drains.
#pragma once

#include <string>

#include "core/fwd.h"

// Starts the listing of the directory `path`, which ends in "/", as the reply to c's request. A
// directory that can't be opened is answered with 500 "Cannot open directory". The connection
// closes after the reply.
void get_dir(conn* c, const std::string& path);
