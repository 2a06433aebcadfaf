#include "security/access_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "core/compat_unix.h"
#include "core/string.h"
#include "lib/alloc.h"
#include "lib/file.h"
#include "lib/plat.h"
#include "lib/qz_iterator.h"
#include "lib/rbtree.h"

namespace {

constexpr std::size_t line_bytes = 256;  // with the terminator; longer lines come in pieces
constexpr std::size_t stray_bytes_max = 65536;
constexpr std::string_view white_space = " \t\n\v\f\r";

enum class line_kind { nobody, listed, taken_for_another };

// A name that the set finds in a longer one, or in other letters, is not in it: the next write
// drops its line. Where everybody is listed nothing is lost by that.
line_kind add_name(qz_map* set, std::string_view name) {
    if (add_principal(set, name)) {
        return line_kind::listed;
    }
    for (const qz_pair& entry : qz_each(set)) {
        const std::string_view text = qz_as<const char>(entry.key);
        if (text == name || text == "*") {
            return line_kind::listed;
        }
    }
    return line_kind::taken_for_another;
}

// Kept: the type counts by its beginning and ends at white space, so "NAME:users and more" names a
// user, while blanks in a name belong to it.
line_kind add_line(std::string_view line, role_entry* row) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return line_kind::nobody;
    }
    std::string_view type = line.substr(colon + 1);
    type = type.substr(0, type.find_first_of(white_space));
    if (starts_with_nocase(type, "group")) {
        return add_name(row->groups, line.substr(0, colon));
    }
    return starts_with_nocase(type, "user") ? add_name(row->users, line.substr(0, colon))
                                            : line_kind::nobody;
}

// The time as rows remember it: cut to 32 bits on both sides of the comparison, so 2038 changes
// nothing.
std::int32_t seconds(const struct stat& st) {
    return static_cast<std::int32_t>(st.st_mtime);
}

// Reads the file into a row whose sets are empty. A file that is missing leaves them so; any other
// trouble also keeps the file from being replaced by what little is known of it.
void load(const std::string& path, role_entry* row) {
    row->modified = 0;
    row->current = false;
    errno = ENOENT;
    const file_ptr file = path.empty() ? nullptr : stream_of(open_regular(path.c_str()), "r");
    if (file == nullptr) {
        row->unreadable = errno != ENOENT;
        row->reported = row->reported && row->unreadable;
        row->current = !row->unreadable;
        return;
    }
    const std::time_t now = std::time(nullptr);
    row->unreadable = !read_access_file(file.get(), row);
    // Of the opened file, not of the path: a file that replaced it meanwhile is still to be read.
    struct stat st {};
    if (fstat(fileno(file.get()), &st) != 0) {
        return;
    }
    row->loaded_ns = std::int64_t{st.st_mtim.tv_sec} * 1'000'000'000 + st.st_mtim.tv_nsec;
    row->modified = seconds(st);
    // What could not be read to its end is tried again by every check.
    row->current = std::ferror(file.get()) == 0 && st.st_mtime < now;
    row->reported = row->reported && row->unreadable;
}

void append_lines(std::string* text, const qz_map* set, std::string_view type,
                  std::string_view built_in) {
    if (set == nullptr) {
        return;
    }
    for (const qz_pair& entry : qz_each(set)) {
        const std::string_view name = qz_as<const char>(entry.key);
        if (!starts_with_nocase(name, built_in)) {
            text->append(name).append(":").append(type).append("\n");
        }
    }
}

}  // namespace

// Equal in one direction only, hence no order. It decides who holds a role all the same, so the
// trees must search with the probe first and keep the shape that insertion gives them.
int cmp_str(const void* probe, const void* stored) {
    const char* name = static_cast<const char*>(probe);
    const char* entry = static_cast<const char*>(stored);
    if (std::strcmp(entry, "*") == 0) {
        return 0;
    }
    return my_strncasecmp(name, entry, std::strlen(name));
}

bool add_principal(qz_map* set, std::string_view name) {
    qz_owned<char> copy(qz_as<char>(qz_need_bytes(name.size() + 1)));
    std::memcpy(copy.get(), name.data(), name.size());
    copy.get()[name.size()] = '\0';
    const bool inserted = qz_set_insert(set, copy.get()) == 0;
    if (inserted) {
        (void)copy.release();
    }
    return inserted;
}

qz_map* principals(const role_entry* row, int kind) {
    return kind == kind_user ? row->users : row->groups;
}

bool read_access_file(std::FILE* file, role_entry* row) {
    line_pieces lines(file, line_bytes);
    bool names_somebody = false;
    while (lines.next()) {
        const line_kind kind = add_line(lines.visible(), row);
        names_somebody = names_somebody || kind != line_kind::nobody;
        // What a zero byte hides would be lost, too.
        const bool understood =
            kind == line_kind::listed || (kind == line_kind::nobody && is_idle_line(lines.text()));
        if ((!understood || lines.visible().size() < lines.text().size()) &&
            row->strays.size() <= stray_bytes_max) {
            row->stray_numbers.add(lines.number());
            row->strays.append(lines.text()).append("\n");
        }
    }
    return std::ferror(file) == 0 && (row->strays.empty() || names_somebody) &&
           row->strays.size() <= stray_bytes_max;
}

bool refresh_row(const std::string& path, role_entry* row) {
    struct stat st {};
    errno = ENOENT;
    const bool present = !path.empty() && my_stat(path.c_str(), &st) == 0;
    if (!present && errno == ENOENT) {
        row->unreadable = false;  // there is nothing left that a rewrite could lose
    }
    if (row->current && (present ? seconds(st) : 0) == row->modified && row->groups != nullptr &&
        row->users != nullptr) {
        return false;
    }
    clear_row(row);
    row->groups = new_qz_set(cmp_str, qzfree);
    row->users = new_qz_set(cmp_str, qzfree);
    load(path, row);
    return true;
}

std::string access_file_text(const role_entry* row) {
    const qz_owned<char> user(get_admin_user("root"));
    const qz_owned<char> group(get_admin_group("root"));
    std::string text;
    append_lines(&text, row->users, "user", user.get());
    append_lines(&text, row->groups, "group", group.get());
    return text;
}

void clear_row(role_entry* row) {
    qz_set_destroy(row->groups);
    qz_set_destroy(row->users);
    row->groups = nullptr;
    row->users = nullptr;
    row->strays.clear();
    row->stray_numbers = line_numbers();
    row->current = false;
}
