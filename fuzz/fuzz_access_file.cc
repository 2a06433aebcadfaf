// The reader of access files and the search for variables in a form, on arbitrary bytes.
//
// The first half of the input is a file, the second a form. What the reader accepted must survive
// being written and read again; a variable's value must lie inside the form.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "core/shttpd.h"
#include "fuzz/check.h"
#include "lib/rbtree.h"
#include "security/access_file.h"

namespace {

void read_text(std::string text, role_entry* row) {
    row->directory = "pub";
    (void)refresh_row("", row);
    if (!text.empty()) {
        std::FILE* file = fmemopen(text.data(), text.size(), "r");
        check(file != nullptr);
        // Memory can be read, so only lines that name nobody are a reason to refuse it.
        check(read_access_file(file, row) || !row->strays.empty());
        (void)std::fclose(file);
    }
}

void fuzz_file(std::string_view text) {
    role_entry first;
    read_text(std::string(text), &first);
    const std::string written = access_file_text(&first);
    role_entry second;
    read_text(written, &second);
    const std::string again = access_file_text(&second);
    // A wildcard swallows names that the order of the lines brings behind it.
    check(again == written || written.find("*:") != std::string::npos);
    clear_row(&first);
    clear_row(&second);
}

void fuzz_form(std::string_view text) {
    const std::string form(text);
    const auto length = static_cast<int>(form.size());
    for (const char* name : {"user", "role", "a", ""}) {
        char value[16];
        const int decoded = shttpd_get_var(name, form.data(), length, value, sizeof(value));
        check(decoded < static_cast<int>(sizeof(value)));
        const char* raw = nullptr;
        const int raw_length = shttpd_get_var_nodecode_nocopy(name, form.data(), length, &raw);
        check((raw_length < 0) == (decoded < 0));
        if (raw_length >= 0) {
            check(raw > form.data() && raw + raw_length <= form.data() + length);
            check(raw + raw_length == form.data() + length || raw[raw_length] == '&');
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    fuzz_file(text.substr(0, size / 2));
    fuzz_form(text.substr(size / 2));
    return 0;
}
