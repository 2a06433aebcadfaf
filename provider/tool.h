// dovmad-user: what its parts share.
//
// The program is short-lived and has one thread. Every failure is one line on standard error.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// What the program exits with.
enum exit_status : int {
    exit_done = 0,
    exit_failed = 1,
    exit_usage = 64,
};

struct tool_options {
    std::string config_file;       // -c, or the default
    bool config_required = false;  // -c was given
    std::string data_dir;          // -d
    std::string login;             // -u: who speaks to a running daemon
    bool group = false;            // -g: the principal is a group
    bool os_user = false;          // -o: a user of the operating system
    bool weak = false;             // -w: any password will do
    bool json = false;             // -j: print JSON
};

// The configuration file's values by keyword; of several lines with one keyword the last counts.
struct daemon_config {
    std::map<std::string, std::string, std::less<>> values;

    // The value of a keyword, or `fallback`.
    [[nodiscard]] std::string get(std::string_view keyword, std::string_view fallback = {}) const;
};

// What stands behind the command; the number has been checked.
using tool_arguments = std::vector<std::string>;

// Writes "dovmad-user: " and the message to standard error. Returns exit_failed.
[[gnu::format(printf, 1, 2)]] int fail(const char* format, ...);

// The same for what is done all the same.
[[gnu::format(printf, 1, 2)]] void warn(const char* format, ...);

// A JSON string: bytes that are no UTF-8 become U+FFFD.
std::string json_text(std::string_view text);

// Reads the daemon's configuration file the way the daemon does; a missing file is an empty one
// unless it is `needed` or -c named it. False: the failure has been reported.
[[nodiscard]] bool read_config(const tool_options& options, daemon_config* config,
                               bool needed = false);

// The directory that the daemon gives to the library: -d, else ZEL_DATA_DIR, else what the
// configuration says. Empty: the failure has been reported.
[[nodiscard]] std::string find_data_dir(const tool_options& options);

// A password, or a text that holds one, that wipes itself. Reserve enough before appending: a text
// that grows leaves its former bytes behind.
struct secret {
    std::string text;

    secret() = default;
    secret(const secret&) = delete;
    secret& operator=(const secret&) = delete;
    secret(secret&&) = delete;
    secret& operator=(secret&&) = delete;
    ~secret();
};

// Asks on the terminal with echo off (twice when `repeat`), or takes the first line of standard
// input when that is no terminal. False: the failure has been reported.
[[nodiscard]] bool read_secret(const std::string& prompt, bool repeat, secret* result);

// The commands. Each returns an exit_status and has reported its failure.

// Users: each works on the files of the data directory, whether a daemon runs or not.
int command_add(const tool_options& options, const tool_arguments& arguments);
int command_passwd(const tool_options& options, const tool_arguments& arguments);
int command_del(const tool_options& options, const tool_arguments& arguments);
int command_list(const tool_options& options, const tool_arguments& arguments);
int command_lock(const tool_options& options, const tool_arguments& arguments);
int command_unlock(const tool_options& options, const tool_arguments& arguments);

// Rights: grant and deny ask the running daemon, else they edit the access files; rights reads
// those.
int command_grant(const tool_options& options, const tool_arguments& arguments);
int command_deny(const tool_options& options, const tool_arguments& arguments);
int command_rights(const tool_options& options, const tool_arguments& arguments);

// The set-up: check looks at the files of the data directory as the daemon would; renew replaces
// the key pair and has a running daemon take it over; reset does the latter alone.
int command_check(const tool_options& options, const tool_arguments& arguments);
int command_renew(const tool_options& options, const tool_arguments& arguments);
int command_reset(const tool_options& options, const tool_arguments& arguments);
