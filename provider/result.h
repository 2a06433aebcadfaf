// From errno to the library's result codes.
#pragma once

#include <cerrno>

#include "security/at_types.h"

namespace provider {

inline at_result result_of(int error) {
    switch (error) {
        case 0:
            return at_ok;
        case EACCES:
        case EPERM:
        case EROFS:
            return at_permission_denied;
        case ENOSPC:
        case EDQUOT:
            return at_no_space;
        case ENOMEM:
            return at_no_memory;
        default:
            return at_file_error;
    }
}

}  // namespace provider
