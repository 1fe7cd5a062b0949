// Range arithmetic on section offsets, done in 64 bits so that no pair of
// 32-bit arguments can overflow into a range that looks valid.
#pragma once

#include <cstdint>

namespace shm {

// True when [offset, offset + length) runs past a section of `size` bytes.
constexpr bool runs_past(int32_t offset, int64_t length, int32_t size) {
    return int64_t{offset} + length > int64_t{size};
}

}  // namespace shm
