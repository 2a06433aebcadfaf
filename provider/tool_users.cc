// dovmad-user: the users of the password domains.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "lib/file.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/tool.h"
#include "provider/tool_accounts.h"

using namespace provider;

namespace {

constexpr const char* name_rule =
    "a user name begins with a letter, a digit or '_' and goes on with letters, digits, '.', '_' "
    "and '-', 32 characters at most";

std::string user_path(const account_store& store, const std::string& name) {
    return store.users_directory + "/" + name;
}

// Loads an existing user; reports when there is none. *owner is the owner of its file.
bool load_user(const account_store& store, const std::string& name, user_entry* user,
               file_owner* owner) {
    if (!is_user_name(name)) {
        (void)fail("'%s': %s", name.c_str(), name_rule);
        return false;
    }
    file_content content;
    const int error = read_file(user_path(store, name), &content);
    if (error != 0) {
        (void)fail("user %s: %s", name.c_str(), error == ENOENT ? "no such user" : strerror(error));
        return false;
    }
    const std::optional<user_entry> found = find_user(content.text, name);
    if (!found) {
        (void)fail("user %s: %s holds no line that the daemon would accept", name.c_str(),
                   user_path(store, name).c_str());
        return false;
    }
    *user = *found;
    *owner = {content.owner, content.group};
    return true;
}

// The daemon reads the file again at the user's next login; nobody has to be told.
int save_user(const account_store& store, const user_entry& user, file_owner owner) {
    if (geteuid() != 0) {
        owner = {};  // only root may give files away, and needs to
    }
    const int error =
        replace_file_in(store.users_directory, user.name, format_user(user), 0600, owner);
    return error == 0 ? exit_done : fail("user %s: %s", user.name.c_str(), strerror(error));
}

// Asks for a password and hashes it. Refuses one that could never be used to log in.
bool take_password(const account_store& store, user_entry* user) {
    secret password;
    if (!read_secret("Password for " + user->name, true, &password)) {
        return false;
    }
    if (password.text.empty()) {
        (void)fail("an empty password is never accepted");
        return false;
    }
    const std::size_t longest_prefix = store.password_domain.size() + 1 + user->name.size() + 1;
    if (longest_prefix + password.text.size() > longest_login_bytes) {
        (void)fail(
            "%s\\%s with this password could never log in: the daemon takes %zu bytes for "
            "DOMAIN\\name:password, which leaves %zu for the password, and this one has %zu",
            store.password_domain.c_str(), user->name.c_str(), longest_login_bytes,
            longest_login_bytes - std::min(longest_login_bytes, longest_prefix),
            password.text.size());
        return false;
    }
    user->hash = make_password_hash(password.text.c_str());
    if (user->hash.empty()) {
        (void)fail("the password cannot be hashed: %s", strerror(errno));
        return false;
    }
    return true;
}

int set_lock(const tool_options& options, const std::string& name, bool off) {
    account_store store;
    user_entry user;
    file_owner owner;
    if (!open_store(options, &store) || !load_user(store, name, &user, &owner)) {
        return exit_failed;
    }
    user.off = off;
    return save_user(store, user, owner);
}

// Sorted; names that the daemon would not look at are left out.
std::vector<std::string> user_names(const account_store& store) {
    std::vector<std::string> names;
    const directory_ptr directory{opendir(store.users_directory.c_str())};
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        if (is_user_name(entry->d_name)) {
            names.emplace_back(entry->d_name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

bool open_store(const tool_options& options, account_store* store, bool quiet) {
    const std::string data_dir = find_data_dir(options);
    if (data_dir.empty()) {
        return false;
    }
    store->directory = data_dir + "/dovmad-at";
    store->users_directory = store->directory + "/users";
    const std::string path = store->directory + "/domains";
    file_content domains;
    const int error = read_file(path, &domains);
    for (const domain_entry& domain : parse_domains(domains.text, nullptr)) {
        if (domain.kind == domain_kind::password) {
            store->password_domain = domain.name;
            store->qualifier = domain.qualifier;
            return true;
        }
    }
    if (quiet) {
        return false;
    }
    if (error == ENOENT) {
        (void)fail("%s is not set up: start the daemon once, or name another directory with -d",
                   store->directory.c_str());
    } else {
        (void)fail("%s: %s", path.c_str(), error != 0 ? strerror(error) : "no password domain");
    }
    return false;
}

std::string granted_name(const account_store& store, const user_entry& user) {
    return user.os ? user.name : user.name + "@" + store.password_domain + "." + store.qualifier;
}

std::optional<user_entry> look_up_user(const account_store& store, const std::string& name) {
    file_content content;
    if (!is_user_name(name) || read_file(user_path(store, name), &content) != 0) {
        return std::nullopt;
    }
    return find_user(content.text, name);
}

int command_add(const tool_options& options, const tool_arguments& arguments) {
    account_store store;
    user_entry user{.name = arguments[0], .hash = {}, .os = options.os_user};
    if (!is_user_name(user.name)) {
        return fail("'%s': %s", user.name.c_str(), name_rule);
    }
    if (user.os && !is_os_user_name(user.name)) {
        return fail("'%s': the daemon would take this name for root", user.name.c_str());
    }
    if (!open_store(options, &store)) {
        return exit_failed;
    }
    struct stat status {};
    if (lstat(user_path(store, user.name).c_str(), &status) == 0) {
        return fail("user %s exists; 'passwd' changes the password", user.name.c_str());
    }
    // New files get the owner of the directory: the daemon may run as that user.
    if (stat(store.users_directory.c_str(), &status) != 0) {
        return fail("%s: %s", store.users_directory.c_str(), strerror(errno));
    }
    if (!take_password(store, &user)) {
        return exit_failed;
    }
    return save_user(store, user, {status.st_uid, status.st_gid});
}

int command_passwd(const tool_options& options, const tool_arguments& arguments) {
    account_store store;
    user_entry user;
    file_owner owner;
    if (!open_store(options, &store) || !load_user(store, arguments[0], &user, &owner) ||
        !take_password(store, &user)) {
        return exit_failed;
    }
    return save_user(store, user, owner);
}

int command_del(const tool_options& options, const tool_arguments& arguments) {
    account_store store;
    const std::string& name = arguments[0];
    if (!is_user_name(name)) {
        return fail("'%s': %s", name.c_str(), name_rule);
    }
    if (!open_store(options, &store)) {
        return exit_failed;
    }
    if (unlink(user_path(store, name).c_str()) != 0) {
        return fail("user %s: %s", name.c_str(),
                    errno == ENOENT ? "no such user" : strerror(errno));
    }
    return exit_done;
}

int command_list(const tool_options& options, const tool_arguments& /*arguments*/) {
    account_store store;
    if (!open_store(options, &store)) {
        return exit_failed;
    }
    if (access(store.users_directory.c_str(), R_OK | X_OK) != 0) {
        return fail("%s: %s", store.users_directory.c_str(), strerror(errno));
    }
    for (const std::string& name : user_names(store)) {
        const std::optional<user_entry> user = look_up_user(store, name);
        const char* state = !user ? "unusable" : user->off ? "locked" : "active";
        (void)std::printf("%s\t%s\t%s\n", name.c_str(),
                          user ? granted_name(store, *user).c_str() : "-", state);
    }
    return exit_done;
}

int command_lock(const tool_options& options, const tool_arguments& arguments) {
    return set_lock(options, arguments[0], true);
}

int command_unlock(const tool_options& options, const tool_arguments& arguments) {
    return set_lock(options, arguments[0], false);
}
