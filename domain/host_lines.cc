#include "domain/host_lines.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <initializer_list>

#include "domain/registry.h"
#include "lib/utf8.h"

namespace {

using piece_ends = std::array<std::uint32_t, 4>;

std::string_view text_or(const char* text, const char* fallback) {
    return text != nullptr ? text : fallback;
}

void append(std::string* out, std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces) {
        out->append(piece);
    }
}

template <class Visit>
void for_each_namespace(const agent_host& host, Visit visit) {
    if (host.namespaces != nullptr) {
        for (const void* name : qz_each(host.namespaces)) {
            visit(std::string_view(static_cast<const char*>(name)));
        }
    }
}

// No field can break a line: they were read from one, or the registration refused or replaced the
// characters that would.
void append_file_lines(std::string* out, const agent_host& host) {
    const std::string_view name = text_or(host.hostname, "");
    const bool in_brackets = name.find(':') != std::string_view::npos;
    for_each_namespace(host, [&](std::string_view namespace_name) {
        append(out, {in_brackets ? "[" : "", name, in_brackets ? "]:" : ":",
                     text_or(host.revhostname, ""), ":", text_or(host.hostid, ""), ":",
                     text_or(host.osname, ""), ":", text_or(host.osrelease, ""), ":",
                     text_or(host.cputype, ""), ":", namespace_name, "\n"});
    });
}

void append_text_line(std::string* out, const agent_host& host) {
    append(out, {text_or(host.hostname, ""), ",", text_or(host.revhostname, ""), ",",
                 text_or(host.hostid, ""), ",", text_or(host.osname, "unknown"), ",",
                 text_or(host.osrelease, "unknown"), ",", text_or(host.cputype, "unknown"), ","});
}

void append_json_member(std::string* out, std::string_view before, std::string_view value) {
    out->append(before);
    append_json_text(out, value);
}

void append_json_line(std::string* out, const agent_host& host) {
    append_json_member(out, "\n   \"hostname\":\"", text_or(host.hostname, ""));
    append_json_member(out, "\",\n   \"revhostname\":\"", text_or(host.revhostname, ""));
    append_json_member(out, "\",\n   \"hostid\":\"", text_or(host.hostid, ""));
    out->append("\",\n   \"namespaces\": [");
    const char* separator = "\"";
    for_each_namespace(host, [&](std::string_view name) {
        append_json_member(out, separator, name);
        out->append("\"");
        separator = ", \"";
    });
    append_json_member(out, "],\n   \"osname\":\"", text_or(host.osname, "unknown"));
    append_json_member(out, "\",\n   \"osrelease\":\"", text_or(host.osrelease, "unknown"));
    append_json_member(out, "\",\n   \"cputype\":\"", text_or(host.cputype, "unknown"));
    out->append("\",\n   \"pingtime\":\"");
}

// A number of seconds as it is shown: never negative, even when the clock was set back.
void append_seconds(std::string* out, std::int64_t seconds, std::string_view behind) {
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                   std::max<std::int64_t>(seconds, 0));
    out->append(digits.data(), end.ptr).append(behind);
}

}  // namespace

host_lines::host_lines(const agent_host& host) {
    std::string all;
    piece_ends ends{};
    std::size_t piece = 0;
    const auto end_piece = [&] { ends[piece++] = static_cast<std::uint32_t>(all.size()); };
    all.append(text_or(host.hostid, ""));
    end_piece();
    append_file_lines(&all, host);
    end_piece();
    append_text_line(&all, host);
    end_piece();
    append_json_line(&all, host);
    end_piece();
    const std::shared_ptr<char[]> block =
        std::make_shared_for_overwrite<char[]>(sizeof ends + all.size());
    memcpy(block.get(), ends.data(), sizeof ends);
    memcpy(block.get() + sizeof ends, all.data(), all.size());
    block_ = block;
}

std::string_view host_lines::piece(std::size_t which) const {
    if (block_ == nullptr) {
        return {};
    }
    piece_ends ends{};
    memcpy(ends.data(), block_.get(), sizeof ends);
    const std::uint32_t start = which == 0 ? 0 : ends[which - 1];
    return {block_.get() + sizeof ends + start, ends[which] - start};
}

void append_row(std::string* out, const listing_row& row, listing_form form, std::int64_t now,
                bool first) {
    const std::int64_t age = row.last_ping == 0 ? 0 : now - row.last_ping;
    const std::int64_t to_next = row.next_due == 0 ? 0 : row.next_due - now;
    const std::string_view status = row.next_due < now ? "DN" : "UP";
    switch (form) {
        case listing_form::ids:
            append(out, {row.lines.id(), "\n"});
            break;
        case listing_form::json_ids:
            append_json_member(out, first ? "{\n\"hostid\":\"" : ",\n{\n\"hostid\":\"",
                               row.lines.id());
            out->append("\"}");
            break;
        case listing_form::text:
            out->append(row.lines.text());
            append_seconds(out, age, " seconds,");
            append_seconds(out, to_next, " seconds,");
            append(out, {status, "\n"});
            break;
        case listing_form::json:
            append(out, {first ? "{" : ",\n{", row.lines.json()});
            append_seconds(out, age, " seconds\",\n   \"nexttime\":\"");
            append_seconds(out, to_next, " seconds\",\n   \"status\":\"");
            append(out, {status, "\"\n}"});
            break;
    }
}
