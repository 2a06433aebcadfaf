// dovmad-check: the lines of the configuration file and their values.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <set>

#include "check/check.h"
#include "core/config_line.h"
#include "core/paths.h"
#include "lib/file.h"
#include "lib/unique_fd.h"

namespace {

constexpr int port_max = 65535;
constexpr int first_free_port = 1024;
constexpr long smallest_buffer = 1024;
constexpr long largest_buffer = 16777216;

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// What the reader did not take as it was written.
void check_line(const place& where, const config_line& line) {
    if (line.unfinished) {
        error(where, "the line is longer than 2046 characters: its rest is read as another line");
    } else if (line.cut != '\n') {
        error(where, "the line has no line feed at its end: its last character, \"%c\", is lost",
              line.cut);
    }
    if (line.text.ends_with('\r')) {
        error(where, "the line ends in a carriage return, which becomes part of the value");
    } else if (!line.value.empty() && is_blank(line.value.back())) {
        error(where, "blanks at the end belong to the value: \"%s\"", line.value.c_str());
    }
}

void set_value(settings* conf, const place& where, const config_line& line) {
    const option_row* row = find_option('\0', line.keyword.c_str());
    if (row == nullptr) {
        error(where, "unknown keyword \"%s\"", line.keyword.c_str());
        return;
    }
    const auto at = static_cast<std::size_t>(row - options.data());
    if (conf->lines[at] != 0) {
        warning(where, "%s was set in line %d already; this line counts", row->keyword,
                conf->lines[at]);
    }
    conf->values[at] = line.value;
    conf->lines[at] = where.line;
}

void find_server(settings* conf) {
    conf->server = conf->starter;
    if (!conf->is_set("runtime_uid")) {
        return;
    }
    const identity wanted = find_identity(conf->value("runtime_uid"));
    if (!wanted.known) {
        error(conf->where("runtime_uid"), "there is no user \"%s\"", wanted.name.c_str());
    } else if (conf->starter.uid != 0 && wanted.uid != conf->starter.uid) {
        error(conf->where("runtime_uid"), "only root can become %s, the daemon is started by %s",
              wanted.name.c_str(), conf->starter.name.c_str());
    } else {
        conf->server = wanted;
    }
}

// The numbers that text holds; false when there is more or less than one.
bool read_number(const std::string& text, long* number) {
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *number);
    return result.ec == std::errc() && result.ptr == end;
}

void check_number(const settings& conf, const option_row& row, const std::string& value) {
    long number = 0;
    const place where = conf.where(row.keyword);
    const bool good = read_number(value, &number);
    if ((row.flags & option_on_off) != 0 && (!good || number < 0 || number > 1)) {
        error(where, "%s is 0 or 1, not \"%s\"", row.keyword, value.c_str());
    } else if ((row.flags & option_number) != 0 && !good) {
        error(where, "%s is not a number: \"%s\"", row.keyword, value.c_str());
    } else if ((row.flags & option_number) != 0 &&
               (number < smallest_buffer || number > largest_buffer)) {
        error(where, "%s is not between 1024 and 16777216: %ld", row.keyword, number);
    }
}

// Lists whose entries never hold a blank.
void check_word_list(const settings& conf, const char* keyword, bool programs) {
    if (conf.where(keyword).line == 0) {
        return;  // the defaults of the extensions hold blanks, and are meant to match nothing
    }
    for (const std::string& entry : list_entries(conf.value(keyword))) {
        if (entry.find(' ') != std::string::npos) {
            error(conf.where(keyword), "entries are separated by commas, \"%s\" is one entry%s",
                  entry.c_str(), programs ? ": such programs are sent as text" : "");
        } else if (entry.front() != '.') {
            warning(conf.where(keyword), "\"%s\" does not begin with a dot", entry.c_str());
        }
    }
}

// A list that begins with an empty entry ends there; blanks in front of a comma belong to the
// entry.
void check_entries(const settings& conf, const char* keyword) {
    const std::vector<std::string> entries = list_entries(conf.value(keyword));
    if (entries.empty() && conf.is_set(keyword)) {
        error(conf.where(keyword), "the empty entry at the beginning ends the list");
    }
    // The last one's blanks are those at the line's end, which are reported there.
    for (std::size_t i = 0; i + 1 < entries.size(); ++i) {
        if (is_blank(entries[i].back())) {
            error(conf.where(keyword), "the blank in front of the comma belongs to \"%s\"",
                  entries[i].c_str());
        }
    }
}

void check_pairs(const settings& conf, const char* keyword) {
    std::set<std::string> names;
    for (const std::string& entry : list_entries(conf.value(keyword))) {
        const std::size_t equals = entry.find('=');
        if (equals == std::string::npos || equals == 0) {
            error(conf.where(keyword), "not NAME=VALUE: \"%s\"", entry.c_str());
        } else if (!names.insert(entry.substr(0, equals)).second) {
            warning(conf.where(keyword), "\"%s\" is named twice", entry.substr(0, equals).c_str());
        }
    }
}

// Whether the daemon of this configuration runs already, and holds the ports itself.
bool is_running(const settings& conf) {
    const std::string path = conf.is_set("pid_file") ? conf.value("pid_file") : paths.pid_file;
    std::string content;
    const unique_fd file = open_regular(path.c_str());
    if (!file || read_all(file.get(), &content) != 0) {
        return false;
    }
    const long pid = std::strtol(content.c_str(), nullptr, 10);
    const unique_fd name = open_regular(("/proc/" + std::to_string(pid) + "/comm").c_str());
    std::string comm;
    return pid > 0 && name && read_all(name.get(), &comm) == 0 && comm.starts_with("dovmad");
}

int bind_error(int family, int port) {
    const unique_fd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        return 0;  // a host without this family
    }
    const int on = 1;
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage address{};
    socklen_t length = sizeof(sockaddr_in);
    if (family == AF_INET6) {
        (void)setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
        v6->sin6_port = htons(static_cast<std::uint16_t>(port));
        length = sizeof *v6;
    } else {
        reinterpret_cast<sockaddr_in*>(&address)->sin_port =
            htons(static_cast<std::uint16_t>(port));
    }
    address.ss_family = static_cast<sa_family_t>(family);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), length) == 0) {
        return 0;
    }
    return errno == EADDRNOTAVAIL || errno == EAFNOSUPPORT ? 0 : errno;
}

// `entry` has no blanks around it.
void check_port(const settings& conf, std::string_view entry, std::set<int>* ports) {
    const place where = conf.where("listen_ports");
    const std::string text(entry);
    const bool suffix = entry.ends_with('u') || entry.ends_with('s');
    long port = 0;
    if (!read_number(text.substr(0, text.size() - (suffix ? 1 : 0)), &port) || port < 1 ||
        port > port_max) {
        error(where, "not a port from 1 to %d with an optional \"u\": \"%s\"", port_max,
              text.c_str());
    } else if (entry.ends_with('s')) {
        error(where, "port \"%s\": the suffix \"s\" is refused; TLS needs none", text.c_str());
    } else if (!ports->insert(static_cast<int>(port)).second) {
        error(where, "port %ld is listed twice", port);
    } else if (conf.value("inetd_mode") != "1" && !is_running(conf)) {
        const acting_as server(conf.server);
        const int v4 = bind_error(AF_INET, static_cast<int>(port));
        const int problem = v4 != 0 ? v4 : bind_error(AF_INET6, static_cast<int>(port));
        if (problem != 0) {
            error(where, "port %ld%s: %s", port,
                  problem == EACCES && port < first_free_port ? ", below 1024" : "",
                  std::strerror(problem));
        }
    }
}

void check_ports(const settings& conf) {
    std::string_view rest = conf.value("listen_ports");
    std::set<int> ports;
    bool any = false;
    while (!rest.empty()) {
        std::string_view entry = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
        while (!entry.empty() && is_blank(entry.front())) {
            entry.remove_prefix(1);
        }
        while (!entry.empty() && is_blank(entry.back())) {
            entry.remove_suffix(1);
        }
        if (!entry.empty()) {
            any = true;
            check_port(conf, entry, &ports);
        }
    }
    if (!any) {
        error(conf.where("listen_ports"), "no port to listen on");
    }
}

}  // namespace

bool check_lines(settings* conf) {
    const file_ptr file(std::fopen(conf->file.c_str(), "re"));
    if (file == nullptr) {
        error({conf->file}, "%s", std::strerror(errno));
        return false;
    }
    for (std::size_t i = 0; i < conf->values.size(); ++i) {
        conf->values[i] = options[i].default_value != nullptr ? options[i].default_value : "";
    }
    config_line line;
    while (next_config_line(file.get(), &line)) {
        const place where = {conf->file, line.number};
        check_line(where, line);
        if (line.keyword.empty()) {
            error(where, "neither a comment nor a keyword with a value: \"%s\"", line.text.c_str());
        } else {
            set_value(conf, where, line);
        }
    }
    if (std::ferror(file.get()) != 0) {
        error({conf->file}, "%s", std::strerror(errno));
    }
    find_server(conf);
    return true;
}

void check_values(const settings& conf) {
    for (const option_row& row : options) {
        const bool numeric = (row.flags & (option_on_off | option_number)) != 0;
        if (row.letter != '\0' && numeric && conf.is_set(row.keyword)) {
            check_number(conf, row, conf.value(row.keyword));
        }
    }
    check_word_list(conf, "cgi_extensions", true);
    check_word_list(conf, "ssi_extensions", false);
    for (const char* keyword : {"cgi_extensions", "ssi_extensions", "index_files", "aliases",
                                "namespaces", "cgi_envvar"}) {
        check_entries(conf, keyword);
    }
    for (const char* keyword : {"aliases", "namespaces", "cgi_envvar"}) {
        check_pairs(conf, keyword);
    }
    check_ports(conf);
}
