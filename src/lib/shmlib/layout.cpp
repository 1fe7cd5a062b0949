// The section table and its consistency check.
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"

SHM_EXPORT_DATA int32_t gShmSecSize[SHM_SECTION_COUNT] = {SHM_SECTION_SIZE_LIST};

SHM_EXPORT void SHML_sanity_check(void) {
    if (gShmSecSize[0] != 0)
        SHM_LOG(1, "The size of section %d is not zero. v=%d\n", 0, gShmSecSize[0]);

    // The total wraps like the signed 32-bit sum other builds compute, without
    // the undefined behaviour of a signed overflow.
    uint32_t total = 0;
    for (int32_t section = 1; section <= shm::kLastSection; ++section) {
        const int32_t size = gShmSecSize[section];
        if (size == 0)
            SHM_LOG(1, "The size of section %d is zero.\n", section);
        else if (size < 0)
            SHM_LOG(1, "The size of section %d is less than zero. v=%d\n", section, size);
        total += static_cast<uint32_t>(size);
    }
    const auto signed_total = static_cast<int32_t>(total);
    if (signed_total > shm::kSegmentSize)
        SHM_LOG(1, "total_size=%d is greater than SHM_SIZE=%d\n", signed_total, shm::kSegmentSize);

    for (const shm::PinnedSize& pin : shm::kPinnedSizes) {
        if (gShmSecSize[pin.section] != pin.size)
            SHM_LOG(1, "The size of section %d should be %d but is %d\n", pin.section, pin.size,
                    gShmSecSize[pin.section]);
    }
}
