// dovmad-user: the users of the password domains.
#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "lib/file.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/tool.h"
#include "provider/tool_accounts.h"
#include "provider/tool_daemon.h"
#include "provider/tool_files.h"
#include "provider/tool_namespaces.h"

using namespace provider;

namespace {

constexpr std::size_t shortest_password = 8;
constexpr const char* name_rule =
    "a user name begins with a letter, a digit or '_' and goes on with letters, digits, '.', '_' "
    "and '-', 32 characters at most";

std::string user_path(const account_store& store, const std::string& name) {
    return store.users_directory + "/" + name;
}

bool check_name(const std::string& name) {
    if (!is_user_name(name)) {
        (void)fail("'%s': %s", name.c_str(), name_rule);
        return false;
    }
    return true;
}

// Loads an existing user; reports when there is none. *owner is the owner of its file.
bool load_user(const account_store& store, const std::string& name, user_entry* user,
               file_owner* owner) {
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

// Whoever changes users does it alone, and with no more rights than the owner of their folder.
struct users_change {
    explicit users_change(const account_store& store)
        : ids({user_path(store, "")}), lock(store.users_directory) {}
    borrowed_ids ids;
    folder_lock lock;
};

// Loads, changes and saves a user; nothing is asked in between.
int change_user(const account_store& store, const std::string& name,
                const std::function<void(user_entry*)>& apply) {
    const users_change alone(store);
    user_entry user;
    file_owner owner;
    if (!load_user(store, name, &user, &owner)) {
        return exit_failed;
    }
    apply(&user);
    return save_user(store, user, owner);
}

// What guessing programs try first.
bool is_weak(const std::string& password, const std::string& name) {
    return password.size() < shortest_password || strcasecmp(password.c_str(), name.c_str()) == 0;
}

// Asks for a password and hashes it; empty when it was refused. Before anything is locked or read:
// who is asked may take his time.
std::string take_password(const tool_options& options, const account_store& store,
                          const std::string& name) {
    secret password;
    if (!read_secret("Password for " + name, true, &password)) {
        return {};
    }
    if (password.text.empty()) {
        (void)fail("an empty password is never accepted");
        return {};
    }
    const std::size_t longest_prefix = store.password_domain.size() + 1 + name.size() + 1;
    if (longest_prefix + password.text.size() > longest_login_bytes) {
        (void)fail(
            "%s\\%s with this password could never log in: the daemon takes %zu bytes for "
            "DOMAIN\\name:password, which leaves %zu for the password, and this one has %zu",
            store.password_domain.c_str(), name.c_str(), longest_login_bytes,
            longest_login_bytes - std::min(longest_login_bytes, longest_prefix),
            password.text.size());
        return {};
    }
    if (!options.weak && is_weak(password.text, name)) {
        (void)fail("the password has fewer than %zu characters, or is the name (-w takes it)",
                   shortest_password);
        return {};
    }
    std::string hash = make_password_hash(password.text.c_str());
    if (hash.empty()) {
        (void)fail("the password cannot be hashed: %s", strerror(errno));
    }
    return hash;
}

int set_lock(const tool_options& options, const std::string& name, bool off) {
    account_store store;
    if (!check_name(name) || !open_store(options, &store)) {
        return exit_failed;
    }
    return change_user(store, name, [off](user_entry* user) { user->off = off; });
}

// The daemon takes every entry that begins with a name for an entry of that name: a new user must
// not find himself in somebody else's place. Rights of the very same name are left from a former
// user.
bool check_inherited_rights(const tool_options& options, const std::string& known_as) {
    daemon_config config;
    if (!read_config(options, &config)) {
        return false;
    }
    const std::vector<listed_role> longer = find_listed(config, known_as, true);
    if (!longer.empty()) {
        (void)fail(
            "%s would hold the rights of %s (%s): the daemon finds a name in every longer one",
            known_as.c_str(), longer.front().as.c_str(), in_words(longer).c_str());
        return false;
    }
    const std::vector<listed_role> same = find_listed(config, known_as, false);
    if (!same.empty()) {
        warn("%s holds rights that were granted before: %s", known_as.c_str(),
             in_words(same).c_str());
    }
    return true;
}

// Takes the rights of a name that nobody bears any more, so that the next one to bear it does not
// find them. A running daemon is asked when that needs no asking of somebody.
int remove_rights(const tool_options& options, const std::string& known_as) {
    daemon_config config;
    if (!read_config(options, &config)) {
        return exit_failed;
    }
    const std::vector<listed_role> held = find_listed(config, known_as, false);
    if (held.empty() || is_built_in_principal(known_as)) {
        return exit_done;
    }
    if (daemon_runs(config) && std::getenv("DOVMAD_PASSWORD") == nullptr) {
        warn("%s still holds %s; take it away with 'deny'", known_as.c_str(),
             in_words(held).c_str());
        return exit_done;
    }
    int status = exit_done;
    for (const listed_role& entry : held) {
        const int denied =
            command_deny(options, {known_as, role_name(entry.role), entry.name_space});
        status = denied != exit_done ? denied : status;
    }
    return status;
}

}  // namespace

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
    if (!check_name(user.name)) {
        return exit_failed;
    }
    if (user.os && !is_os_user_name(user.name)) {
        return fail("'%s': the daemon would take this name for root", user.name.c_str());
    }
    if (!open_store(options, &store)) {
        return exit_failed;
    }
    struct stat status {};
    const auto exists = [&] { return lstat(user_path(store, user.name).c_str(), &status) == 0; };
    const auto refuse = [&] {
        return fail("user %s exists; 'passwd' changes the password", user.name.c_str());
    };
    if (exists()) {
        return refuse();
    }
    if (!check_inherited_rights(options, granted_name(store, user))) {
        return exit_failed;
    }
    user.hash = take_password(options, store, user.name);
    if (user.hash.empty()) {
        return exit_failed;
    }
    const users_change alone(store);
    if (exists()) {
        return refuse();  // somebody else was faster
    }
    // New files get the owner of the directory: the daemon may run as that user.
    if (stat(store.users_directory.c_str(), &status) != 0) {
        return fail("%s: %s", store.users_directory.c_str(), strerror(errno));
    }
    return save_user(store, user, {status.st_uid, status.st_gid});
}

int command_passwd(const tool_options& options, const tool_arguments& arguments) {
    account_store store;
    const std::string& name = arguments[0];
    user_entry known;
    file_owner owner;
    // Looked at first, so that nobody is asked for a password in vain; what counts is read again.
    if (!check_name(name) || !open_store(options, &store) ||
        !load_user(store, name, &known, &owner)) {
        return exit_failed;
    }
    const std::string hash = take_password(options, store, name);
    if (hash.empty()) {
        return exit_failed;
    }
    const int status = change_user(store, name, [&](user_entry* user) { user->hash = hash; });
    if (status == exit_done && name == "root") {
        const borrowed_ids ids({store.directory + "/"});
        (void)unlink((store.directory + "/initial-password").c_str());  // no longer the one
    }
    return status;
}

int command_del(const tool_options& options, const tool_arguments& arguments) {
    account_store store;
    const std::string& name = arguments[0];
    if (!check_name(name) || !open_store(options, &store)) {
        return exit_failed;
    }
    const user_entry gone =
        look_up_user(store, name).value_or(user_entry{.name = name, .hash = {}});
    {
        const users_change alone(store);
        if (unlink(user_path(store, name).c_str()) != 0) {
            return fail("user %s: %s", name.c_str(),
                        errno == ENOENT ? "no such user" : strerror(errno));
        }
    }
    return remove_rights(options, granted_name(store, gone));
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
