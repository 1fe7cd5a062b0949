// Where the platform state accessors find their fields: byte offsets inside
// the sections, the codes the library interprets and the fixed limits. Like
// the section table, these are shared with every program that writes the
// sections and must not change.
#pragma once

#include <cstddef>
#include <cstdint>

namespace shm {

// Section 6, the platform identity record (13 bytes).
namespace identity {
inline constexpr int32_t kProgress = 0;  // 4 bytes, progress bits; bit 0 is the summary
inline constexpr int32_t kPlatformType = 4;
inline constexpr int32_t kSystemId = 5;
inline constexpr int32_t kBladeSlot = 6;
inline constexpr int32_t kQuorxType = 7;
inline constexpr int32_t kGeneration = 8;
inline constexpr int32_t kModularChassisType = 9;
inline constexpr int32_t kPostUpdate = 10;
inline constexpr int32_t kCpuType = 11;
inline constexpr int32_t kSerialPeciPresent = 12;

inline constexpr uint32_t kPlatformModular = 2;
inline constexpr uint32_t kCpuAmd = 1;
inline constexpr uint32_t kGeneration14G = 3;
inline constexpr uint32_t kGeneration15G = 4;
inline constexpr uint32_t kChassisReadFailed = 247;  // bit 3 clear: never ngm
inline constexpr uint32_t kChassisNgmBit = 3;

// The bits that must all be set for the summary bit 0 to be set.
inline constexpr uint32_t kRequiredProgress = 0x00402062;  // bits 1, 5, 6, 13, 22
inline constexpr uint32_t kSummaryBit = 1;

inline constexpr const char kProductTypeMarker[] = "/tmp/ec";
inline constexpr uint8_t kLivescanStaggerTime = 6;
}  // namespace identity

// Section 14, the BIOS state section.
namespace bios {
inline constexpr int32_t kPostStatus = 2676;
}

// Section 9, the time section, and section 19, the OS data section.
namespace times {
inline constexpr int32_t kEopTime = 0;                 // 4 bytes
inline constexpr int32_t kOsDataCollectionTime = 153;  // 4 bytes, unaligned
inline constexpr size_t kDateTextSize = 32;            // the caller's buffer for the CIM date
}  // namespace times

// Section 10, the feature capability words, and section 20, the PBT.
namespace caps {
inline constexpr uint32_t kLastCapability = 8;  // words 0 to 8, 2 bytes each

inline constexpr int32_t kPbtVersion = 0;  // 4 bytes; initialised when byte 0 is non-zero
inline constexpr int32_t kVrSection = 137090;
inline constexpr int32_t kVrSectionSize = 853;
inline constexpr uint32_t kLastVrType = 19;
inline constexpr uint32_t kVrTypeCpu = 5;
inline constexpr uint32_t kVrTypeMemory = 3;
inline constexpr uint32_t kMaxCpuVrEntries = 4;
inline constexpr uint32_t kMaxMemVrEntries = 8;
inline constexpr uint32_t kCpuVrStatus = 1;     // status byte of CPU entry i: 1 + 2i
inline constexpr uint32_t kMemoryVrStatus = 9;  // status byte of memory entry i: 9 + 2i
inline constexpr uint8_t kVrDisabled = 0xFF;
}  // namespace caps

// Section 5, the power section, and section 16, the blade section.
namespace power {
inline constexpr int32_t kSystemPowerStatus = 451;
inline constexpr uint32_t kPowerStatusReadFailed = 255;
inline constexpr int32_t kBladeFormFactor = 385;
}  // namespace power

// Section 22, the FRU data section, and section 24, the OCP mezzanine section.
namespace fru {
inline constexpr int64_t kSectionSize = 242557;  // data blocks must end inside it
inline constexpr int32_t kDeviceCount = 6;  // 2 bytes in the header
inline constexpr int32_t kHeaderSize = 8;
inline constexpr int32_t kEntrySize = 15;
inline constexpr uint32_t kMaxDevices = 59;
inline constexpr int64_t kDirectorySpan = kHeaderSize + int64_t{kEntrySize} * kMaxDevices;  // 893

// Fields of one directory entry.
inline constexpr int32_t kStatus = 0;
inline constexpr int32_t kFruId = 1;  // 2 bytes
inline constexpr int32_t kAttribute = 4;
inline constexpr int32_t kDeviceType = 5;
inline constexpr int32_t kLocator = 6;
inline constexpr int32_t kDataLength = 7;  // 2 bytes
inline constexpr int32_t kDataOffset = 9;  // 4 bytes
inline constexpr uint8_t kInitialised = 1;

inline constexpr uint32_t kLastDeviceType = 25;
inline constexpr uint32_t kLastLocator = 3;  // locators are 1 to 3
inline constexpr uint32_t kMaxClassDevices = 64;

// The caller's device list: count byte, a gap byte, then 4-byte entries.
inline constexpr int32_t kListEntries = 2;
inline constexpr int32_t kListEntrySize = 4;

inline constexpr int32_t kOcpFruId = 1;  // byte of section 24
inline constexpr uint32_t kOcpNone = 255;
}  // namespace fru

// Section 7, the DIMM inventory, and section 21, the DIMM wear table.
namespace dimm {
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
}  // namespace dimm

}  // namespace shm
