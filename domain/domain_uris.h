// The endpoints of the management domain and what they share. Internal to domain/.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/shttpd.h"

// --- Endpoints: what they answer to a request that the rows in domain.cc have admitted ---

void set_dovmad_mode(shttpd_call_arg* arg);     // POST /admin/dovmad/config
void domain_host_rename(shttpd_call_arg* arg);  // POST /admin/domain/host_rename
void domain_dhc(shttpd_call_arg* arg);          // GET  /admin/domain/dhc
void domain_add(shttpd_call_arg* arg);          // GET  /admin/domain/add
void domain_remove(shttpd_call_arg* arg);       // GET  /admin/domain/remove
void domain_register(shttpd_call_arg* arg);     // POST /agent/domain/register
void domain_unregister(shttpd_call_arg* arg);   // POST /agent/domain/unregister
void domain_enum(shttpd_call_arg* arg);         // GET  /agent/domain/enum
void domain_report(shttpd_call_arg* arg);       // POST /agent/domain/report

// --- Variables ---

// The undecoded value of a variable, empty when absent; points into `variables`.
std::string_view raw_variable(std::string_view variables, const char* name);

// The decimal number that the undecoded value of a variable begins with (0 when it begins with
// none). Nothing when the variable is absent or empty or the number is outside 0 to 2147483647.
std::optional<std::uint32_t> number_variable(std::string_view variables, const char* name);

// The decoded value of a variable, cut so that a buffer of `size` bytes (terminator included) holds
// it, and not inside a character.
std::string text_variable(std::string_view variables, const char* name, int size);

// --- Texts that go into the domain file and into JSON ---

// Whether a host id can be stored and listed: UTF-8 without control character, quote, backslash and
// ":".
bool is_storable_id(std::string_view id);

// Whether a host name can be stored: UTF-8 without control character, quote, backslash and bracket.
bool is_storable_hostname(std::string_view name);

// Whether a namespace name can be stored: no control character.
bool is_storable_namespace(std::string_view name);

// The text with "_" in place of every character that a field of the domain file can't hold, and of
// every byte that is no UTF-8.
std::string storable_field(std::string_view text);

// --- Answers ---

// Status 200, text/plain, without a body.
void answer_empty(shttpd_call_arg* arg);

// Status 404, for a host id that is not registered.
void answer_unknown_host(shttpd_call_arg* arg);
