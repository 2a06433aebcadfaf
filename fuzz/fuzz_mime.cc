// The file of content types: the records are those that the scan of each line is bound to find, and
// a name gets the type of the first of them that fits.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/context.h"
#include "core/mime_type.h"
#include "core/string.h"
#include "fuzz/memory_file.h"

namespace {

constexpr std::size_t piece_bytes = 511;

using records = std::vector<std::pair<std::string, std::string>>;  // extension and type

std::string word_at(const std::string& text, std::size_t at) {
    char word[piece_bytes + 1] = "";
    (void)std::sscanf(text.c_str() + at, "%511s", word);
    return word;
}

records read_plainly(std::string_view text) {
    records found;
    while (!text.empty()) {
        const std::size_t end =
            std::min(std::min(text.find('\n'), text.size() - 1) + 1, piece_bytes);
        const std::string line = visible(text.substr(0, end));
        text.remove_prefix(end);
        const std::string type = word_at(line, 0);
        if (line.starts_with('#') || line.starts_with('\n') || type.empty()) {
            continue;
        }
        for (std::size_t at = line.find(type) + type.size(); at < line.size() && line[at] != '\n';
             at += type.size()) {
            if (const std::string word = word_at(line, at); !word.empty()) {
                found.emplace_back(word, type);
            }
        }
    }
    return found;
}

std::string expected_type(const records& found, const std::string& name) {
    for (const auto& [extension, type] : found) {
        const std::string ending = "." + extension;
        if (name.size() >= ending.size() &&
            strcasecmp(name.c_str() + name.size() - ending.size(), ending.c_str()) == 0) {
            return type;
        }
    }
    return {};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const memory_file file;
    fuzz_input input(data, size);
    const std::string asked = visible(input.until('\n'));
    file.write(input.rest());
    shttpd_ctx ctx;
    set_mime_types(&ctx, file.path().c_str());
    const records expected = read_plainly(input.rest());
    records found;
    for (const mime_type_record& record : ctx.mime_records) {
        found.emplace_back(record.extension, record.type);
    }
    check(found == expected);
    std::vector<std::string> names = {asked};
    for (const auto& [extension, type] : found) {
        names.push_back("x." + extension);
    }
    for (const std::string& name : names) {
        const std::string type = get_mime_type(&ctx, name.c_str(), name.size());
        const std::string wanted = expected_type(expected, name);
        check(wanted.empty() ? type.find('/') != std::string::npos : type == wanted);
    }
    ctx.mime_records.free_all(mime_type_destructor);
    return 0;
}
