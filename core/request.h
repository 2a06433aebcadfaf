// From bytes to a request: the header block, the request line, the known headers, the URI.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "core/connection.h"

inline constexpr std::array<std::string_view, 5> known_http_methods = {"GET", "POST", "PUT",
                                                                       "DELETE", "HEAD"};

// The length of the header block at the start of `buffer`, its blank line included; 0 when it is
// not complete, -1 when it holds a byte that may not stand in headers.
ssize_t get_headers_len(const char* buffer, std::size_t length);

// The same for a block that arrives in pieces: `scanned` is 0 at first and remembers, between calls
// with more of the same block, how far it was looked at, so that every byte is read once.
ssize_t get_headers_len(const char* buffer, std::size_t length, std::size_t* scanned);

// Fills `values` from header lines; texts keep pointing into them. Of repeated headers the last
// one counts.
void parse_headers(const char* start, std::size_t length, header_values* values);

// Takes the next line off `block`. It ends at the first carriage return: behind a bare one another
// header could hide from this daemon and show itself to a proxy target.
std::string_view next_header_line(std::string_view* block);

// Whether every reader of the request is bound to agree on where its body ends. Of one that
// announces two lengths, or a length in a form that readers take differently, nobody can say what
// follows: a part of the body could be a second request. It is not forwarded, and the connection
// ends with its reply.
bool has_clear_body(const conn* c);

// Cleans a decoded URI in place: behind every slash or backslash a run that begins with a dot and
// goes on over dots and slashes disappears, so a path can never climb.
void clean_uri(std::string* uri);

// The role segment of the request's URI, as a copy in request.role.
void get_role_from_uri(conn* c, bool is_proxied);

// Overwrites the values of the request's Authorization lines, of which the user's name is kept for
// the log. Once the login has been judged, and at the request's end.
void wipe_authorization(request_data* request);

// The user in the value of an Authorization header, "DOMAIN\NAME" or "NAME" as typed; empty when it
// holds none.
std::string typed_user(std::string_view authorization);

// Splits the query off a local URI and decodes the path; the query stays as received.
void split_and_decode_uri(conn* c);

// The root of the request's namespace; that of the context while none is selected.
const std::string& request_root(const conn* c);

// The file that a local URI names: namespace root and URI, or the target of an alias. Empty when
// the URI's dots would lead out of the alias' target.
std::string map_uri_to_path(const conn* c);

// What parsing the buffered bytes led to.
enum class parse_result {
    incomplete,  // wait for more
    muted,       // an early error: the connection stays silent
    failed,      // an error reply is in place
    parsed,
};

// Parses the request at the start of the remote buffer.
parse_result parse_request(conn* c);
