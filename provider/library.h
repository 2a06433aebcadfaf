// What the library hands out: instances and credentials.
#pragma once

#include "provider/object.h"
#include "provider/site.h"

namespace provider {

// An instance. Everything that it gives away lives on when it is terminated.
struct instance {
    static constexpr object_kind kind = object_kind::handle;

    object_head head{object_magic, kind};
    site_ref owner;
};

struct credential {
    static constexpr object_kind kind = object_kind::credential;

    object_head head{object_magic, kind};
    site_ref owner;
    bool is_service = false;
    principal who;
};

}  // namespace provider
