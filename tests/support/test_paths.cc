// The fixed paths of a daemon or test program under test: the documented ones below the directory
// that the environment variable DOVMAD_TEST_ROOT names. Linked in place of core/paths.cc.

#include <array>
#include <cstdlib>
#include <string>

#include "core/globals.h"
#include "core/paths.h"
#include "tests/support/wait_choice.h"

namespace {

const bool wait_is_chosen = (choose_wait_source(), true);

std::string below_root(const char* path) {
    const char* root = std::getenv("DOVMAD_TEST_ROOT");
    return root != nullptr ? std::string(root) + path : path;
}

const std::array<std::string, 9> texts = {
    below_root("/etc/opt/MOLBplxh/dovmad.conf"),
    below_root("/var/opt/MOLBdovma/dovmad.pid"),
    below_root("/var/opt/MOLBplxh"),
    below_root("/etc/default/plx_resolv.conf"),
    below_root("/var/opt/MOLBplxh/.hostguid"),
    below_root("/etc/.osuuid"),
    below_root("/var/qz/tuvo/.uds/admin/tuvo_uds"),
    below_root("/var/qz/tuvo/.uds/query/tuvo_uds"),
    below_root("/etc/qz/kpr/MOLBat.loc"),
};

}  // namespace

const system_paths paths = {
    .config_file = texts[0].c_str(),
    .pid_file = texts[1].c_str(),
    .var_directory = texts[2].c_str(),
    .resolver_file = texts[3].c_str(),
    .host_guid = texts[4].c_str(),
    .os_uuid = texts[5].c_str(),
    .tuvo_admin_socket = texts[6].c_str(),
    .tuvo_query_socket = texts[7].c_str(),
    .library_location = texts[8].c_str(),
};

const char* config_file = paths.config_file;
