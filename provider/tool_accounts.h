// dovmad-user: where the accounts are.
//
// The program reads and writes the library's files itself: it works without a daemon, and before
// one has ever been started under another user.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "provider/accounts.h"
#include "provider/tool.h"

// The library's directory, opened for administration.
struct account_store {
    std::string directory;
    std::string users_directory;
    std::string password_domain;  // that of a login without a domain
    std::string qualifier;        // and its host part
};

// Finds the directory and reads its domains. False: the failure has been reported, unless `quiet`;
// a set-up without a password domain is one.
[[nodiscard]] bool open_store(const tool_options& options, account_store* store,
                              bool quiet = false);

// Nothing when there is no such user or the daemon would not accept the file.
[[nodiscard]] std::optional<provider::user_entry> look_up_user(const account_store& store,
                                                               const std::string& name);

// Sorted; names that the daemon would not look at are left out.
[[nodiscard]] std::vector<std::string> user_names(const account_store& store);

// The name under which the daemon knows the user, and under which rights are granted: the plain
// name for users of the system, else the full one in the first password domain.
[[nodiscard]] std::string granted_name(const account_store& store,
                                       const provider::user_entry& user);
