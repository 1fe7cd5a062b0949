// The DIMM records' layout and the internal view of the DIMM inventory
// (section 7), shared by the inventory queries and the wear records. The inventory is written by another process:
// every field is read from a private copy of the table, and the FQDD, which
// need not end in a zero within its 16 bytes, only through bounded copies.
#pragma once

#include <cstdint>
#include <cstring>

#include "common/le.h"

namespace shm::dimm {

// Section 7, the DIMM inventory, and section 21, the DIMM wear table. Shared
// with every program that writes these sections: they must not change.
inline constexpr int32_t kInventoryOffset = 7357;
inline constexpr int32_t kInventoryRecords = 128;
inline constexpr int32_t kInventoryRecordSize = 46;
inline constexpr int32_t kInventorySize = kInventoryRecords * kInventoryRecordSize;  // 5888

// Fields of one inventory record.
inline constexpr int32_t kSlotIndex = 1;
inline constexpr int32_t kPresence = 2;  // 4 bytes
inline constexpr int32_t kCpuNumber = 14;
inline constexpr int32_t kChannelNumber = 18;
inline constexpr int32_t kDimmType = 19;
inline constexpr int32_t kFqdd = 30;
inline constexpr int32_t kFqddSize = 16;  // with its terminating zero

inline constexpr uint32_t kFirstApachePassType = 5;
inline constexpr uint32_t kLastApachePassType = 10;

// The wear table: record cpu * 48 + channel * 6 + dimm.
inline constexpr int32_t kWearOffset = 555;
inline constexpr int32_t kWearRecordSize = 40;
inline constexpr int32_t kWearPercent = 28;  // 4-byte float
inline constexpr int32_t kWearSlotIndex = 36;
inline constexpr uint32_t kLastCpu = 3;
inline constexpr uint32_t kLastChannel = 7;
inline constexpr uint32_t kLastDimm = 5;
inline constexpr uint32_t kDimmsPerChannel = kLastDimm + 1;
inline constexpr uint32_t kDimmsPerCpu = (kLastChannel + 1) * kDimmsPerChannel;

// The exchanged lists: a count byte, then fixed-size entries.
inline constexpr int32_t kPositionEntrySize = 5;
inline constexpr int32_t kWearEntrySize = 18;

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
