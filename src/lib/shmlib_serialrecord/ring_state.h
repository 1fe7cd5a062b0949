// The SDC ring's state as its three stored header words (Head, Tail,
// Written) tell it: empty, filling or full, and how many bytes it holds.
// Header-only and free of the library's internals, so that shmtool reads a
// ring by the same rules as the library.
#pragma once

#include <cstdint>

#include "libshm.h"

namespace shm::sdc {

inline constexpr uint32_t kRingSize = SDC_RING_SIZE;
inline constexpr uint32_t kRingMask = SDC_RING_SIZE - 1;

// Head and Tail name ring indexes; a header whose words do not is unusable.
constexpr bool indexes_valid(uint32_t head, uint32_t tail) {
    return head < kRingSize && tail < kRingSize;
}

constexpr bool is_full(uint32_t head, uint32_t tail) { return head == ((tail + 1) & kRingMask); }
constexpr bool is_empty(uint32_t head, uint32_t tail, uint32_t written) {
    return head == 0 && tail == 0 && written == 0;
}

enum class RingState { kEmpty, kFilling, kFull };

// The states are tested in this order: full, empty, filling.
constexpr RingState ring_state(uint32_t head, uint32_t tail, uint32_t written) {
    if (is_full(head, tail)) return RingState::kFull;
    if (is_empty(head, tail, written)) return RingState::kEmpty;
    return RingState::kFilling;
}

// The count an export returns.
constexpr uint32_t content_size(uint32_t head, uint32_t tail, uint32_t written) {
    switch (ring_state(head, tail, written)) {
        case RingState::kFull: return kRingSize;
        case RingState::kEmpty: return 0;
        case RingState::kFilling: break;
    }
    return tail + 1;
}

// Bytes from ring index `from` forward to ring index `to`, across the end.
constexpr uint32_t ring_distance(uint32_t from, uint32_t to) { return (to - from) & kRingMask; }

static_assert(kRingSize == 0x80000 && kRingMask == 0x7FFFF);
static_assert(ring_state(0, 0, 0) == RingState::kEmpty && content_size(0, 0, 0) == 0);
static_assert(ring_state(0, 0, 1) == RingState::kFilling && content_size(0, 0, 1) == 1);
static_assert(ring_state(1, 0, 1) == RingState::kFull && content_size(1, 0, 1) == kRingSize);
static_assert(ring_state(0, kRingMask, 1) == RingState::kFull);
static_assert(ring_distance(kRingMask, 1) == 2);

}  // namespace shm::sdc
