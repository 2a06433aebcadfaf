// dovmad-check: findings, users, access.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "check/check.h"
#include "core/string.h"

namespace {

struct finding_state {
    bool quiet = false;
    int errors = 0;
};

finding_state& findings() {
    static finding_state only;
    return only;
}

// What is named in a finding may hold anything: control bytes must not reach a terminal.
void print_finding(const place& where, const char* kind, const char* format, va_list arguments) {
    std::array<char, 4096> text{};
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    std::string line = where.file;
    line += where.line > 0 ? ":" + std::to_string(where.line) : "";
    line += std::string(": ") + kind + ": " + text.data();
    for (char& c : line) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = '?';
        }
    }
    (void)std::puts(line.c_str());
}

}  // namespace

void error(const place& where, const char* format, ...) {
    ++findings().errors;
    va_list arguments;
    va_start(arguments, format);
    print_finding(where, "error", format, arguments);
    va_end(arguments);
}

void warning(const place& where, const char* format, ...) {
    if (findings().quiet) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    print_finding(where, "warning", format, arguments);
    va_end(arguments);
}

void be_quiet() {
    findings().quiet = true;
}

int error_count() {
    return findings().errors;
}

identity find_identity(const std::string& name) {
    const passwd* entry = getpwnam(name.c_str());
    if (entry == nullptr) {
        return {.name = name};
    }
    return {.name = name, .uid = entry->pw_uid, .gid = entry->pw_gid, .known = true};
}

identity own_identity() {
    const passwd* entry = getpwuid(geteuid());
    return {.name = entry != nullptr ? entry->pw_name : std::to_string(geteuid()),
            .uid = geteuid(),
            .gid = getegid(),
            .known = true};
}

acting_as::acting_as(const identity& who) {
    if (geteuid() != 0 || who.uid == 0 || !who.known) {
        return;
    }
    groups_.resize(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    (void)!getgroups(static_cast<int>(groups_.size()), groups_.data());
    changed_ = initgroups(who.name.c_str(), who.gid) == 0 && setegid(who.gid) == 0 &&
               seteuid(who.uid) == 0;
}

acting_as::~acting_as() {
    if (changed_) {
        (void)!seteuid(0);
        (void)!setegid(getgid());
        (void)setgroups(groups_.size(), groups_.data());
    }
}

int access_error(const std::string& path, int mode) {
    return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 ? 0 : errno;
}

int write_error(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode) ? EISDIR : access_error(path, W_OK);
    }
    if (errno != ENOENT) {
        return errno;
    }
    if (path.ends_with('/')) {
        return EISDIR;
    }
    if (lstat(path.c_str(), &st) == 0) {
        std::array<char, 4096> target{};  // a link that leads nowhere: its target would be made
        const ssize_t length = readlink(path.c_str(), target.data(), target.size() - 1);
        const std::string_view name(target.data(),
                                    static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return name.starts_with('/') ? write_error(std::string(name)) : 0;
    }
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    return access_error(folder, W_OK | X_OK);
}

const std::string& settings::value(std::string_view keyword) const {
    return values[static_cast<std::size_t>(find_option('\0', std::string(keyword).c_str()) -
                                           options.data())];
}

place settings::where(std::string_view keyword) const {
    return {file, lines[static_cast<std::size_t>(find_option('\0', std::string(keyword).c_str()) -
                                                 options.data())]};
}

bool settings::is_set(std::string_view keyword) const {
    return !value(keyword).empty();
}

std::vector<std::string> list_entries(std::string_view list) {
    std::vector<std::string> entries;
    for (std::string_view entry = next_list_entry(list); !entry.empty();
         entry = next_list_entry(list)) {
        entries.emplace_back(entry);
    }
    return entries;
}

std::vector<named_path> named_paths(std::string_view list) {
    std::vector<named_path> found;
    for (const std::string& entry : list_entries(list)) {
        const std::size_t equals = entry.find('=');
        if (equals != std::string::npos && equals > 0) {
            found.push_back({entry.substr(0, equals), entry.substr(equals + 1)});
        }
    }
    return found;
}
