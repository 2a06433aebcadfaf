// The domain file on arbitrary bytes: every host that is read is complete, and what is written for
// these hosts is read back as the same hosts; lines that are no hosts are kept, and JSON is UTF-8.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "domain/domain_file.h"
#include "domain/registry.h"
#include "fuzz/check.h"
#include "lib/plat.h"
#include "lib/utf8.h"

namespace {

constexpr std::size_t longest_line = 1023;

bool is_filled(const char* text) {
    return text != nullptr && *text != '\0';
}

void check_host(const qz_pair& pair) {
    const auto* host = static_cast<const agent_host*>(pair.value);
    check(pair.key == host->hostid && host->revhostname != nullptr);
    for (const char* field :
         {host->hostname, host->hostid, host->osname, host->osrelease, host->cputype}) {
        check(is_filled(field) && std::strchr(field, '\n') == nullptr);
    }
    check(std::strpbrk(host->cputype, ": \t\r\v\f") == nullptr);
    check(qz_vector_size(host->namespaces) > 0);
    check(is_utf8(host->lines.json()) && host->lines.id() == host->hostid);
    for (const void* name : qz_each(host->namespaces)) {
        check(is_filled(static_cast<const char*>(name)));
    }
}

// A hand-written name that begins with "[" is not always understood again, nor is a line that was
// joined from two and has become too long.
bool is_written_readably(std::string_view text, const qz_map* hosts) {
    for (const qz_pair& pair : qz_each(hosts)) {
        if (static_cast<const agent_host*>(pair.value)->hostname[0] == '[') {
            return false;
        }
    }
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.size() > longest_line) {
            return false;
        }
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const map_ptr hosts(new_qz_map(compare_string, nullptr, free_agent_host));
    const domain_text_report report =
        parse_domain_text(std::string_view(reinterpret_cast<const char*>(data), size), hosts.get());
    check((report.no_hosts.count() == 0) == report.dropped.empty());
    for (const qz_pair& pair : qz_each(hosts.get())) {
        check_host(pair);
    }
    const std::string text = format_domain_text(hosts.get());
    const map_ptr again(new_qz_map(compare_string, nullptr, free_agent_host));
    const domain_text_report own = parse_domain_text(text, again.get());
    if (is_written_readably(text, hosts.get())) {
        check(own.dropped.empty());
        check(qz_map_size(again.get()) == qz_map_size(hosts.get()));
        check(format_domain_text(again.get()) == text);
    }
    return 0;
}
