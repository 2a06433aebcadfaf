#include "provider/tool_namespaces.h"

#include <algorithm>

#include "core/string.h"
#include "lib/odd_lines.h"
#include "lib/rbtree.h"
#include "lib/replace_file.h"

std::vector<name_space> configured_name_spaces(const daemon_config& config) {
    std::vector<name_space> found;
    const auto add = [&](std::string_view name, std::string_view root) {
        const bool known = std::any_of(found.begin(), found.end(),
                                       [&](const name_space& entry) { return entry.name == name; });
        if (!known) {
            found.push_back({std::string(name), std::string(root)});
        }
    };
    const std::string list = config.get("namespaces");
    std::string_view rest = list;
    namespace_entry entry;
    while (next_namespace_entry(&rest, &entry)) {
        if (entry.has_path) {
            add(entry.name, entry.path);
        }
    }
    add(default_namespace, config.get("document_root"));
    return found;
}

name_space_rights::name_space_rights(const name_space& where, bool quiet)
    : root_(where.root), table_(new_role_table()), files_(root_, table_.get(), &user_) {
    user_.quiet = quiet;
}

int name_space_rights::file_user::write(role_entry* row, const std::string& path,
                                        const std::string& lost) {
    const int error = lost.empty() ? 0 : save_lines(path.c_str(), lost);
    return error != 0 ? error : replace_file(path.c_str(), access_file_text(row));
}

void name_space_rights::file_user::tell(const std::string& line) {
    if (!quiet) {
        (void)fail("%s", line.c_str());
    }
}

std::vector<std::string> name_space_rights::listed(int role, int kind) {
    std::vector<std::string> names;
    for (qz_cursor at(qz_set_open(principals(&row(role), kind))); !at.at_end(); at.next()) {
        const std::string name = at.data<const char>();
        const bool everybody = role == role_pub && kind == kind_user && name == "*";
        if (!everybody && !(role == role_admin && is_built_in_principal(name))) {
            names.push_back(name);
        }
    }
    return names;
}

std::vector<listed_role> find_listed(const daemon_config& config, const std::string& name,
                                     bool longer) {
    std::vector<listed_role> found;
    for (const name_space& where : configured_name_spaces(config)) {
        if (where.root.empty()) {
            continue;
        }
        name_space_rights rights(where, true);
        for (const role_number role : all_roles) {
            for (const std::string& entry : rights.listed(role, kind_user)) {
                const bool begins = entry.size() > name.size() && starts_with_nocase(entry, name);
                if (longer ? begins : entry == name) {
                    found.push_back({where.name, role, entry});
                }
            }
        }
    }
    return found;
}

std::string in_words(const std::vector<listed_role>& roles) {
    std::string words;
    for (const listed_role& entry : roles) {
        words.append(words.empty() ? "" : ", ").append(role_name(entry.role));
        words.append(" in ").append(entry.name_space);
    }
    return words;
}
