#include "core/mime_type.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "core/context.h"
#include "core/log.h"
#include "core/shttpd.h"
#include "core/string.h"

namespace {

struct default_mime_type {
    std::string_view extension;
    const char* type;
};

// The first row that fits decides, so "tar.gz" stands before "gz".
// Kept: "rar" has the type of "arj".
constexpr std::array<default_mime_type, 36> default_mime_types = {{
    {"html", "text/html"},
    {"htm", "text/html"},
    {"txt", "text/plain"},
    {"css", "text/css"},
    {"ico", "image/x-icon"},
    {"gif", "image/gif"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"png", "image/png"},
    {"svg", "image/svg+xml"},
    {"torrent", "application/x-bittorrent"},
    {"wav", "audio/x-wav"},
    {"mp3", "audio/x-mp3"},
    {"mid", "audio/mid"},
    {"m3u", "audio/x-mpegurl"},
    {"ram", "audio/x-pn-realaudio"},
    {"ra", "audio/x-pn-realaudio"},
    {"doc", "application/msword"},
    {"exe", "application/octet-stream"},
    {"zip", "application/x-zip-compressed"},
    {"xls", "application/excel"},
    {"tgz", "application/x-tar-gz"},
    {"tar.gz", "application/x-tar-gz"},
    {"tar", "application/x-tar"},
    {"gz", "application/x-gunzip"},
    {"arj", "application/x-arj-compressed"},
    {"rar", "application/x-arj-compressed"},
    {"rtf", "application/rtf"},
    {"pdf", "application/pdf"},
    {"mpg", "video/mpeg"},
    {"mpeg", "video/mpeg"},
    {"swf", "application/x-shockwave-flash"},
    {"asf", "video/x-ms-asf"},
    {"avi", "video/x-msvideo"},
    {"bmp", "image/bmp"},
    {"json", "application/json"},
}};

constexpr int line_bytes = 512;
constexpr std::string_view white_space = " \t\n\v\f\r";

// The dot may be the first character: ".html" is a page.
bool has_extension(std::string_view name, std::string_view extension) {
    return name.size() > extension.size() && name[name.size() - extension.size() - 1] == '.' &&
           equals_nocase(name.substr(name.size() - extension.size()), extension);
}

// The first word of `text`; `end` receives the position behind it. Empty when there is none.
std::string_view first_word(std::string_view text, std::size_t* end) {
    const std::size_t start = std::min(text.find_first_not_of(white_space), text.size());
    *end = std::min(text.find_first_of(white_space, start), text.size());
    return text.substr(start, *end - start);
}

// Kept: from one extension to the next the scan advances by the length of the type, so it depends
// on the lengths in a line which of its words become extensions, and from which letter on.
void add_line(shttpd_ctx* ctx, std::string_view line) {
    std::size_t end = 0;
    const std::string type(first_word(line, &end));
    for (std::size_t at = end; at < line.size() && line[at] != '\n'; at += type.size()) {
        const std::string extension(first_word(line.substr(at), &end));
        if (extension.empty()) {
            return;
        }
        shttpd_add_mime_type(ctx, extension.c_str(), type.c_str());
    }
}

}  // namespace

const char* get_mime_type(shttpd_ctx* ctx, const char* name, std::size_t length) {
    std::string_view text(name);
    if (length < text.size()) {
        text.remove_prefix(text.size() - length);
    }
    for (const mime_type_record& added : ctx->mime_records) {
        if (has_extension(text, added.extension)) {
            return added.type.c_str();
        }
    }
    for (const default_mime_type& row : default_mime_types) {
        if (has_extension(text, row.extension)) {
            return row.type;
        }
    }
    return "text/plain";
}

void set_mime_types(shttpd_ctx* ctx, const char* path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "re"), std::fclose);
    if (file == nullptr) {
        fatal("set_mime_types: fopen(%s): %s", path, std::strerror(errno));
    }
    char line[line_bytes];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (line[0] != '#' && line[0] != '\n') {
            add_line(ctx, line);
        }
    }
}

void mime_type_destructor(mime_type_record* record) {
    delete record;
}
