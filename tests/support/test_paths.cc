// The fixed paths of a daemon or test program under test: the documented ones below the directory
// that the environment variable DOVMAD_TEST_ROOT names. Linked in place of core/paths.cc.

#include <cstdlib>
#include <list>
#include <string>

#include "core/globals.h"
#include "core/paths.h"
#include "tests/support/wait_choice.h"

namespace {

const bool wait_is_chosen = (choose_wait_source(), true);

const char* below_root(const char* path) {
    static std::list<std::string> kept;
    const char* root = std::getenv("DOVMAD_TEST_ROOT");
    return kept.emplace_back(root != nullptr ? std::string(root) + path : path).c_str();
}

}  // namespace

const system_paths paths = {
    .config_file = below_root("/etc/opt/MOLBplxh/dovmad.conf"),
    .pid_file = below_root("/var/opt/MOLBdovma/dovmad.pid"),
    .var_directory = below_root("/var/opt/MOLBplxh"),
    .resolver_file = below_root("/etc/default/plx_resolv.conf"),
    .host_guid = below_root("/var/opt/MOLBplxh/.hostguid"),
    .os_uuid = below_root("/etc/.osuuid"),
    .tuvo_admin_socket = below_root("/var/qz/tuvo/.uds/admin/tuvo_uds"),
    .tuvo_query_socket = below_root("/var/qz/tuvo/.uds/query/tuvo_uds"),
    .library_location = below_root("/etc/qz/kpr/MOLBat.loc"),
};

const char* config_file = paths.config_file;
