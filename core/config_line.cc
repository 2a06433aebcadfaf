#include "core/config_line.h"

#include <cstring>

namespace {

constexpr int line_bytes = 2048;

}  // namespace

bool next_config_line(std::FILE* file, config_line* line) {
    char text[line_bytes];
    while (std::fgets(text, sizeof text, file) != nullptr) {
        // Zero bytes end what the scan sees, so a line may look empty.
        const std::size_t length = std::strlen(text);
        line->number += line->unfinished ? 0 : 1;
        line->cut = length > 0 ? text[length - 1] : '\n';
        line->unfinished = length == sizeof text - 1 && line->cut != '\n';
        if (text[0] == '#' || text[0] == '\n') {
            continue;
        }
        if (length > 0) {
            text[length - 1] = '\0';
        }
        char keyword[line_bytes];
        char value[line_bytes];
        line->text = text;
        const bool whole = std::sscanf(text, "%2047s %2047[^#\n]", keyword, value) == 2;
        line->keyword = whole ? keyword : "";
        line->value = whole ? value : "";
        return true;
    }
    return false;
}
