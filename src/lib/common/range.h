// Where a request falls in a section. Offsets plus lengths are summed in 64
// bits, so that no pair of 32-bit arguments can overflow into a range that
// looks valid.
#pragma once

#include <cstdint>

#include "constants.h"
#include "libshm.h"

namespace shm {

enum class Range {
    kInside,          // [offset, offset + length) lies in the section
    kClipped,         // starts in the section and runs past its end
    kPastEnd,         // starts at or beyond the section's end
    kNegativeOffset,  // starts in front of the section
    kBadSection,      // no section 0 to 33 has this number
};

struct RangeCheck {
    Range range;
    int32_t size;  // the section's size as the answer read it; 0 for a bad section
};

// The one range check of the section access calls: each family maps the
// answer to its own result and messages. The section's size is read once
// from gShmSecSize, as it stands at the call.
inline RangeCheck check_range(int32_t section, int32_t offset, int64_t length) {
    if (section < 0 || section > kLastSection) return {Range::kBadSection, 0};
    const int32_t size = gShmSecSize[section];
    if (offset < 0) return {Range::kNegativeOffset, size};
    if (int64_t{offset} + length <= int64_t{size}) return {Range::kInside, size};
    return {offset < size ? Range::kClipped : Range::kPastEnd, size};
}

}  // namespace shm
