// Bodies in chunked coding: the scanner ends, breaks and warns where a plain decoder of the whole
// text does, whatever pieces the text comes in, and a body that was coded ends at its end.
#include <strings.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "handlers/chunked.h"

namespace {

struct verdict {
    std::size_t used = 0;
    bool complete = false;
    bool failed = false;
    bool claims = false;
    bool operator==(const verdict&) const = default;
};

// Reads the whole text at once, from left to right.
class plain_decoder {
  public:
    explicit plain_decoder(std::string_view text) : text_(text) {}

    verdict decode() {
        while (!at_end() && !result_.failed && !result_.complete) {
            decode_chunk();
        }
        return result_;
    }

  private:
    [[nodiscard]] bool at_end() const { return result_.used == text_.size(); }
    [[nodiscard]] bool stopped() const { return result_.failed || at_end(); }

    // Takes one byte that has to be `c`.
    void take(char c) {
        if (stopped()) {
            return;
        }
        if (text_[result_.used] == c) {
            ++result_.used;
        } else {
            result_.failed = true;
        }
    }
    // Goes on to the end of a line, in which no line feed may stand alone.
    void take_line() {
        while (!stopped() && text_[result_.used] != '\r') {
            result_.failed = text_[result_.used] == '\n';
            result_.used += result_.failed ? 0 : 1;
        }
        take('\r');
        take('\n');
    }
    void decode_chunk() {
        const std::size_t begin = result_.used;
        const std::string_view digits =
            text_.substr(begin, text_.find_first_not_of("0123456789abcdefABCDEF", begin) - begin);
        std::uint64_t length = 0;
        for (const char c : digits) {
            if (length >> 56 != 0) {
                result_.failed = true;
                return;
            }
            length = length * 16 + static_cast<std::uint64_t>(c <= '9' ? c - '0' : (c & 7) + 9);
            ++result_.used;
        }
        if (at_end()) {
            return;
        }
        const char next = text_[result_.used];
        if (digits.empty() || (next != '\r' && next != ';' && next != ' ' && next != '\t')) {
            result_.failed = true;
            return;
        }
        take_line();
        if (stopped() && (result_.failed || text_[result_.used - 1] != '\n')) {
            return;
        }
        if (length == 0) {
            decode_trailer();
            return;
        }
        result_.used += std::min<std::uint64_t>(length, text_.size() - result_.used);
        take('\r');
        take('\n');
    }
    void decode_trailer() {
        while (!stopped()) {
            const std::string_view line = text_.substr(result_.used);
            if (line.starts_with('\r')) {
                take('\r');
                const bool decided = !at_end();
                take('\n');
                result_.complete = decided && !result_.failed;
                return;
            }
            for (const std::string_view name : {"authorization", "plx-", "x-plx-"}) {
                result_.claims =
                    result_.claims || (line.size() >= name.size() &&
                                       strncasecmp(line.data(), name.data(), name.size()) == 0);
            }
            take_line();
        }
    }

    std::string_view text_;
    verdict result_;
};

verdict scan(std::string_view text, std::size_t step, bool in_runs) {
    chunk_scanner scanner;
    verdict result;
    std::size_t piece = 1 + step;
    while (!text.empty() && !scanner.complete() && !scanner.failed()) {
        const std::string_view bytes = text.substr(0, piece);
        const std::size_t taken = in_runs ? scanner.next_run(bytes).length : scanner.consume(bytes);
        check(taken <= bytes.size());
        check(taken == bytes.size() || in_runs || scanner.complete() || scanner.failed());
        check(taken > 0 || scanner.failed());
        result.used += taken;
        text.remove_prefix(taken);
        piece = 1 + (piece * 7 + step) % (1 + 2 * step);
    }
    result.complete = scanner.complete();
    result.failed = scanner.failed();
    result.claims = scanner.claims_identity();
    check(!(result.complete && result.failed));
    return result;
}

// The text as a body, in chunks of sizes that `step` decides.
std::string coded(std::string_view text, std::size_t step) {
    std::string body;
    for (std::size_t i = 0; !text.empty(); ++i) {
        const std::string_view chunk = text.substr(0, 1 + (step + i * 5) % 40);
        char size[24];
        (void)std::snprintf(size, sizeof size, i % 2 == 0 ? "%zX" : "00%zx;x=\"y\"", chunk.size());
        body.append(size).append("\r\n").append(chunk).append("\r\n");
        text.remove_prefix(chunk.size());
    }
    return body + "0\r\n" + (step % 2 == 0 ? "Expires: never\r\n" : "") + "\r\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_input input(data, size);
    const std::size_t step = input.byte();
    const verdict expected = plain_decoder(input.rest()).decode();
    for (const bool in_runs : {false, true}) {
        check(scan(input.rest(), step, in_runs) == expected);
        const std::string body = coded(input.rest(), step);
        const verdict whole{.used = body.size(), .complete = true};
        check(scan(body + "GET", step, in_runs) == whole);
    }
    return 0;
}
