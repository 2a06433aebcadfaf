// The domain file: one line per host and namespace. Internal to domain/.
//
//     NAME:REV:ID:OSNAME:OSRELEASE:CPUTYPE:NAMESPACE
//
// A name that contains ":" stands in brackets. Only REV may be empty; a line without NAMESPACE
// means the namespace "plx". Lines that can't be read are skipped, and vanish with the next write.
#pragma once

#include <string>
#include <string_view>

#include "core/fwd.h"

// Adds the hosts of a file's content to a map of host records. The first line of an id decides
// about its fields, later ones add their namespace. A line over 1023 bytes counts as several.
void parse_domain_text(std::string_view text, qz_map* hosts);

// The content of a domain file for these hosts, in the order of the map.
[[nodiscard]] std::string format_domain_text(const qz_map* hosts);

// Loads the context's domain file into the registry, which must be empty. A file that is missing
// leaves it so. One that exists and can't be read does too, but is then never rewritten, since the
// hosts in it are unknown; `c` (may be null) is the connection that asked, for the log.
void load_domain_file(const shttpd_ctx* ctx, const conn* c);

// Replaces the domain file by the registry's content. A failure leaves the file as it is and is
// logged once, until a write has succeeded again. Requires: domain mode.
void sync_allow(const conn* c);
