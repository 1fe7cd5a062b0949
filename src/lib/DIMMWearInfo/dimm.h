// Internal view of the DIMM inventory (section 7) shared by the inventory
// queries and the wear records. The inventory is written by another process:
// every field is read from a private copy of the table, and the FQDD, which
// need not end in a zero within its 16 bytes, only through bounded copies.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/le.h"
#include "common/platform.h"

namespace shm::dimm {

// The whole table, copied under the section lock in one read.
struct Inventory {
    uint8_t bytes[kInventorySize];

    const uint8_t* record(int32_t i) const { return bytes + kInventoryRecordSize * i; }
    uint8_t slot(int32_t i) const { return record(i)[kSlotIndex]; }
    uint32_t presence(int32_t i) const { return load_le<uint32_t>(record(i) + kPresence); }
    uint8_t cpu(int32_t i) const { return record(i)[kCpuNumber]; }
    uint8_t channel(int32_t i) const { return record(i)[kChannelNumber]; }
    uint8_t type(int32_t i) const { return record(i)[kDimmType]; }
    const uint8_t* fqdd(int32_t i) const { return record(i) + kFqdd; }
};

// Zeroes the copy and reads the table into it; false when the read fails
// (the read has logged why).
bool read_inventory(Inventory& inventory);

// An FQDD as a string: the 16 stored bytes and a zero that is always there.
struct Fqdd {
    char text[kFqddSize + 1];
};
inline Fqdd fqdd_text(const uint8_t* stored) {
    Fqdd f;
    std::memcpy(f.text, stored, kFqddSize);
    f.text[kFqddSize] = '\0';
    return f;
}

}  // namespace shm::dimm
