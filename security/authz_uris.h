// The administrative endpoints of authorization.
#pragma once

#include "core/fwd.h"

// Registers /admin/security/* and /admin/dovmad/config/namespace/*.
void register_auth_uris(shttpd_ctx* ctx);
