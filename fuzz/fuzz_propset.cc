// The checked reader of property sets: whatever it accepts must pack to the announced size, read
// back as the same set, copy, merge and print.
#include <cstdint>

#include "fuzz/check.h"
#include "lib/kv.h"
#include "lib/plat.h"

namespace {

propset_ptr repacked(const propset* set) {
    std::uint32_t size = 0;
    const qz_owned<unsigned char> bytes(ps_marshal(set, &size));
    check(size == ps_binary_pack_size(set));
    propset* read = nullptr;
    check(ps_unmarshal_bounded(bytes.get(), bytes.get() + size, &read) == bytes.get() + size);
    return propset_ptr(read);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    propset* read = nullptr;
    const unsigned char* end = ps_unmarshal_bounded(data, data + size, &read);
    const propset_ptr set(read);
    check((end == nullptr) == (set == nullptr));
    if (set == nullptr) {
        return 0;
    }
    check(end > data && end <= data + size);
    // Twice: reading turns the order of equal names round.
    check(ps_compare(set.get(), repacked(repacked(set.get()).get()).get()) == 1);
    const propset_ptr copy(ps_copy(set.get()));
    check(ps_compare(set.get(), copy.get()) == 1);
    check(ps_merge(copy.get(), set.get()) == 0);
    propset* moved = ps_copy(set.get());
    check(ps_merge_fast(copy.get(), &moved) == 0 && moved == nullptr);
    const stream_ptr text(new_qz_stream(0));
    ps_print(text.get(), 0, set.get());
    ps_printjson(text.get(), 0, set.get());
    return 0;
}
