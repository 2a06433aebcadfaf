// The host's place in management domains: the registry of hosts and the endpoints around it.
//
// The daemon is in domain mode while the context's domain_file is set: it serves one domain whose
// hosts stand in that file. Otherwise it is in standalone mode and collects pings for the domains
// that the resolver file lists. Main loop thread only.
#pragma once

#include "core/fwd.h"

// Builds the registry for the configured mode and registers the endpoints. Files that are missing
// leave it empty. Called once, at the end of the configuration.
void init_domain_info(shttpd_ctx* ctx);

// Frees the registry and the DR list and forgets the domain file's path. May be repeated.
void free_domain_info(shttpd_ctx* ctx);
