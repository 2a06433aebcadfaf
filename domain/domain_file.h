// The domain file: one line per host and namespace. Internal to domain/.
//
//     NAME:REV:ID:OSNAME:OSRELEASE:CPUTYPE:NAMESPACE
//
// A name that contains ":" stands in brackets. Only REV may be empty; a line without NAMESPACE
// means the namespace "plx". Blank lines and comments are gone with the next write; other lines
// that are no hosts are told, and saved beside the file before a write drops them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "core/fwd.h"
#include "lib/file.h"
#include "lib/odd_lines.h"
#include "lib/rbtree.h"

// What the reader of a domain file has to tell.
struct domain_text_report {
    std::size_t host_lines = 0;
    line_numbers no_hosts;  // lines that are no host, or not in every part
    line_numbers returns;   // hosts whose namespace ends in a carriage return
    line_numbers no_utf8;   // hosts whose line is no UTF-8
    std::string dropped;    // the text of the lines in `no_hosts`
};

// Adds the hosts of a file's content to a map of host records. The first line of an id decides
// about its fields, later ones add their namespace. A line over 1023 bytes counts as several.
domain_text_report parse_domain_text(std::string_view text, qz_map* hosts);

// The content of a domain file for these hosts, in the order of the map. `expected` bytes are
// reserved for it.
[[nodiscard]] std::string format_domain_text(const qz_map* hosts, std::size_t expected = 0);

// A domain file that has been read into records of its own, on any thread.
struct loaded_domain {
    map_ptr hosts;     // never null; empty when the file is missing or can't be read
    int error = 0;     // 0 or an errno value; EINVAL and EISDIR: not a regular file
    file_stamp stamp;  // of what was read
    domain_text_report report;
};
[[nodiscard]] loaded_domain read_domain_file(const char* path);

// Makes the hosts of the context's domain file its registry, which must be free, and tells what was
// odd. A file that exists and can't be read, or has lines of which none is a host, is never
// rewritten from now on, since what stands in it is unknown. `c` (may be null) is the connection
// that asked, for the log.
void take_over_domain(shttpd_ctx* ctx, const conn* c, loaded_domain domain);

// Has the domain file replaced by the registry's content, unless it holds that already; the caller
// waits with files_stand(). A failure leaves the file as it is and is logged once, until a write
// has succeeded again. Requires: domain mode.
void sync_allow(const conn* c);
