// The reader of access files: what it accepted must survive being written and read again.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_file(fuzz_input(data, size).rest());
    return 0;
}
