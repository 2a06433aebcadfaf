#include "handlers/sysinfo.h"

#include <sys/utsname.h>

#include "core/string.h"

int get_qzsysinfo(qz_sysinfo* dst) {
    utsname system{};
    if (uname(&system) != 0) {
        return -1;
    }
    my_strlcpy(dst->os_name.data(), system.sysname, dst->os_name.size());
    my_strlcpy(dst->release.data(), system.release, dst->release.size());
    my_strlcpy(dst->machine.data(), system.machine, dst->machine.size());
    return 0;
}
