// dovmad-user: the configuration file, the terminal, messages.
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "core/config_line.h"
#include "core/paths.h"
#include "lib/file.h"
#include "lib/utf8.h"
#include "provider/tool.h"

namespace {

constexpr std::size_t longest_secret = 512;

// Reads one line without its end, byte by byte so that nothing is left in another buffer. False: no
// line, one that is too long, or one with `forbidden` or a zero byte in it.
bool read_line(int fd, char forbidden, secret* result) {
    result->text.reserve(longest_secret + 1);
    for (;;) {
        char c = 0;
        const ssize_t n = read(fd, &c, 1);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 || (n == 0 && result->text.empty())) {
            return false;
        }
        if (n == 0 || c == '\n') {
            break;
        }
        if (c == '\0' || c == forbidden || result->text.size() == longest_secret) {
            return false;
        }
        result->text += c;
    }
    if (!result->text.empty() && result->text.back() == '\r') {
        result->text.pop_back();
    }
    return true;
}

// False: no terminal after all, or the answer was interrupted or no line.
bool ask(const std::string& prompt, secret* result) {
    termios before{};
    if (tcgetattr(STDIN_FILENO, &before) != 0) {
        return false;
    }
    termios silent = before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    // The cursor moves on although nothing else is shown.
    silent.c_lflag |= ECHONL;
    // An interrupt must not leave the terminal silent: it becomes input that ends the line.
    silent.c_lflag &= ~static_cast<tcflag_t>(ISIG);
    silent.c_cc[VEOL] = before.c_cc[VINTR];
    if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) != 0) {
        return false;
    }
    // Asked only now: an answer typed before the change would have been thrown away by it.
    (void)std::fprintf(stderr, "%s: ", prompt.c_str());
    (void)std::fflush(stderr);
    const bool read = read_line(STDIN_FILENO, static_cast<char>(before.c_cc[VINTR]), result);
    (void)tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    return read;
}

}  // namespace

std::string daemon_config::get(std::string_view keyword, std::string_view fallback) const {
    const auto found = values.find(keyword);
    return found == values.end() ? std::string(fallback) : found->second;
}

int fail(const char* format, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    (void)std::fprintf(stderr, "dovmad-user: %s\n", text.data());
    return exit_failed;
}

void warn(const char* format, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    (void)std::fprintf(stderr, "dovmad-user: warning: %s\n", text.data());
}

std::string json_text(std::string_view text) {
    std::string quoted = "\"";
    append_json_text(&quoted, text);
    return quoted + '"';
}

bool read_config(const tool_options& options, daemon_config* config, bool needed) {
    const file_ptr file = stream_of(open_regular(options.config_file.c_str()), "r");
    if (!file) {
        if (errno == ENOENT && !options.config_required && !needed) {
            return true;
        }
        (void)fail("%s: %s%s", options.config_file.c_str(), strerror(errno),
                   errno == ENOENT && !options.config_required ? "; name one with -c" : "");
        return false;
    }
    config_line line;
    while (next_config_line(file.get(), &line)) {
        if (!line.keyword.empty()) {
            config->values.insert_or_assign(line.keyword, line.value);
        }
    }
    return true;
}

std::string find_data_dir(const tool_options& options) {
    if (!options.data_dir.empty()) {
        return options.data_dir;
    }
    const char* exported = std::getenv("ZEL_DATA_DIR");
    if (exported != nullptr && *exported != '\0') {
        return exported;
    }
    daemon_config config;
    if (!read_config(options, &config)) {
        return {};
    }
    return config.get("var_dir", paths.var_directory) + "/sec";
}

secret::~secret() {
    explicit_bzero(text.data(), text.capacity());
}

bool read_secret(const std::string& prompt, bool repeat, secret* result) {
    if (isatty(STDIN_FILENO) == 0) {
        if (!read_line(STDIN_FILENO, '\0', result)) {
            (void)fail("no password on standard input");
            return false;
        }
        return true;
    }
    secret again;
    if (!ask(prompt, result) || (repeat && !ask("Again", &again))) {
        (void)fail("no password");
        return false;
    }
    if (repeat && again.text != result->text) {
        (void)fail("the passwords differ");
        return false;
    }
    return true;
}
