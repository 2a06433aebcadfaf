// Dates and ranges. A date in any of the four forms is the second that the calendar says, and what
// the daemon writes it reads back. A range stays inside the file, is the one that was asked for,
// and the reply's head tells the very bytes that follow.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/request.h"
#include "fuzz/check.h"
#include "handlers/io_file.h"

namespace {

constexpr std::array<const char*, 12> months = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

shttpd_ctx* context() {
    static shttpd_ctx* ctx = [] {
        check(setenv("TZ", "UTC", 1) == 0);
        tzset();
        refresh_clocks();
        auto* made = new shttpd_ctx;
        made->io_buf_size = 2048;
        made->inetd_mode = 1;  // keeps the log of every refusal off standard error
        return made;
    }();
    return ctx;
}

std::time_t parsed(const std::string& date) {
    const std::string line = "If-Modified-Since: " + date + "\r\n";
    header_values values;
    parse_headers(line.data(), line.size(), &values);
    return values.if_modified_since;
}

// Days since 1970-01-01 of the first day of a month.
std::int64_t days_until(std::int64_t year, int month) {
    constexpr std::array<int, 12> before = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const std::int64_t years = year - 1;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    const std::int64_t leaps = years / 4 - years / 100 + years / 400;
    return years * 365 + leaps - 719162 + before[static_cast<std::size_t>(month)] +
           (leap && month > 1 ? 1 : 0);
}

// Fields may be out of their ranges, as far as they are printed in few characters.
void check_fields(fuzz_input* input) {
    constexpr std::array<const char*, 4> forms = {"%d/%s/%d %d:%d:%d", "%d %s %d %d:%d:%d",
                                                  "Xyz, %d %s %d %d:%d:%d", "%d-%s-%d %d:%d:%d"};
    const char* form = forms[input->byte() % forms.size()];
    const int month = static_cast<int>(input->byte() % 12);
    const auto field = [&](int modulus) { return static_cast<int>(input->number(2)) % modulus; };
    const int day = field(100);
    const int year = field(9999);
    const int hour = field(1000);
    const int minute = field(1000);
    const int second = field(1000);
    std::array<char, 128> text{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)std::snprintf(text.data(), text.size(), form, day,
                        months[static_cast<std::size_t>(month)], year, hour, minute, second);
#pragma GCC diagnostic pop
    const int meant = year > 1900 ? year : year < 70 ? year + 2000 : year + 1900;
    check(parsed(text.data()) ==
          (days_until(meant, month) + day - 1) * 86400 + hour * 3600 + minute * 60 + second);
}

void check_own_date(std::time_t t) {
    std::array<char, 64> text{};
    format_http_date(t, text.data());
    check(parsed(text.data()) == t);
}

// --- Ranges ---

struct plain_range {
    bool present = false;
    bool good = true;
    unsigned long first = 0;
    unsigned long end = 0;
};

// The last byte named does not belong to the range.
plain_range read_plainly(const std::string& text, unsigned long size) {
    constexpr std::string_view unit = "bytes=";
    plain_range range{.end = size};
    if (!text.starts_with(unit)) {
        return range;
    }
    char* end = nullptr;
    const char* begin = text.c_str() + unit.size();
    range.first = std::strtoul(begin, &end, 10);
    range.present = end != begin;
    if (range.present && *end == '-') {
        begin = end + 1;
        const unsigned long second = std::strtoul(begin, &end, 10);
        range.end = end != begin ? std::min(second, size) : size;
    }
    range.good = range.first <= range.end;
    return range;
}

void check_range(const std::string& text, unsigned long size) {
    conn* c = new_conn(context());
    check(borrow_buffer(&c->local));
    c->request.method = method_get;
    c->request.uri = "/f.txt";
    c->request.headers.range = text;
    install_class(&c->local, &io_file, -1, 0);
    struct stat st {};
    st.st_size = static_cast<off_t>(size);
    get_file(c, &st);
    const std::string head(c->local.buffer, c->local.head);
    const plain_range range = read_plainly(visible(text), size);
    check(c->reply.status == (!range.present ? 200 : range.good ? 206 : 416));
    check(head.starts_with("HTTP/1.1 " + std::to_string(c->reply.status) + " "));
    if (c->reply.status != 416) {
        const unsigned long first = range.present ? range.first : 0;
        const unsigned long length = range.end - first;
        check(first <= size && length <= size - first);
        check(c->local.content_length == length);
        check(length == 0 || c->local.channel.offset == static_cast<off_t>(first));
        check(head.find("\r\nContent-Length: " + std::to_string(length) + "\r\n") !=
              std::string::npos);
        const std::string told = "\r\nContent-Range: bytes " + std::to_string(first) + "-" +
                                 std::to_string(first + length - 1) + "/" + std::to_string(size) +
                                 "\r\n";
        check((head.find(told) != std::string::npos) == range.present);
        check((head.find("Content-Range") != std::string::npos) == range.present);
    }
    stop_stream(&c->local);
    delete_conn(c);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    (void)context();
    fuzz_input input(data, size);
    switch (input.byte() % 4) {
        case 0:
            check_fields(&input);
            break;
        case 1:  // up to the year 9999
            check_own_date(static_cast<std::time_t>(input.number(5) % 253402300800ULL));
            break;
        case 2:
            (void)parsed(std::string(input.rest()));
            break;
        default: {
            const std::uint64_t bytes = input.number(8) >> (input.byte() % 64);
            check_range(std::string(input.rest()), bytes >> 1);
            break;
        }
    }
    return 0;
}
