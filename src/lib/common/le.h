// Multi-byte fields in sections are little-endian and often unaligned: these
// are the only way the library reads or writes one.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace shm {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the store is little-endian");

template <typename T>
inline T load_le(const void* p) {
    static_assert(std::is_trivially_copyable_v<T>);
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <typename T>
inline void store_le(void* p, T v) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(p, &v, sizeof v);
}

}  // namespace shm
