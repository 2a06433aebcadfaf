// Pages with server-side includes, on arbitrary bytes. Nothing is executed.
//
// What the scanner hands on, text and directives, is the page again; what a directive's parts point
// to lies inside the directive.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "handlers/ssi_scanner.h"

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void require_inside(std::string_view part, std::string_view whole) {
    require(part.empty() || (part.data() >= whole.data() &&
                             part.data() + part.size() <= whole.data() + whole.size()));
}

void check_directive(std::string_view text) {
    require(text.size() <= ssi_scanner::directive_max && text.starts_with("<!--#") &&
            text.ends_with("-->"));
    const ssi_directive directive = parse_ssi_directive(text);
    require_inside(directive.argument, text);
    require_inside(trim_blanks(directive.argument), directive.argument);
    if (const auto include = parse_ssi_include(directive.argument)) {
        require_inside(include->name, directive.argument);
        require(include->name.find('"') == std::string_view::npos);
    }
    if (const auto command = parse_ssi_exec(directive.argument)) {
        require_inside(*command, directive.argument);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view page(reinterpret_cast<const char*>(data), size);
    ssi_scanner scanner;
    std::string out;
    for (const char c : page) {
        const ssi_scanner::event event = scanner.feed(c);
        require(scanner.pending().size() <= ssi_scanner::directive_max + 1);
        if (event == ssi_scanner::event::held) {
            continue;
        }
        if (event == ssi_scanner::event::character) {
            out += c;
            continue;
        }
        if (event == ssi_scanner::event::directive) {
            check_directive(scanner.pending());
        }
        out += scanner.pending();
        scanner.clear();
    }
    out += scanner.pending();
    require(out == page);
    return 0;
}
