// The configuration file, the options' values, and the finishing of a server context.
#pragma once

#include <array>
#include <memory>
#include <string>

#include "core/fwd.h"
#include "security/at_types.h"

struct option_row;

// One value slot per row of the options table and one for its end.
using option_slots = std::array<std::unique_ptr<std::string>, 26>;

// A context built from `path` (null: defaults only). The arguments carry no options. Fatal
// configuration errors end the process.
shttpd_ctx* init_from_argc_argv(const char* path, int argc, char** argv);

// The first row with this letter or this exact keyword (may be null); null when there is none.
const option_row* find_option(char letter, const char* keyword);

// Stores a copy of the value in the row's slot.
void set_option(const option_row* row, const char* value, option_slots* slots);

// Prints the usage text on standard error and exits with status 1.
[[noreturn]] void usage(const char* program);

// Obtains the service's credential and default domain anew; failures are fatal.
void set_security_info(shttpd_ctx* ctx);
void free_security_info(security_info* info);

// Creates and frees the map of broker credentials; its values own library handle and credential.
void init_broker_credentials(shttpd_ctx* ctx);
void free_broker_credentials(shttpd_ctx* ctx);

// Chooses handle and credential for the host name that a client asked for.
std::uint32_t sni_callback(const molb_sni_request* request, void** handle, void** credential);

// Frees when not null.
void safe_free(void* p);
