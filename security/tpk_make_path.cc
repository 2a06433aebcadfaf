#include "security/tpk_make_path.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "security/at_osf.h"

const char* molbat_loc_path = nullptr;
std::string molbat_load_problem;

namespace {

constexpr std::string_view template_prefix = "/opt/MOLBat/";
constexpr const char* default_install_dir = "/opt/MOLBat";
constexpr std::size_t directory_bytes_max = 2047;
constexpr std::size_t component_bytes_max = 1023;

struct free_text {
    void operator()(char* text) const { std::free(text); }
};

// A text of the given settings, else of the environment; empty when neither is set.
std::string_view setting(const char* specified, const char* variable) {
    if (specified != nullptr && *specified != '\0') {
        return specified;
    }
    const char* value = std::getenv(variable);
    return value != nullptr ? std::string_view(value) : std::string_view();
}

// The installation directory that the location file names. A file without the entry stands for the
// default directory, a missing one for a library that is not installed.
std::uint32_t installed_base(std::string* base) {
    struct stat st {};
    if (molbat_loc_path == nullptr || at_os_stat_i(molbat_loc_path, &st) != at_ok) {
        return at_not_available;
    }
    char* directory = nullptr;
    (void)get_install_dir(molbat_loc_path, default_install_dir, &directory);
    const std::unique_ptr<char, free_text> owner(directory);
    if (directory == nullptr || std::strlen(directory) > directory_bytes_max) {
        return at_no_memory;
    }
    *base = directory;
    return at_ok;
}

// Kept: one '/' is taken off the end, so "/H//" gives "/H//lib/...".
std::uint32_t base_directory(std::string_view home, std::string* base) {
    if (home.size() > directory_bytes_max) {
        return at_no_memory;
    }
    *base = home;
    const std::uint32_t result = home.empty() ? installed_base(base) : std::uint32_t{at_ok};
    if (base->ends_with('/')) {
        base->pop_back();
    }
    return result;
}

// The template's part behind the installation directory; a blank ends it. Below a home directory
// the folders between its first and its last '/' do not exist: "lib//x.so" is "lib/x.so" there.
// Kept: below an installation directory the doubled '/' stays.
std::uint32_t relative_part(std::string_view path, bool under_home, std::string* relative) {
    if (!path.starts_with(template_prefix)) {
        return at_invalid_argument;
    }
    path.remove_prefix(template_prefix.size());
    *relative = path.substr(0, path.find_first_of(" \t\n"));
    if (relative->empty()) {
        return at_invalid_argument;
    }
    const std::size_t first = relative->find('/');
    if (under_home && first != std::string::npos) {
        relative->erase(first, relative->rfind('/') - first);
    }
    return at_ok;
}

}  // namespace

int tpk_method_make_path_ex(int kind, const char* path_template, const molb_init* settings,
                            std::size_t size, char* out, std::uint32_t* error) {
    const auto fail = [error](std::uint32_t code) {
        *error = code;
        return 0;
    };
    if (kind != 0 && kind != 3 && kind != 4) {
        return fail(at_invalid_argument);
    }
    const std::string_view path(path_template);
    if (path.size() >= size) {
        return fail(at_no_memory);
    }
    const molb_init given = settings != nullptr ? *settings : molb_init{};
    const std::string_view library_path = setting(given.library_path, "ZEL_USE_LIBPATH");
    const std::string_view home =
        kind == 3 ? std::string_view() : setting(given.home, "ZEL_HOME_DIR");

    std::string base;
    std::string relative;
    // Kept: only that a library path is set counts, not which one: dlopen searches on its own.
    if (!library_path.empty()) {
        relative = path.substr(path.rfind('/') + 1);
        if (relative.size() > component_bytes_max) {
            return fail(at_no_memory);
        }
    } else {
        std::uint32_t result = base_directory(home, &base);
        if (result == at_ok) {
            result = relative_part(path, !home.empty(), &relative);
        }
        if (result != at_ok) {
            return fail(result);
        }
    }
    if (relative.size() + base.size() + 2 > size) {
        return fail(at_no_memory);
    }
    const std::string text = library_path.empty() ? base + "/" + relative : relative;
    std::memcpy(out, text.c_str(), text.size() + 1);
    *error = at_ok;
    return 1;
}

int tpk_method_make_path(int kind, const char* path_template, std::size_t size, char* out,
                         std::uint32_t* error) {
    return tpk_method_make_path_ex(kind, path_template, nullptr, size, out, error);
}

std::uint32_t get_install_dir(const char* file, const char* fallback, char** out) {
    *out = nullptr;
    std::FILE* in = nullptr;
    if (at_os_fopen_nr(file, "r", &in) != 0) {
        return at_no_memory;
    }
    std::array<char, directory_bytes_max + 1> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), in) != nullptr) {
        if (line[0] == '#') {
            continue;
        }
        char* rest = nullptr;
        const char* name = strtok_r(line.data(), " =", &rest);
        const char* value = strtok_r(nullptr, " =", &rest);
        if (name != nullptr && value != nullptr && std::strcmp(name, "ProductInstallDir") == 0) {
            *out = strndup(value, std::strcspn(value, "\r\n"));
            break;
        }
    }
    (void)std::fclose(in);
    if (*out != nullptr) {
        return at_ok;
    }
    // Kept: the code says "not found" although *out holds a usable directory.
    *out = strdup(fallback);
    return at_no_memory;
}
