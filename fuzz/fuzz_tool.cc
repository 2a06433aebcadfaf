// What dovmad-user is given: words of the command line, the configuration, access files. Texts that
// it prints or sends are read back, listings are JSON, and who was granted a role holds it.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "core/string.h"
#include "fuzz/memory_file.h"
#include "lib/utf8.h"
#include "provider/tool.h"
#include "provider/tool_daemon.h"
#include "provider/tool_namespaces.h"

int tool_main(int argc, char** argv);

namespace {

// --- JSON ---

// Reads one value of a text that holds nothing but ASCII blanks around its values.
class json_reader {
  public:
    explicit json_reader(std::string_view text) : left_(text) {}

    void value() {
        const char c = next();
        if (c == '{' || c == '[') {
            members(c == '{' ? '}' : ']');
        } else if (c == '"') {
            string();
        } else {
            const std::size_t end = left_.find_first_of(",]} \n");
            const std::string_view word = left_.substr(0, end);
            check(word == "true" || word == "false" || word == "1");
            left_.remove_prefix(word.size());
        }
    }
    // The bytes that the string stands for.
    std::string string() {
        std::string text;
        take('"');
        while (left_.front() != '"') {
            check(static_cast<unsigned char>(left_.front()) >= 0x20);
            if (left_.front() != '\\') {
                text += left_.front();
                left_.remove_prefix(1);
            } else if (left_[1] == 'u') {
                unsigned code = 0;
                check(std::sscanf(std::string(left_.substr(2, 4)).c_str(), "%4x", &code) == 1);
                check(code < 0x80 || code == 0xfffd);
                text += code < 0x80 ? std::string(1, static_cast<char>(code)) : "\xef\xbf\xbd";
                left_.remove_prefix(6);
            } else {
                check(left_[1] == '"' || left_[1] == '\\');
                text += left_[1];
                left_.remove_prefix(2);
            }
            check(!left_.empty());
        }
        take('"');
        return text;
    }
    [[nodiscard]] bool at_end() {
        left_.remove_prefix(std::min(left_.find_first_not_of(" \n"), left_.size()));
        return left_.empty();
    }

  private:
    char next() {
        check(!at_end());
        return left_.front();
    }
    void take(char c) {
        check(next() == c);
        left_.remove_prefix(1);
    }
    void members(char closing) {
        left_.remove_prefix(1);
        while (next() != closing) {
            if (closing == '}') {
                (void)string();
                take(':');
            }
            value();
            if (next() != closing) {
                take(',');
                check(next() != closing);
            }
        }
        take(closing);
    }

    std::string_view left_;
};

void check_texts(std::string_view text) {
    const std::string quoted = json_text(text);
    check(is_utf8(quoted));
    json_reader reader(quoted);
    const std::string read = reader.string();
    check(reader.at_end() && (read == text) == is_utf8(text));

    const std::string encoded = url_encoded(text);
    check(encoded.find_first_of("&=+ #?/") == std::string::npos && is_utf8(encoded));
    std::string decoded(encoded.size() + 1, '\0');
    decoded.resize(url_decode(encoded.data(), encoded.size(), decoded.data(), decoded.size()));
    check(decoded == text);
}

// --- Commands ---

std::string printed;

ssize_t print(void*, const char* text, std::size_t length) {
    printed.append(text, length);
    return static_cast<ssize_t>(length);
}

ssize_t swallow(void*, const char*, std::size_t length) {
    return static_cast<ssize_t>(length);
}

struct scene {
    scene() {
        stdout = fopencookie(nullptr, "w", {nullptr, print, nullptr, nullptr});
        stderr = fopencookie(nullptr, "w", {nullptr, swallow, nullptr, nullptr});
        for (const char* folder : {"/root/operator", "/sec/dovmad-at/users"}) {
            std::filesystem::create_directories(top + folder);
        }
        std::ofstream(top + "/sec/dovmad-at/domains") << "local:password:box\n";
        std::ofstream(top + "/sec/dovmad-at/users/known")
            << "known:$6$salt$" << std::string(86, 'x') << "\n";
    }
    memory_folder folder;
    const std::string& top = folder.path;
    memory_file config;
};

scene& here() {
    static scene only;
    return only;
}

int run(std::vector<std::string> words) {
    words.insert(words.begin(),
                 {"dovmad-user", "-c", here().config.path(), "-d", here().top + "/sec"});
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    optind = 0;
    printed.clear();
    const int status = tool_main(static_cast<int>(words.size()), arguments.data());
    (void)std::fflush(stdout);
    (void)std::fflush(stderr);
    check(status == exit_done || status == exit_failed || status == exit_usage);
    return status;
}

// The configuration's lines, then "root" and no pid file, which nothing before can change.
void write_config(std::string_view lines) {
    here().config.write(std::string(lines) + "\ndocument_root " + here().top +
                        "/root\npid_file /dev/null/none\n");
}

void check_config(std::string_view lines) {
    write_config(lines);
    tool_options options{.config_file = here().config.path()};
    daemon_config config;
    check(read_config(options, &config, true));
    const std::vector<name_space> found = configured_name_spaces(config);
    const std::string list = config.get("namespaces");
    bool has_default = false;
    for (std::size_t i = 0; i < found.size(); ++i) {
        has_default = has_default || found[i].name == default_namespace;
        check(list.find(found[i].name + "=" + found[i].root) != std::string::npos ||
              i + 1 == found.size());
        for (std::size_t j = 0; j < i; ++j) {
            check(found[i].name != found[j].name);
        }
    }
    check(has_default);
}

void check_rights(fuzz_input* input) {
    const unsigned kind = input->byte();
    const std::string who = visible(input->until('\n'));
    const std::string role = visible(input->until('\n'));
    const std::string group = (kind & 1) != 0 ? "-g" : "-w";
    write_config("");
    std::ofstream(here().top + "/root/operator/.dovmaaccess", std::ios::binary) << input->rest();
    if ((kind & 2) != 0) {
        (void)run({group, "deny", "--", who, role});
    }
    // Names like the administrator's are built in, and not granted anything.
    if (run({group, "grant", "--", who, role}) == exit_done && !starts_with_nocase(who, "root")) {
        check(run({group, "rights", "--", who}) == exit_done);
        check(printed.find("plx\t" + role + "\tyes") != std::string::npos);
    }
    if ((kind & 4) != 0 && run({group, "-j", "rights", "--", who}) == exit_done) {
        check(is_utf8(printed));
        json_reader(printed).value();
    }
    if (run({"-j", "rights"}) == exit_done) {
        check(is_utf8(printed));
        json_reader reader(printed);
        reader.value();
        check(reader.at_end());
    }
    for (const char* name : {"operator", "pub", "admin", "agent"}) {
        (void)unlink((here().top + "/root/" + name + "/.dovmaaccess").c_str());
        (void)unlink((here().top + "/root/" + name + "/.dovmaaccess.bak").c_str());
    }
}

// Commands that take time or change users are left out, and options that lead elsewhere.
void check_words(fuzz_input* input) {
    std::vector<std::string> words;
    while (!input->rest().empty()) {
        words.push_back(visible(input->until('\n')));
        const std::string& word = words.back();
        for (const char* banned : {"add", "passwd", "del", "lock", "unlock", "check", "renew",
                                   "reset", "grant", "deny"}) {
            if (word == banned) {
                return;
            }
        }
        if (word.starts_with('-') && word.find_first_of("cdu") != std::string::npos) {
            return;
        }
    }
    write_config("");
    (void)run(words);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_input input(data, size);
    switch (input.byte() % 8) {
        case 0:
            check_rights(&input);
            break;
        case 1:
            check_words(&input);
            break;
        case 2:
        case 3:
            check_config(input.rest());
            break;
        default:
            check_texts(input.rest());
            break;
    }
    return 0;
}
