#include "handlers/io_ssi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/io_class.h"
#include "core/log.h"
#include "core/loop_watch.h"
#include "core/pass_work.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "core/route.h"
#include "core/shttpd.h"
#include "core/string.h"
#include "handlers/io_file.h"
#include "handlers/ssi_exec.h"
#include "handlers/ssi_scanner.h"
#include "lib/unique_fd.h"

namespace {

constexpr int level_count = 6;  // the requested page and five includes below it
constexpr std::size_t path_bytes = 2048;
constexpr std::size_t command_bytes = 512;

// How much of a page one read may work through: sections that are not sent and directives without
// output fill no buffer, and the other clients wait meanwhile.
constexpr std::size_t work_max = 65536;
constexpr std::size_t directive_work = 1024;  // counts as much as so many characters

enum class level_state : std::uint8_t {
    text,      // copying the file
    starting,  // a command waits for its turn
    relaying,  // copying a command's output
    calling,   // an SSI function has more to write
};

struct file_closer {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

// One page of the nesting.
struct ssi_level {
    level_state state = level_state::text;
    bool skip = false;  // this section is not sent
    file_ptr file;
    ssi_scanner scanner;
    std::string command;             // that waits for its turn
    unique_fd pipe;                  // of the command that is relayed
    const ssi_func* func = nullptr;  // the function that is called,
    void* func_state = nullptr;      // and its word
};

// The room that one read may fill, and the work it may do for it.
struct page_output {
    char* at = nullptr;
    std::size_t length = 0;
    std::size_t used = 0;
    std::size_t work_left = work_max;

    [[nodiscard]] std::size_t room() const { return length - used; }
    void put(std::string_view text) {
        std::copy(text.begin(), text.end(), at + used);
        used += text.size();
    }
    void spend(std::size_t work) { work_left -= std::min(work, work_left); }
};

}  // namespace

struct ssi_descriptor {
    conn* connection = nullptr;
    int index = 0;
    bool finished = false;
    std::array<ssi_level, level_count> levels;

    ssi_level& level() { return levels[static_cast<std::size_t>(index)]; }
};

namespace {

// A page is always ready to be read; a command is when its pipe is.
constexpr std::uint32_t copying_flags = sf_readable | sf_keep_open | sf_always_ready;
constexpr std::uint32_t relaying_flags = sf_readable | sf_keep_open;

// For "%.*s".
int print_length(std::string_view text) {
    return static_cast<int>(text.size());
}

// --- Functions ---

// Of functions with the same name the first one registered.
const ssi_func* find_function(conn* c, std::string_view name) {
    for (const ssi_func& func : c->ctx->ssi_funcs) {
        if (func.name == name) {
            return &func;
        }
    }
    return nullptr;
}

// Conditions have no output and no state; a name that nobody registered is false.
bool evaluate(conn* c, std::string_view argument) {
    const ssi_func* func = find_function(c, trim_blanks(argument));
    if (func == nullptr) {
        return false;
    }
    shttpd_call_arg arg{};
    arg.connection = c;
    arg.user_data = func->user_data;
    func->handler(&arg);
    return (arg.flags & ARG_SSI_EVAL_TRUE) != 0;
}

// Lets the level's function write into the room that is left. True when it is done.
bool call_function(conn* c, ssi_level* level, page_output* out, unsigned flags) {
    shttpd_call_arg arg{};
    arg.connection = c;
    arg.state = level->func_state;
    arg.user_data = level->func->user_data;
    arg.out.ptr = out->at + out->used;
    arg.out.len = static_cast<std::int32_t>(std::min<std::size_t>(out->room(), INT32_MAX));
    arg.flags = flags;
    level->func->handler(&arg);
    out->used += static_cast<std::size_t>(std::clamp(arg.out.used, 0, arg.out.len));
    level->func_state = arg.state;
    return (arg.flags & ARG_END_OF_OUTPUT) != 0;
}

// --- Directives ---

void do_call(ssi_descriptor* ssi, std::string_view argument) {
    ssi_level& level = ssi->level();
    if (level.skip) {
        return;
    }
    const std::string_view name = trim_blanks(argument);
    level.func = find_function(ssi->connection, name);
    if (level.func == nullptr) {
        elog(elog_info, ssi->connection, "ssi: no function: call(%.*s)", print_length(name),
             name.data());
        return;
    }
    level.func_state = nullptr;
    level.state = level_state::calling;
}

// Starts the level's command; its output is relayed as it comes, so that a slow one stops nobody.
void start_command(ssi_descriptor* ssi) {
    const pass_work_timer time(pass_work::starts);
    rename_step("the start of a command");
    ssi_level& level = ssi->level();
    conn* c = ssi->connection;
    unique_fd pipe = start_shell_command(level.command.c_str());
    if (!pipe || !poll_stream(&c->local, pipe.get())) {
        elog(elog_info, c, "ssi: popen(%s)", level.command.c_str());
        level.state = level_state::text;
        return;
    }
    c->local.channel.fd = pipe.get();  // what the slot waits on
    c->local.flags = relaying_flags;
    level.pipe = std::move(pipe);
    level.state = level_state::relaying;
}

// False when other programs have taken this pass's time for starts.
bool start_in_turn(ssi_descriptor* ssi) {
    conn* c = ssi->connection;
    c->held = !take_turn(c, pass_work::starts);
    if (c->held) {
        return false;
    }
    start_command(ssi);
    return true;
}

// Kept: the command is URL-decoded, which makes "+" a blank.
void do_exec(ssi_descriptor* ssi, std::string_view argument) {
    ssi_level& level = ssi->level();
    conn* c = ssi->connection;
    if (level.skip) {
        return;
    }
    const auto quoted = parse_ssi_exec(argument);
    if (!quoted) {
        const std::string_view text = trim_blanks(argument);
        elog(elog_info, c, "ssi: bad exec(%.*s)", print_length(text), text.data());
        return;
    }
    char command[command_bytes];
    if (url_decode(quoted->data(), quoted->size(), command, sizeof command) >= command_bytes - 1) {
        elog(elog_info, c, "ssi: cannot url_decode: exec(%.*s)", print_length(*quoted),
             quoted->data());
        return;
    }
    level.command = command;
    level.state = level_state::starting;
}

// Kept: a name may climb out of the root. Whoever writes pages may run commands, too.
std::string include_path(const conn* c, const ssi_include& include) {
    const std::string& root = request_root(c);
    std::string prefix;
    if (include.form == ssi_include_form::beside_page) {
        prefix = root + "/" + c->request.uri;
        prefix.resize(prefix.rfind('/') + 1);
    } else if (include.form == ssi_include_form::below_root) {
        prefix = root + "/";
    }
    char path[path_bytes];
    const auto used =
        static_cast<std::size_t>(my_snprintf(path, sizeof path, "%s", prefix.c_str()));
    (void)url_decode(include.name.data(), include.name.size(), path + used, sizeof path - used);
    return path;
}

// Opens a file without ever waiting for it: a FIFO without a writer would stop the daemon.
file_ptr open_page(const char* path) {
    unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) {
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
        return nullptr;
    }
    file_ptr file(fdopen(fd.get(), "r"));
    if (file != nullptr) {
        (void)fd.release();  // the stream closes it
    }
    return file;
}

void do_include(ssi_descriptor* ssi, std::string_view argument) {
    if (ssi->level().skip) {
        return;
    }
    conn* c = ssi->connection;
    if (ssi->index + 1 >= level_count) {
        elog(elog_info, c, "ssi: #include: maximum nested level reached");
        return;
    }
    const auto include = parse_ssi_include(argument);
    if (!include) {
        elog(elog_info, c, "ssi: bad #include: [%.*s]", print_length(argument), argument.data());
        return;
    }
    const std::string path = include_path(c, *include);
    file_ptr file = open_page(path.c_str());
    if (file == nullptr) {
        elog(elog_info, c, "ssi: fopen(%s): %s", path.c_str(), std::strerror(errno));
        return;
    }
    ++ssi->index;
    ssi->level() = ssi_level();  // a used level still holds its last section's state
    ssi->level().file = std::move(file);
}

// Carries out the directive that the scanner holds; false: it is none.
// Kept: conditions nested in a skipped section decide about it, and an "elif" behind a branch that
// was sent skips, so that a further "elif" is judged again.
bool run_directive(ssi_descriptor* ssi, const ssi_directive& directive) {
    conn* c = ssi->connection;
    bool& skip = ssi->level().skip;
    switch (directive.command) {
        case ssi_command::include:
            do_include(ssi, directive.argument);
            return true;
        case ssi_command::condition_if:
            skip = !evaluate(c, directive.argument);
            return true;
        case ssi_command::condition_elif:
            skip = !skip || !evaluate(c, directive.argument);
            return true;
        case ssi_command::condition_else:
            skip = !skip;
            return true;
        case ssi_command::condition_endif:
            skip = false;
            return true;
        case ssi_command::call:
            do_call(ssi, directive.argument);
            return true;
        case ssi_command::exec:
            do_exec(ssi, directive.argument);
            return true;
        case ssi_command::unknown:
            return false;
    }
    return false;
}

// --- Reading; each step returns false when the read must end ---

// The end of a page: what was held back is text after all. The page below goes on.
bool end_level(ssi_descriptor* ssi, page_output* out) {
    ssi_level& level = ssi->level();
    if (!level.skip) {
        out->put(level.scanner.pending());
    }
    level.scanner.clear();
    level.file.reset();
    ssi->finished = ssi->index == 0;
    if (!ssi->finished) {
        --ssi->index;
    }
    return !ssi->finished;
}

// Takes what the scanner holds out of it and sends it or carries it out.
void end_pending(ssi_descriptor* ssi, ssi_scanner::event event, page_output* out) {
    ssi_level& level = ssi->level();
    const std::string held(level.scanner.pending());
    level.scanner.clear();
    out->spend(event == ssi_scanner::event::directive ? directive_work : 0);
    const bool done =
        event == ssi_scanner::event::directive && run_directive(ssi, parse_ssi_directive(held));
    if (!done && !level.skip) {
        out->put(held);
    }
}

// Stops while what is held back would still fit: nothing that turns out to be text is ever cut.
bool copy_text(ssi_descriptor* ssi, page_output* out) {
    ssi_level& level = ssi->level();
    while (level.scanner.pending().size() < out->room()) {
        if (out->work_left == 0) {
            visit_soon(ssi->connection);
            return false;
        }
        out->spend(1);
        const int c = getc_unlocked(level.file.get());
        if (c == EOF) {
            return end_level(ssi, out);
        }
        const char character = static_cast<char>(c);
        const ssi_scanner::event event = level.scanner.feed(character);
        if (event == ssi_scanner::event::character) {
            if (!level.skip) {
                out->put({&character, 1});
            }
        } else if (event != ssi_scanner::event::held) {
            end_pending(ssi, event, out);
            return true;  // the level or its state may be another one now
        }
    }
    return false;
}

// Goes on with the page behind the command.
void end_relay(ssi_descriptor* ssi) {
    stream& local = ssi->connection->local;
    put_poll_index(local.poll_index);
    local.poll_index = -1;
    local.channel.fd = -1;
    local.flags = copying_flags;
    ssi->level().pipe.reset();
    ssi->level().state = level_state::text;
}

// One read a visit: the engine knows when there is more.
bool relay_output(ssi_descriptor* ssi, page_output* out) {
    if (out->room() == 0) {
        return false;
    }
    const ssize_t n = read(ssi->level().pipe.get(), out->at + out->used, out->room());
    if (n > 0) {
        out->used += static_cast<std::size_t>(n);
        return false;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return false;
    }
    end_relay(ssi);
    return true;
}

// Kept: a function that neither writes nor ends is called again until the client gives up, once a
// second at least.
bool continue_call(ssi_descriptor* ssi, page_output* out) {
    ssi_level& level = ssi->level();
    if (out->room() == 0 || !call_function(ssi->connection, &level, out, 0)) {
        return false;
    }
    level.state = level_state::text;
    return true;
}

bool next_step(ssi_descriptor* ssi, page_output* out) {
    switch (ssi->level().state) {
        case level_state::text:
            return copy_text(ssi, out);
        case level_state::starting:
            return start_in_turn(ssi);
        case level_state::relaying:
            return relay_output(ssi, out);
        case level_state::calling:
            return continue_call(ssi, out);
    }
    return false;
}

ssize_t read_ssi(stream* s, void* buffer, std::size_t length) {
    ssi_descriptor* ssi = s->channel.ssi;
    page_output out{.at = static_cast<char*>(buffer), .length = length};
    while (!ssi->finished && next_step(ssi, &out)) {
    }
    if (ssi->finished) {
        s->clear(sf_keep_open);                   // now a read of 0 bytes is the end
        s->content_length = s->total + out.used;  // and this one, when it gives any
    }
    return static_cast<ssize_t>(out.used);
}

// Closes what every level holds. A function that was not done is told, so that it can let go of its
// state.
void close_ssi(stream* s) {
    ssi_descriptor* ssi = s->channel.ssi;
    ssi_level& level = ssi->level();
    if (level.state == level_state::calling) {
        page_output none{.at = nullptr, .length = 0};
        (void)call_function(ssi->connection, &level, &none, ARG_CONNECTION_ERROR);
    }
    delete ssi;
    s->channel.ssi = nullptr;
}

void write_head(conn* c) {
    char date[64];
    format_http_date(current_time, date);
    stream& local = c->local;
    local.put(
        "HTTP/1.1 200 OK\r\nDate: %s\r\nContent-Type: text/html\r\n"
        "Connection: close\r\n\r\n",
        date);
    local.end_head();
}

}  // namespace

constinit const io_class io_ssi = {
    .name = "ssi",
    .read = read_ssi,
    .write = nullptr,
    .close = close_ssi,
};

void do_ssi(conn* c) {
    c->reply.status = 200;
    c->close_after = true;
    // Until io_ssi is installed the descriptor is io_file's, which closes it on the early ways out.
    if (c->request.method == method_head) {
        write_head(c);
        stop_stream(&c->local);
        return;
    }
    std::unique_ptr<ssi_descriptor> ssi(new (std::nothrow) ssi_descriptor);
    std::FILE* file = ssi != nullptr ? fdopen(c->local.channel.fd, "r") : nullptr;
    if (file == nullptr) {
        send_server_error(c, 500, "Cannot allocate SSI descriptor", ENOMEM);
        return;
    }
    ssi->connection = c;
    ssi->level().file.reset(file);
    write_head(c);
    install_class(&c->local, &io_ssi, -1, copying_flags);
    c->local.channel.ssi = ssi.release();
}
