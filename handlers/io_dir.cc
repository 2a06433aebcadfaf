#include "handlers/io_dir.h"

#include <dirent.h>
#include <sys/stat.h>

#include <ctime>
#include <memory>
#include <string_view>

#include "core/compat_unix.h"
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
    std::string path;
    struct stat status;  // of the latest entry that had one
};

namespace {

// Kept: kilobytes are one too many, so 1024 bytes show as 2k.
void format_size(const struct stat& status, char* out) {
    const auto size = static_cast<unsigned long>(status.st_size);
    if (S_ISDIR(status.st_mode)) {
        (void)my_snprintf(out, field_bytes, "%s", "&lt;DIR&gt;");
    } else if (size < 1024) {
        (void)my_snprintf(out, field_bytes, "%lu", size);
    } else if (size < 1024UL * 1024) {
        (void)my_snprintf(out, field_bytes, "%luk", size / 1024 + 1);
    } else {
        constexpr float megabytes_per_byte = 1.0F / 1048576.0F;
        const float megabytes = static_cast<float>(size) * megabytes_per_byte;
        (void)my_snprintf(out, field_bytes, "%.1fM", static_cast<double>(megabytes));
    }
}

// Writes the entry's row and returns its length.
// Kept: names stand in the page as they are, neither HTML-escaped nor URL-encoded.
std::size_t format_row(const conn* c, const dir_listing& listing, const char* name, char* out) {
    char size[field_bytes];
    format_size(listing.status, size);
    char modified[field_bytes];
    std::tm local{};
    localtime_r(&listing.status.st_mtime, &local);
    modified[std::strftime(modified, sizeof modified, "%d-%b-%Y %H:%M", &local)] = '\0';
    const int length = my_snprintf(
        out, row_bytes,
        "<tr><td><a href=\"%s%s%s\">%s%s</a></td><td>&nbsp;%s</td><td>&nbsp;&nbsp;%s</td></tr>\n",
        c->request.uri.c_str(), "", name, name, S_ISDIR(listing.status.st_mode) ? "/" : "",
        modified, size);
    return static_cast<std::size_t>(length);
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
            s->flags &= ~std::uint32_t{sf_keep_open};  // now a read of 0 bytes is the end
            return static_cast<ssize_t>(used);
        }
        if (!is_listed(entry->d_name)) {
            continue;
        }
        (void)my_stat((listing->path + entry->d_name).c_str(), &listing->status);
        used += format_row(s->connection, *listing, entry->d_name, out + used);
    }
    if (s->size < row_bytes) {
        s->flags &= ~std::uint32_t{sf_keep_open};  // no row will ever fit
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

void get_dir(conn* c, std::string path) {
    DIR* directory = opendir(path.c_str());
    if (directory == nullptr) {
        send_server_error(c, 500, "Cannot open directory");
        return;
    }
    const char* uri = c->request.uri.c_str();
    stream& local = c->local;
    local.head = static_cast<std::size_t>(my_snprintf(
        local.buffer, local.size,
        "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/html; charset=utf-8\r\n\r\n"
        "<html><head><title>Index of %s</title><style>th {text-align: left;}</style></head>"
        "<body><h1>Index of %s</h1><pre><table cellpadding=\"0\">"
        "<tr><th>Name</th><th>Modified</th><th>Size</th></tr>"
        "<tr><td colspan=\"3\"><hr></td></tr>",
        uri, uri));
    c->request.status = 200;
    c->close_after = true;
    install_class(&local, &io_dir, -1, sf_readable | sf_keep_open | sf_always_ready);
    local.channel.dir =
        new dir_listing{.directory = std::unique_ptr<DIR, directory_closer>(directory),
                        .path = std::move(path),
                        .status = {}};
}
