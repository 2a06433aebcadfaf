// A property set of 1,000 entries beside MessagePack: packing, and unpacking into structures that
// own every field and are sorted by name on both sides (a std::map of variants for the peer).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <msgpack.hpp>
#include <string>

#include "lib/kv.h"
#include "lib/plat.h"

namespace {

constexpr int entry_count = 1000;

using peer_set = std::map<std::string, msgpack::type::variant>;

std::string name_of(int i) {
    char name[32];
    (void)std::snprintf(name, sizeof name, "property.name.%05d", i);
    return name;
}

// A third texts, a third 32-bit and a third 64-bit numbers.
propset_ptr our_set() {
    propset_ptr set(new_ps(entry_count));
    for (int i = 0; i < entry_count; ++i) {
        const std::uint64_t number = static_cast<std::uint64_t>(i) * 0x100000001ULL;
        const std::string text = "the value of " + name_of(i);
        const kv_type type = i % 3 == 0 ? KV_STRING : i % 3 == 1 ? KV_UINT32 : KV_UINT64;
        const void* data = type == KV_STRING ? static_cast<const void*>(text.c_str()) : &number;
        const std::size_t length = type == KV_STRING ? text.size() + 1 : type == KV_UINT32 ? 4 : 8;
        (void)ps_add(set.get(),
                     new_kv(name_of(i).c_str(), 0, type, static_cast<std::uint32_t>(length), data));
    }
    return set;
}

peer_set their_set() {
    peer_set set;
    for (int i = 0; i < entry_count; ++i) {
        const std::uint64_t number = static_cast<std::uint64_t>(i) * 0x100000001ULL;
        if (i % 3 == 0) {
            set.emplace(name_of(i), "the value of " + name_of(i));
        } else {
            set.emplace(name_of(i), i % 3 == 1 ? number & 0xffffffff : number);
        }
    }
    return set;
}

void pack_propset(benchmark::State& state) {
    const propset_ptr set = our_set();
    std::uint32_t size = 0;
    for (auto _ : state) {
        const qz_owned<unsigned char> bytes(ps_marshal(set.get(), &size));
        benchmark::DoNotOptimize(bytes.get());
    }
    state.counters["wire bytes"] = size;
}

void pack_msgpack(benchmark::State& state) {
    const peer_set set = their_set();
    std::size_t size = 0;
    for (auto _ : state) {
        msgpack::sbuffer bytes;
        msgpack::pack(bytes, set);
        size = bytes.size();
        benchmark::DoNotOptimize(bytes.data());
    }
    state.counters["wire bytes"] = static_cast<double>(size);
}

// The checked reader: the only one for bytes from outside.
void unpack_propset(benchmark::State& state) {
    const propset_ptr set = our_set();
    std::uint32_t size = 0;
    const qz_owned<unsigned char> bytes(ps_marshal(set.get(), &size));
    for (auto _ : state) {
        propset* read = nullptr;
        benchmark::DoNotOptimize(ps_unmarshal_bounded(bytes.get(), bytes.get() + size, &read));
        ps_free(read);
    }
}

void unpack_msgpack(benchmark::State& state) {
    msgpack::sbuffer bytes;
    msgpack::pack(bytes, their_set());
    for (auto _ : state) {
        const msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size());
        const peer_set read = handle.get().as<peer_set>();
        benchmark::DoNotOptimize(read.size());
    }
}

// For comparison: the peer's view into its buffer, in an arena, without owning or sorting anything.
void unpack_msgpack_view(benchmark::State& state) {
    msgpack::sbuffer bytes;
    msgpack::pack(bytes, their_set());
    for (auto _ : state) {
        const msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(handle.get().via.map.size);
    }
}

BENCHMARK(pack_propset)->Unit(benchmark::kMicrosecond);
BENCHMARK(pack_msgpack)->Unit(benchmark::kMicrosecond);
BENCHMARK(unpack_propset)->Unit(benchmark::kMicrosecond);
BENCHMARK(unpack_msgpack)->Unit(benchmark::kMicrosecond);
BENCHMARK(unpack_msgpack_view)->Unit(benchmark::kMicrosecond);

}  // namespace
