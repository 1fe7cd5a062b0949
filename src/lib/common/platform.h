// Where the platform state accessors find their fields: byte offsets inside
// the sections, the codes the library interprets and the fixed limits. Like
// the section table, these are shared with every program that writes the
// sections and must not change. The FRU, DIMM and SDC layouts live beside
// their code (shmlib/fru.cpp, DIMMWearInfo/dimm.h, shmlib_serialrecord/sdc.h).
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

}  // namespace shm
