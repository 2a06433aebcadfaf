// What the library hands out: instances and credentials.
//
// Callers hold them as opaque pointers and end each with its own call, in any order: both share the
// site, and so do channels.
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

// Who somebody has shown to be. A service's credential stands for the instance: a channel that is
// accepted with it presents the instance's certificate, the newest one.
struct credential {
    static constexpr object_kind kind = object_kind::credential;

    object_head head{object_magic, kind};
    site_ref owner;
    bool is_service = false;
    principal who;
};

}  // namespace provider
