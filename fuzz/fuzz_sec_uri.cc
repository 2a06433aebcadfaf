// Security URIs: every part lies inside the URI, equality is symmetric, and an overlay or a printed
// identity parses again.
#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz/check.h"
#include "lib/plat.h"
#include "security/sec_uri.h"

namespace {

void check_inside(const std::string& uri, const qz_text& part) {
    check(part.text == nullptr
              ? part.length == 0
              : part.text >= uri.c_str() && part.text + part.length <= uri.c_str() + uri.size());
}

void check_parts(const std::string& uri) {
    qz_security record;
    check(qz_uri_to_security(uri.c_str(), &record) == &record);
    for (const qz_text& part : {record.host, record.segment1, record.segment2, record.segment3}) {
        check_inside(uri, part);
    }
    qz_domain domain;
    if (qz_uri_to_domain(uri.c_str(), &domain) != nullptr) {
        check_inside(uri, {domain.host, domain.host_length});
        check_inside(uri, {domain.scheme, domain.scheme_length});
    }
    const std::string segment(record.segment1.text == nullptr ? "" : record.segment1.text,
                              record.segment1.length);
    const std::string host(record.host.text == nullptr ? "" : record.host.text, record.host.length);
    const qz_owned<char> printed(qz_security_to_uri(record.kind, host.c_str(), record.port,
                                                    segment.c_str(), nullptr, nullptr));
    qz_security again;
    check(qz_uri_to_security(printed.get(), &again) != nullptr);
    if (record.kind == qz_uri_kpr) {
        check(again.kind == qz_uri_kpr && again.port == record.port);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = std::min(input.find('\n'), input.size());
    const std::string a = input.substr(0, cut).c_str();  // up to the first zero byte
    const std::string b = input.substr(std::min(cut + 1, input.size())).c_str();
    check_parts(a);
    check_parts(b);
    for (const std::uint32_t flags : {0U, 1U}) {
        check(qz_isequal_sec_uri(a.c_str(), b.c_str(), flags) ==
              qz_isequal_sec_uri(b.c_str(), a.c_str(), flags));
        const std::string copy = a;
        check(qz_isequal_sec_uri(a.c_str(), copy.c_str(), flags) == 1);
    }
    const qz_owned<char> overlay(qz_sec_overlay(a.c_str(), b.c_str()));
    check_parts(overlay.get());
    (void)is_valid_key(a.c_str());
    qzfree(format_unsafe_xml_str(a.c_str()));
    return 0;
}
