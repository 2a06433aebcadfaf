// dovmad-user: users of the project's own authentication library, and what they may do.
#include "provider/tool.h"

#include <getopt.h>

#include <cstdio>

#include "core/paths.h"

namespace {

constexpr const char* usage_text =
    "usage: dovmad-user [-c FILE] [-d DIR] [-u USER] [-gjow] COMMAND [ARGUMENT]...\n"
    "\n"
    "Users (files below DIR/dovmad-at):\n"
    "  add [-ow] NAME                create a user and ask for a password\n"
    "  passwd [-w] NAME              change a password\n"
    "  del NAME                      delete a user and the roles of the name\n"
    "  list                          print every user: name, name for grants, state\n"
    "  lock NAME, unlock NAME        refuse, or allow again, a user's logins\n"
    "Rights (through the running daemon, else in the access files):\n"
    "  grant [-g] USER ROLE [NAMESPACE]\n"
    "                                give a role: pub, operator, admin or agent\n"
    "  deny [-g] USER ROLE [NAMESPACE]\n"
    "                                take a role away\n"
    "  rights [-gj] USER, rights -j  print what the user may do, or who may do what\n"
    "Set-up:\n"
    "  check                         print what is wrong with the files of DIR/dovmad-at\n"
    "  renew CERTIFICATE KEY         replace the key pair, also that of the running daemon\n"
    "  reset                         have the running daemon read its files again\n"
    "\n"
    "  -c, --config FILE    the daemon's configuration file (default %s)\n"
    "  -d, --data DIR       the data directory (default $ZEL_DATA_DIR, else var_dir/sec)\n"
    "  -u, --user USER      log in to the daemon as USER (default $DOVMAD_USER, else root);\n"
    "                       the password is asked for, or taken from $DOVMAD_PASSWORD\n"
    "  -g, --group          USER is a group\n"
    "  -j, --json           print JSON\n"
    "  -o, --os             known to the daemon by the plain name, like root\n"
    "  -w, --weak           take a password of fewer than 8 characters\n"
    "  -h, --help           print this text\n"
    "\n"
    "A password is asked for on the terminal; when standard input is none, it is its first line.\n"
    "Exit status: 0 done, 1 failed, 64 wrong usage.\n";

struct command {
    std::string_view name;
    std::size_t fewest;
    std::size_t most;
    int (*run)(const tool_options& options, const tool_arguments& arguments);
};

// In the order of the usage text.
constexpr command commands[] = {
    {"add", 1, 1, command_add},       {"passwd", 1, 1, command_passwd},
    {"del", 1, 1, command_del},       {"list", 0, 0, command_list},
    {"lock", 1, 1, command_lock},     {"unlock", 1, 1, command_unlock},
    {"grant", 2, 3, command_grant},   {"deny", 2, 3, command_deny},
    {"rights", 0, 1, command_rights}, {"check", 0, 0, command_check},
    {"renew", 2, 2, command_renew},   {"reset", 0, 0, command_reset},
};

constexpr option long_options[] = {
    {"config", required_argument, nullptr, 'c'},
    {"data", required_argument, nullptr, 'd'},
    {"user", required_argument, nullptr, 'u'},
    {"group", no_argument, nullptr, 'g'},
    {"json", no_argument, nullptr, 'j'},
    {"os", no_argument, nullptr, 'o'},
    {"weak", no_argument, nullptr, 'w'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

enum class parsed { run, help, wrong };

// Options may stand before, between and behind the arguments; "--" ends them.
parsed parse_options(int argc, char** argv, tool_options* options) {
    options->config_file = paths.config_file;
    for (;;) {
        const int letter = getopt_long(argc, argv, "c:d:u:gjowh", long_options, nullptr);
        switch (letter) {
            case -1:
                return parsed::run;
            case 'c':
                options->config_file = optarg;
                options->config_required = true;
                break;
            case 'd':
                options->data_dir = optarg;
                break;
            case 'u':
                options->login = optarg;
                break;
            case 'g':
                options->group = true;
                break;
            case 'o':
                options->os_user = true;
                break;
            case 'j':
                options->json = true;
                break;
            case 'w':
                options->weak = true;
                break;
            case 'h':
                return parsed::help;
            default:
                return parsed::wrong;  // getopt has said what
        }
    }
}

int wrong_usage(const char* problem, const char* detail) {
    (void)std::fprintf(stderr, "dovmad-user: %s%s\nTry 'dovmad-user --help'.\n", problem, detail);
    return exit_usage;
}

}  // namespace

int main(int argc, char** argv) {
    tool_options options;
    switch (parse_options(argc, argv, &options)) {
        case parsed::help:
            (void)std::printf(usage_text, paths.config_file);
            return exit_done;
        case parsed::wrong:
            return wrong_usage("wrong option", "");
        case parsed::run:
            break;
    }
    if (optind >= argc) {
        return wrong_usage("no command", "");
    }
    const std::string_view name = argv[optind];
    const tool_arguments arguments(argv + optind + 1, argv + argc);
    for (const command& candidate : commands) {
        if (candidate.name == name) {
            if (arguments.size() < candidate.fewest || arguments.size() > candidate.most) {
                return wrong_usage("wrong number of arguments for ", argv[optind]);
            }
            return candidate.run(options, arguments);
        }
    }
    return wrong_usage("unknown command ", argv[optind]);
}
