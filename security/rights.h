// The rights policy: who holds a role in a namespace, and what granting and denying change.
//
// A namespace has four roles; below its root, ROLE/.dovmaaccess lists who holds one. The policy
// knows neither connections nor how files are written: the daemon and dovmad-user bring that along
// and get the same answers. One thread.
#pragma once

#include <array>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "security/access_file.h"

enum role_number : int { role_pub = 0, role_operator = 1, role_admin = 2, role_agent = 3 };
inline constexpr std::array<role_number, 4> all_roles = {role_pub, role_operator, role_admin,
                                                         role_agent};

// Kept: "world" has no number. As a role to grant it is an unknown name, which is admin.
inline constexpr int role_rows = 5;  // of a namespace's table; the last one ends it
inline constexpr std::string_view default_namespace = "plx";
inline constexpr std::size_t longest_principal = 127;

// --- Names ---

// The folder of a role's access file. Requires: a role_number.
const char* role_name(int role);

// The number of a role name.
// Kept: a prefix names a role ("op" is operator), and an empty or unknown name is admin, the most
// demanding one.
int get_role_number(std::string_view name);

// The kind that a type text names, -1 for none. Only the beginning counts: "users" is a user.
int get_principal_kind(std::string_view type);
const char* principal_kind_name(int kind);

// A name that would break its line of the access file, or end it early.
bool is_bad_principal(std::string_view name);

// Kept: every name that begins with "root" is taken for the administrator, who can neither be given
// nor lose a role.
bool is_built_in_principal(std::string_view name);

// 1 when `name` has at least three characters and ends in ".qz", else 0.
int is_qz_domain(const char* name);

// ROOT/ROLE/.dovmaaccess; empty when that is too long for a path, which counts as a missing file.
std::string access_path(std::string_view root, int role);

// The names of a system user's groups, in the system's order. False when the system does not know
// the user or it belongs to more groups than 1024.
bool system_groups(const char* user, std::vector<std::string>* names);

// Cuts the next NAME=PATH entry off the front of a "namespaces" text. False at its end, which an
// empty entry is too. Entries without "=" have an empty path and has_path false; they are none.
struct namespace_entry {
    std::string_view text{};  // the whole entry
    std::string_view name{};
    std::string_view path{};
    bool has_path = false;
};
bool next_namespace_entry(std::string_view* rest, namespace_entry* entry);

// --- Who suffices for what ---

// Whoever is listed in one of these roles' files holds the role; empty for a number that is none.
std::span<const role_number> sufficient_roles(int role);

// What a new holder of the role no longer needs, in the order in which it is taken off the lists.
std::span<const role_number> included_roles(int role);

// --- The rights of one namespace ---

// Five rows, of which the last has no directory.
role_entry* new_role_table();
void delete_role_table(role_entry* table);

// What the policy needs from whoever uses it.
struct rights_user {
    rights_user() = default;
    rights_user(const rights_user&) = delete;
    rights_user& operator=(const rights_user&) = delete;
    rights_user(rights_user&&) = delete;
    rights_user& operator=(rights_user&&) = delete;
    virtual ~rights_user() = default;

    static constexpr int write_pending = -1;

    // Replaces the row's file by access_file_text(row), after saving the lines that are lost by it
    // (save_lines). 0, an errno value, or write_pending when finish_write will be called with one
    // of them.
    virtual int write(role_entry* row, const std::string& path, const std::string& lost) = 0;
    // Whether such a write is still to end: memory is ahead of the file.
    [[nodiscard]] virtual bool is_writing(const std::string& /*path*/) const { return false; }
    // One line that an administrator should see.
    virtual void tell(const std::string& line) = 0;
};

// Why somebody holds a role, or that nobody knows of it.
struct standing {
    enum class source { nothing, everybody, list, group };
    source by = source::nothing;
    int listed_as = 0;  // the role in whose file the user, or the group, is listed
    std::string group;
    [[nodiscard]] bool held() const { return by != source::nothing; }
};

// "every user holds pub", "listed as admin", "group wheel is listed as admin", "not listed".
std::string in_words(const standing& found);

struct rights_change {
    bool changed = false;    // of the rows in memory
    int error = 0;           // errno value of a file that was not written, else 0
    int role = 0;            // whose file that is
    std::string replaced{};  // the included roles that the principal lost by a grant, as "a, b"
};

// A short-lived view; root, table and user must outlive it.
class role_files {
  public:
    role_files(std::string_view root, role_entry* table, rights_user* user)
        : root_(root), table_(table), user_(user) {}

    // The row, up to date with its file, built-in principals included: every user for pub, the
    // administrator's user and group for admin. A write that is still owed comes first; until it
    // has succeeded the row is what counts.
    role_entry* fresh(int role);

    // Whether the principal itself holds the role, or one that suffices for it.
    standing judge(int role, const char* principal, int kind);

    // The same for a user, who may also hold it through a group.
    standing judge_user(int role, const char* user, std::span<const std::string> groups);

    // Puts the principal on the role's list and takes it off the included ones, which come first: a
    // kill in between leaves it with neither, never with both. Changes nothing for built-in names
    // and who holds the role already. Writes that are owed anywhere are tried again.
    rights_change grant(int role, std::string_view principal, int kind);

    // Takes exactly this spelling off the role's list. That every user holds pub can't be taken
    // away. Writes that are owed are tried again.
    rights_change deny(int role, std::string_view principal, int kind);

    // Writes the row to its file, its stray lines to the ".bak" beside it first. 0, write_pending
    // or an errno value; then the write stays owed and the reason has been told, once for each. A
    // file that could not be read whole is never replaced, nor owed anything: EUCLEAN.
    int save(int role);

  private:
    [[nodiscard]] bool lists(int role, const char* principal, int kind);
    rights_change take_off(int role, std::string_view principal, int kind);
    void settle_owed();

    std::string_view root_;
    role_entry* table_;
    rights_user* user_;
};

// The outcome of a write that was pending.
void finish_write(role_entry* row, const std::string& path, int error,
                  const std::function<void(const std::string&)>& tell);
