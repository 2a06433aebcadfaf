// dovmad-check: what its parts share.
//
// The program is short-lived, has one thread and changes nothing. What it finds are lines
// "FILE:LINE: error|warning: TEXT" on standard output, without ":LINE" where none is to blame.
// An error keeps the daemon from starting, or makes it do something else than the line says; a
// warning is worth a second look.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "core/options.h"

// Where a finding belongs; line 0: to the file as a whole.
struct place {
    std::string file;
    int line = 0;
};

[[gnu::format(printf, 2, 3)]] void error(const place& where, const char* format, ...);
[[gnu::format(printf, 2, 3)]] void warning(const place& where, const char* format, ...);

// Warnings are not printed from here on.
void be_quiet();

// How many errors have been reported.
int error_count();

// A user as whom files are looked at; known is false for an unknown name.
struct identity {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    bool known = false;
};
[[nodiscard]] identity find_identity(const std::string& name);
[[nodiscard]] identity own_identity();

// Becomes somebody else until its end, for file access; does nothing unless started by root.
class acting_as {
  public:
    explicit acting_as(const identity& who);
    ~acting_as();
    acting_as(const acting_as&) = delete;
    acting_as& operator=(const acting_as&) = delete;
    acting_as(acting_as&&) = delete;
    acting_as& operator=(acting_as&&) = delete;

  private:
    bool changed_ = false;
    std::vector<gid_t> groups_;
};

// 0, or the errno value that `mode` (R_OK ...) meets at `path`.
[[nodiscard]] int access_error(const std::string& path, int mode);

// 0, or the errno value that opening the file for writing, or making it, would meet.
[[nodiscard]] int write_error(const std::string& path);

// What the configuration says.
struct settings {
    std::string file;
    std::array<std::string, 25> values;  // by row of the options; the defaults where nothing is set
    std::array<int, 25> lines{};         // where each was set last; 0: nowhere
    identity starter;                    // who starts the daemon
    identity server;                     // who serves: runtime_uid, or the one who starts it

    [[nodiscard]] const std::string& value(std::string_view keyword) const;
    [[nodiscard]] place where(std::string_view keyword) const;
    [[nodiscard]] bool is_set(std::string_view keyword) const;  // has any value
};

// The entries of a list, as the daemon reads it.
[[nodiscard]] std::vector<std::string> list_entries(std::string_view list);

// Further entries "NAME=PATH": name and path of each good one.
struct named_path {
    std::string name;
    std::string path;
};
[[nodiscard]] std::vector<named_path> named_paths(std::string_view list);

// The parts. Each reports what it finds.

// Reads the file's lines; false when there is nothing to go on with.
[[nodiscard]] bool check_lines(settings* conf);
void check_values(const settings& conf);   // numbers, lists, ports
void check_places(const settings& conf);   // folders, logs, programs
void check_library(const settings& conf);  // the authentication library, its users
void check_schedule(const settings& conf);
void check_access_files(const settings& conf);
void check_data_files(const settings& conf);  // domain, MIME and INI files

// Prints the next runs of the schedule, with their local times. Requires: readable file.
void print_next_runs(const settings& conf, int count);
