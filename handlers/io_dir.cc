#include "handlers/io_dir.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/io_class.h"
#include "core/route.h"
#include "core/string.h"

namespace {

constexpr std::size_t row_bytes = 2560;
constexpr std::size_t field_bytes = 64;
constexpr std::string_view access_file = ".dovmaaccess";

struct directory_closer {
    void operator()(DIR* directory) const { (void)closedir(directory); }
};

}  // namespace

struct dir_listing {
    std::unique_ptr<DIR, directory_closer> directory;
    std::string row_start;  // what stands in front of each name
    struct stat status;     // of the latest entry that had one
};

namespace {

// Kept: kilobytes are one too many, so 1024 bytes show as 2k.
std::string_view format_size(const struct stat& status, std::array<char, field_bytes>* text) {
    if (S_ISDIR(status.st_mode)) {
        return "&lt;DIR&gt;";
    }
    const auto size = static_cast<unsigned long>(status.st_size);
    if (size >= 1024UL * 1024) {
        constexpr float megabytes_per_byte = 1.0F / 1048576.0F;
        const float megabytes = static_cast<float>(size) * megabytes_per_byte;
        const int length =
            my_snprintf(text->data(), text->size(), "%.1fM", static_cast<double>(megabytes));
        return {text->data(), static_cast<std::size_t>(length)};
    }
    const bool kilobytes = size >= 1024;
    char* end =
        std::to_chars(text->data(), text->data() + text->size(), kilobytes ? size / 1024 + 1 : size)
            .ptr;
    if (kilobytes) {
        *end++ = 'k';
    }
    return {text->data(), static_cast<std::size_t>(end - text->data())};
}

// "%d-%b-%Y %H:%M" in local time. Neighbours in a listing often share their minute.
std::string_view format_minute(std::time_t t) {
    static std::time_t minute = -1;
    static char text[field_bytes];
    static std::size_t length = 0;
    const std::time_t wanted = t - t % 60;
    if (wanted != minute) {
        std::tm local{};
        localtime_r(&t, &local);
        length = std::strftime(text, sizeof text, "%d-%b-%Y %H:%M", &local);
        minute = local.tm_gmtoff % 60 == 0 ? wanted : -1;
    }
    return {text, length};
}

// Writes the entry's row and returns its length; a longer one than row_bytes allows is cut.
// Kept: names stand in the page as they are, neither HTML-escaped nor URL-encoded.
std::size_t format_row(const dir_listing& listing, std::string_view name, char* out) {
    const bool is_directory = S_ISDIR(listing.status.st_mode);
    std::array<char, field_bytes> size;  // NOLINT(*-member-init): filled by format_size
    std::size_t length = 0;
    for (const std::string_view piece :
         {std::string_view(listing.row_start), name, std::string_view("\">"), name,
          std::string_view(is_directory ? "/</a></td><td>&nbsp;" : "</a></td><td>&nbsp;"),
          format_minute(listing.status.st_mtime), std::string_view("</td><td>&nbsp;&nbsp;"),
          format_size(listing.status, &size), std::string_view("</td></tr>\n")}) {
        const std::size_t n = std::min(piece.size(), row_bytes - 1 - length);
        std::memcpy(out + length, piece.data(), n);
        length += n;
    }
    return length;
}

bool is_listed(std::string_view name) {
    return name != "." && name != access_file;
}

// Appends rows while a row of any length fits.
// Kept: an entry without a status shows that of the entry before it.
ssize_t read_dir(stream* s, void* buffer, std::size_t length) {
    dir_listing* listing = s->channel.dir;
    char* out = static_cast<char*>(buffer);
    std::size_t used = 0;
    while (length - used >= row_bytes) {
        const dirent* entry = readdir(listing->directory.get());
        if (entry == nullptr) {
            s->clear(sf_keep_open);               // now a read of 0 bytes is the end
            s->content_length = s->total + used;  // and this one, when it gives any
            return static_cast<ssize_t>(used);
        }
        if (!is_listed(entry->d_name)) {
            continue;
        }
        (void)fstatat(dirfd(listing->directory.get()), entry->d_name, &listing->status, 0);
        used += format_row(*listing, entry->d_name, out + used);
    }
    if (s->size < row_bytes) {
        s->clear(sf_keep_open);  // no row will ever fit
    }
    return static_cast<ssize_t>(used);
}

void close_dir(stream* s) {
    delete s->channel.dir;
    s->channel.dir = nullptr;
}

}  // namespace

constinit const io_class io_dir = {
    .name = "dir",
    .read = read_dir,
    .write = nullptr,
    .close = close_dir,
};

void get_dir(conn* c, const std::string& path) {
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        send_server_error(c, 500, "Cannot open directory", errno);
        return;
    }
    c->reply.status = 200;
    c->close_after = true;
    stream& local = c->local;
    local.put(
        "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/html; charset=utf-8\r\n\r\n");
    if (c->request.method == method_head) {
        (void)closedir(directory);
        stop_stream(&local);
        return;
    }
    const char* uri = c->request.uri.c_str();
    local.put(
        "<html><head><title>Index of %s</title><style>th {text-align: left;}</style></head>"
        "<body><h1>Index of %s</h1><pre><table cellpadding=\"0\">"
        "<tr><th>Name</th><th>Modified</th><th>Size</th></tr>"
        "<tr><td colspan=\"3\"><hr></td></tr>",
        uri, uri);
    install_class(&local, &io_dir, -1,
                  sf_readable | sf_keep_open | sf_always_ready | sf_more_follows);
    local.channel.dir =
        new dir_listing{.directory = std::unique_ptr<DIR, directory_closer>(directory),
                        .row_start = std::string("<tr><td><a href=\"").append(uri),
                        .status = {}};
}
