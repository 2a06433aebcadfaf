// How a host looks in the domain file and in listings. Internal to domain/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

struct agent_host;

// The finished lines of a host: everything about it but its times. They never change; a host that
// changes gets new ones. Copies share them, and the last one that goes frees them, on any thread.
class host_lines {
  public:
    host_lines() = default;
    explicit host_lines(const agent_host& host);

    [[nodiscard]] std::string_view id() const { return piece(0); }
    // Its lines of the domain file, one per namespace.
    [[nodiscard]] std::string_view file() const { return piece(1); }
    // Its line of a text listing up to the times.
    [[nodiscard]] std::string_view text() const { return piece(2); }
    // Its JSON object behind the opening brace, up to the times.
    [[nodiscard]] std::string_view json() const { return piece(3); }

  private:
    [[nodiscard]] std::string_view piece(std::size_t which) const;

    std::shared_ptr<const char[]> block_;  // the end of each piece as 32 bits, then the pieces
};

enum class listing_form { text, json, ids, json_ids };

// One host of a listing, with its times of that moment.
struct listing_row {
    host_lines lines;
    std::int64_t last_ping = 0;
    std::int64_t next_due = 0;
};

// Appends a row as it is seen at the time `now`. A JSON object that is not the first begins with a
// comma.
void append_row(std::string* out, const listing_row& row, listing_form form, std::int64_t now,
                bool first);
