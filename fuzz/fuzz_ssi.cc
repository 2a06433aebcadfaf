// Pages with server-side includes, on arbitrary bytes. Nothing is executed.
//
// What the scanner hands on, text and directives, is the page again; what a directive's parts point
// to lies inside the directive.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "handlers/ssi_scanner.h"

namespace {

void check_inside(std::string_view part, std::string_view whole) {
    check(part.empty() || (part.data() >= whole.data() &&
                           part.data() + part.size() <= whole.data() + whole.size()));
}

void check_directive(std::string_view text) {
    check(text.size() <= ssi_scanner::directive_max && text.starts_with("<!--#") &&
          text.ends_with("-->"));
    const ssi_directive directive = parse_ssi_directive(text);
    check_inside(directive.argument, text);
    check_inside(trim_blanks(directive.argument), directive.argument);
    if (const auto include = parse_ssi_include(directive.argument)) {
        check_inside(include->name, directive.argument);
        check(include->name.find('"') == std::string_view::npos);
    }
    if (const auto command = parse_ssi_exec(directive.argument)) {
        check_inside(*command, directive.argument);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view page(reinterpret_cast<const char*>(data), size);
    ssi_scanner scanner;
    std::string out;
    for (const char c : page) {
        const ssi_scanner::event event = scanner.feed(c);
        check(scanner.pending().size() <= ssi_scanner::directive_max + 1);
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
    check(out == page);
    return 0;
}
