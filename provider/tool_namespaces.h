// dovmad-user: the access files of the configured namespaces.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "provider/tool.h"
#include "security/rights.h"

// The root is empty when it is not known.
struct name_space {
    std::string name;
    std::string root;
};

// In the order of the option, the default namespace last.
std::vector<name_space> configured_name_spaces(const daemon_config& config);

// The policy over the files of one namespace, which are read when they are first needed. What it
// has to tell goes to standard error, unless `quiet`.
class name_space_rights {
  public:
    explicit name_space_rights(const name_space& where, bool quiet = false);

    [[nodiscard]] role_files& files() { return files_; }

    // The row with its built-in principals.
    [[nodiscard]] const role_entry& row(int role) { return *files_.fresh(role); }

    // The texts of one list in the file's order; built-in principals are left out.
    [[nodiscard]] std::vector<std::string> listed(int role, int kind);

  private:
    struct file_user : rights_user {
        int write(role_entry* row, const std::string& path, const std::string& lost) override;
        void tell(const std::string& line) override;
        bool quiet = false;
    };
    struct table_delete {
        void operator()(role_entry* table) const { delete_role_table(table); }
    };

    std::string root_;
    std::unique_ptr<role_entry, table_delete> table_;
    file_user user_;
    role_files files_;
};

// A role of a namespace that somebody is listed for by the text `as`.
struct listed_role {
    std::string name_space;
    int role = 0;
    std::string as;
};

// Where a user's list has `name`, or, when `longer`, a name that begins with it, which the daemon
// takes for the same.
std::vector<listed_role> find_listed(const daemon_config& config, const std::string& name,
                                     bool longer);

// "operator in plx, admin in other".
std::string in_words(const std::vector<listed_role>& roles);
