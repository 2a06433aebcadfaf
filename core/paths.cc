#include "core/paths.h"

#include "core/globals.h"

constinit const system_paths paths = {
    .config_file = "/etc/opt/MOLBplxh/dovmad.conf",
    .pid_file = "/var/opt/MOLBdovma/dovmad.pid",
    .var_directory = "/var/opt/MOLBplxh",
    .resolver_file = "/etc/default/plx_resolv.conf",
    .host_guid = "/var/opt/MOLBplxh/.hostguid",
    .os_uuid = "/etc/.osuuid",
    .tuvo_admin_socket = "/var/qz/tuvo/.uds/admin/tuvo_uds",
    .tuvo_query_socket = "/var/qz/tuvo/.uds/query/tuvo_uds",
    .library_location = "/etc/qz/kpr/MOLBat.loc",
};

constinit const char* config_file = "/etc/opt/MOLBplxh/dovmad.conf";
