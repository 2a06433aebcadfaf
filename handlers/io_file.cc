#include "handlers/io_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/mime_type.h"
#include "core/route.h"
#include "core/string.h"
#include "lib/unique_fd.h"

namespace {

constexpr std::size_t date_bytes = 64;
constexpr std::size_t directory_bytes_max = 2047;
constexpr mode_t file_mode = 0644;
constexpr mode_t directory_mode = 0755;

// --- The class ---

ssize_t read_file(stream* s, void* buffer, std::size_t length) {
    const ssize_t n = pread(s->channel.fd, buffer, length, s->channel.offset);
    if (n > 0) {
        s->channel.offset += n;
    }
    return n;
}

// Writes all of the buffer, since "the whole body is in" is judged by what was received.
ssize_t write_all(int fd, const char* bytes, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = write(fd, bytes + done, length - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return -1;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// Kept: a failed write is answered like a stored file, with the size that the file has then, and
// the reply announces a body that does not follow.
ssize_t write_file(stream* s, const void* buffer, std::size_t length) {
    conn* c = s->connection;
    const ssize_t n = write_all(s->channel.fd, static_cast<const char*>(buffer), length);
    if (n > 0 && c->body_left > static_cast<std::uint64_t>(n)) {
        return n;
    }
    if (n < 0) {
        log_trouble(c->ctx, c, "upload not written: %s", std::strerror(errno));
    }
    struct stat st {};
    (void)fstat(s->channel.fd, &st);
    c->reply.status = s->channel.put_status;
    s->clear_buffer();
    s->put("HTTP/1.1 %d OK\r\nContent-Length: %lu\r\nConnection: close\r\n\r\n", c->reply.status,
           static_cast<unsigned long>(st.st_size));
    s->end_head();
    stop_stream(s);
    return n;
}

// --- Files kept open between requests ---

// A descriptor that stays open for a moment after its last use. It is used again only for a path
// whose status, asked for on every request, names the very same unchanged file; an open file's
// identity can't be taken over by another one, and its bytes are read anew each time.
struct open_file {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
    timespec changed{};
    int users = 0;
    std::int64_t last_used = 0;
};

constexpr std::size_t open_files_max = 16;
constexpr std::int64_t open_file_idle_s = 2;
constinit std::array<open_file, open_files_max> open_files{};

open_file* find_open_file(const struct stat& st) {
    for (open_file& file : open_files) {
        if (file.fd >= 0 && file.inode == st.st_ino && file.device == st.st_dev &&
            file.changed.tv_sec == st.st_ctim.tv_sec &&
            file.changed.tv_nsec == st.st_ctim.tv_nsec) {
            return &file;
        }
    }
    return nullptr;
}

void forget_open_file(open_file* file) {
    (void)close(file->fd);
    *file = open_file();
}

// Keeps a freshly opened descriptor, in place of the one that has been idle for longest.
void remember_open_file(int fd, const struct stat& st) {
    open_file* place = nullptr;
    for (open_file& file : open_files) {
        if (file.users == 0 && (place == nullptr || file.last_used < place->last_used)) {
            place = &file;
        }
    }
    if (place == nullptr) {
        return;  // all in use: this one is closed after its request
    }
    if (place->fd >= 0) {
        forget_open_file(place);
    }
    *place = {.fd = fd,
              .device = st.st_dev,
              .inode = st.st_ino,
              .changed = st.st_ctim,
              .users = 1,
              .last_used = monotonic_seconds};
}

void close_file(stream* s) {
    const int fd = s->channel.fd;
    if (fd < 0) {
        return;
    }
    for (open_file& file : open_files) {
        if (file.fd == fd) {
            --file.users;
            file.last_used = monotonic_seconds;
            return;
        }
    }
    (void)close(fd);
}

// --- Ranges ---

struct file_range {
    bool present = false;
    bool satisfiable = true;
    unsigned long first = 0;
    unsigned long length = 0;
};

// Kept: the length of "bytes=A-B" is B - A, one byte less than the notation means elsewhere.
file_range parse_range(std::string_view value, unsigned long size) {
    if (value.empty()) {
        return {};
    }
    unsigned long first = 0;
    unsigned long second = 0;
    const std::string text(value);
    const int converted = std::sscanf(text.c_str(), "bytes=%lu-%lu", &first, &second);
    if (converted <= 0) {
        return {};
    }
    const unsigned long end = converted == 2 ? std::min(size, second) : size;
    return {.present = true,
            .satisfiable = first <= end,
            .first = first,
            .length = first <= end ? end - first : 0};
}

class number_text {
  public:
    number_text(unsigned long number, int base)
        : end_(std::to_chars(text_.begin(), text_.end(), number, base).ptr) {}
    [[nodiscard]] std::string_view view() const {
        return {text_.data(), static_cast<std::size_t>(end_ - text_.data())};
    }

  private:
    std::array<char, 24> text_{};
    const char* end_;
};

// The last dates that were formatted: most replies of a second share theirs.
struct date_cache {
    std::time_t time = -1;
    std::array<char, date_bytes> text{};
};

const char* cached_date(date_cache* cache, std::time_t t) {
    if (cache->time != t) {
        cache->time = t;
        format_http_date(t, cache->text.data());
    }
    return cache->text.data();
}

}  // namespace

constinit const io_class io_file{.name = "file",
                                 .read = read_file,
                                 .write = write_file,
                                 .close = close_file,
                                 .takes_body_unpolled = true,
                                 .is_file = true};

void format_http_date(std::time_t t, char* out) {
    constexpr std::array<const char*, 7> days = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    constexpr std::array<const char*, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                    "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::tm tm{};
    if (localtime_r(&t, &tm) == nullptr) {
        tm = std::tm{};
        tm.tm_mday = 1;
        tm.tm_year = 70;
        tm.tm_wday = 4;
    }
    my_snprintf(out, date_bytes, "%s, %02d %s %04ld %02d:%02d:%02d GMT",
                days[static_cast<std::size_t>(tm.tm_wday)], tm.tm_mday,
                months[static_cast<std::size_t>(tm.tm_mon)], tm.tm_year + 1900L, tm.tm_hour,
                tm.tm_min, tm.tm_sec);
}

int open_regular_file(const char* path, struct stat* st) {
    if (!S_ISREG(st->st_mode)) {
        errno = EINVAL;
        return -1;
    }
    const int fd = my_open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0);
    if (fd >= 0 && (fstat(fd, st) != 0 || !S_ISREG(st->st_mode))) {
        (void)close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

int open_shared_file(const char* path, struct stat* st) {
    if (open_file* file = find_open_file(*st); file != nullptr) {
        ++file->users;
        return file->fd;
    }
    int fd = open_regular_file(path, st);
    if (fd < 0 && errno == EMFILE) {
        drop_cached_files();
        fd = open_regular_file(path, st);
    }
    if (fd >= 0) {
        remember_open_file(fd, *st);
    }
    return fd;
}

void get_file(conn* c, const struct stat* st) {
    static date_cache now_cache;
    static date_cache modified_cache;
    request_data& request = c->request;
    stream& local = c->local;
    const auto size = static_cast<unsigned long>(st->st_size);
    if (request.mime == nullptr) {
        request.mime = get_mime_type(c->ctx, request.uri.c_str(), request.uri.size());
    }
    const file_range range = parse_range(request.headers.range, size);
    if (!range.satisfiable) {
        send_server_error(c, 416, "Requested Range Not Satisfiable");
        return;
    }
    const unsigned long length = range.present ? range.length : size;
    std::array<char, 128> content_range{};
    if (range.present) {
        local.channel.offset = static_cast<off_t>(range.first);
        my_snprintf(content_range.data(), content_range.size(),
                    "Content-Range: bytes %lu-%lu/%lu\r\n", range.first, range.first + length - 1,
                    size);
    }
    c->reply.status = range.present ? 206 : 200;
    const number_text modified(static_cast<unsigned long>(st->st_mtime), 16);
    local.put_pieces(
        {range.present ? "HTTP/1.1 206 Partial Content" : "HTTP/1.1 200 OK",
         "\r\nDate: ", cached_date(&now_cache, current_time),
         "\r\nLast-Modified: ", cached_date(&modified_cache, st->st_mtime), "\r\nEtag: \"",
         modified.view(), ".", number_text(size, 16).view(), "\"\r\nContent-Type: ", request.mime,
         "\r\nContent-Length: ", number_text(length, 10).view(),
         "\r\nConnection: keep-alive\r\nAccept-Ranges: bytes\r\n", content_range.data(), "\r\n"});
    local.end_head();
    local.content_length = length;
    local.flags = sf_readable | sf_always_ready;
    if (request.method == method_head || length == 0) {
        stop_stream(&local);
        local.content_length = 0;
    }
}

// From directory to directory: looking each prefix up from the root would take a long path the
// square of its length.
int put_dir(const char* path) {
    const std::string_view text(path);
    unique_fd parent;
    std::size_t start = 0;  // of the name below `parent`
    for (std::size_t at = text.find('/', std::min<std::size_t>(2, text.size()));
         at != std::string_view::npos; at = text.find('/', at + 1)) {
        if (at > directory_bytes_max) {
            errno = ENAMETOOLONG;
            return -1;
        }
        const std::string name(text.substr(start, at - start));
        if (!name.empty()) {
            const int base = parent ? parent.get() : AT_FDCWD;
            unique_fd next(openat(base, name.c_str(), O_PATH | O_CLOEXEC));
            if (!next && mkdirat(base, name.c_str(), directory_mode) == 0) {
                next.reset(openat(base, name.c_str(), O_PATH | O_CLOEXEC));
            }
            if (!next) {
                return -1;
            }
            parent = std::move(next);
        }
        start = at + 1;
        if (start == text.size()) {
            return 0;
        }
    }
    return 1;
}

bool receive_file(conn* c, const char* path, int status) {
    const int fd =
        my_open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, file_mode);
    if (fd < 0) {
        return false;
    }
    install_class(&c->local, &io_file, fd, sf_writable | sf_always_ready);
    c->local.channel.put_status = status;
    c->close_after = true;
    return true;
}

void drop_cached_files() {
    for (open_file& file : open_files) {
        if (file.fd >= 0 && file.users == 0) {
            forget_open_file(&file);
        }
    }
}

bool close_idle_files() {
    static std::int64_t last_check = 0;
    static bool any_idle = false;
    if (last_check == monotonic_seconds) {
        return any_idle;
    }
    last_check = monotonic_seconds;
    any_idle = false;
    for (open_file& file : open_files) {
        if (file.fd < 0 || file.users > 0) {
            continue;
        }
        if (monotonic_seconds - file.last_used > open_file_idle_s) {
            forget_open_file(&file);
        } else {
            any_idle = true;
        }
    }
    return any_idle;
}
