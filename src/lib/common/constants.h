// The fixed facts of the store, shared with every other program that uses it:
// keys, sizes, section numbers and the section table. They must not change.
#pragma once

#include <cstdint>

#include "libshm.h"

namespace shm {

inline constexpr int32_t kModule = 37;  // module number passed to the log hook

// System V keys.
inline constexpr int32_t kLibSemKey = 77777777;      // library semaphore set
inline constexpr int32_t kSegmentKey = 77777779;     // the segment
inline constexpr int32_t kSectionSemKey = 77777812;  // section semaphore set
inline constexpr int32_t kLibSemCount = 1;
inline constexpr int32_t kSectionSemCount = 34;

inline constexpr int32_t kSegmentSize = SHM_SIZE;
inline constexpr int32_t kSectionCount = SHM_SECTION_COUNT;
inline constexpr int32_t kLastSection = SHM_SEC_LAST;

// The section table as built, sizes in bytes in section order. gShmSecSize
// starts as a copy of it.
#define SHM_SECTION_SIZE_LIST                                                              \
    0, 56, 25475, 4860, 16378, 16378, 13, 16384, 28672, 8, 1024, 200, 1024, 1024, 3880, 256, \
        1804, 256, 256, 327, 138347, 40849, 242557, 234, 3, 2, 524508, 688, 3, 3, 365, 25067, \
        681428, 5
inline constexpr int32_t kSectionSizes[kSectionCount] = {SHM_SECTION_SIZE_LIST};

// Sections whose sizes other programs rely on; the sanity check pins them.
struct PinnedSize {
    int32_t section;
    int32_t size;
};
inline constexpr PinnedSize kPinnedSizes[] = {
    {1, 56}, {6, 13}, {10, 1024}, {11, 200}, {19, 327}, {21, 40849}};

// Semaphore flags and permissions.
inline constexpr int kSemUndo = 4096;  // SEM_UNDO
inline constexpr int kIpcMode = 0666;

// Development-build marker.
inline constexpr const char kXRevMarker[] = "/etc/xrev_fw";

// Hook lookup.
inline constexpr const char kHookSymbol[] = "vondprintf";
inline constexpr const char kHookLibrary[] = "libshm";
inline constexpr int kHookSelfFlags = 262;      // RTLD_NOW | RTLD_GLOBAL | RTLD_NOLOAD
inline constexpr int kHookLibraryFlags = 4354;  // RTLD_NOW | RTLD_GLOBAL | RTLD_NODELETE
inline constexpr int kKeyCreateAttempts = 16;

// System log fallback.
inline constexpr int kSyslogOptions = 11;    // LOG_PID | LOG_CONS | LOG_NDELAY
inline constexpr int kSyslogFacility = 144;  // LOG_LOCAL2

// Where a section starts in the segment, by the table as built.
constexpr int64_t segment_offset(int32_t section) {
    int64_t offset = 0;
    for (int32_t i = 0; i < section; ++i) offset += kSectionSizes[i];
    return offset;
}

}  // namespace shm

// The layout other programs are built against.
static_assert(shm::segment_offset(1) == 0);
static_assert(shm::segment_offset(3) == 25531);
static_assert(shm::segment_offset(6) == 63147);
static_assert(shm::segment_offset(21) == 256622);
static_assert(shm::segment_offset(26) == 540267);
static_assert(shm::segment_offset(33) == 1772329);
static_assert(shm::segment_offset(34) == 1772334);
static_assert(shm::segment_offset(34) <= shm::kSegmentSize);
