// The DIMM inventory (section 7): the CPU/channel translation into wear-table
// indexes, the Apache Pass type test and the count of Apache Pass modules.
// The library only reads the inventory, always as one locked copy of the
// whole 128-record table on the stack.
//
// Beyond the inventory's contract, calculateCPUChannelNum refuses a null
// pointer (1 and a level-2 message) instead of reading through it.
#include <cstdint>
#include <cstring>

#include "DIMMWearInfo/dimm.h"
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"

namespace dimm = shm::dimm;

static_assert(dimm::kInventoryOffset == SHM_DIMM_INVENTORY_OFFSET &&
              dimm::kInventoryRecords == SHM_DIMM_INVENTORY_RECORDS &&
              dimm::kInventoryRecordSize == SHM_DIMM_INVENTORY_RECORD_SIZE);
static_assert(dimm::kInventorySize == 5888);
static_assert(dimm::kFqdd + dimm::kFqddSize == dimm::kInventoryRecordSize);

bool shm::dimm::read_inventory(Inventory& inventory) {
    std::memset(inventory.bytes, 0, sizeof inventory.bytes);
    return Vond_shm_memread(SHM_SEC_DIMM_INVENTORY, inventory.bytes, kInventoryOffset,
                            sizeof inventory.bytes) == 0;
}

SHM_EXPORT int32_t calculateCPUChannelNum(uint32_t* cpu, uint32_t* channel) {
    if (cpu == nullptr || channel == nullptr) {
        SHM_LOG(2, "%s: Error!! input buffer NULL", __func__);
        return 1;
    }
    const uint32_t cpu_number = *cpu;
    const uint32_t channel_number = *channel;
    SHM_LOG(4, "%s: Input CPU %d Channel %d", __func__, static_cast<int>(cpu_number),
            static_cast<int>(channel_number));
    // Masked, not checked: 0 wraps to the last index and 5 (or 9) to the first.
    const uint32_t cpu_index = (cpu_number - 1) & dimm::kLastCpu;
    const uint32_t channel_index = (channel_number - 1) & dimm::kLastChannel;
    SHM_LOG(4, "%s: Calculated CPU %d Channel %d", __func__, static_cast<int>(cpu_index),
            static_cast<int>(channel_index));
    *cpu = cpu_index;
    *channel = channel_index;
    return 0;
}

SHM_EXPORT int32_t isNVDIMMApachePass(uint32_t type) {
    return type - dimm::kFirstApachePassType <=
                   dimm::kLastApachePassType - dimm::kFirstApachePassType
               ? 1
               : 0;
}

SHM_EXPORT int32_t getNVDIMMApachePassCount(void) {
    dimm::Inventory inventory;
    if (!dimm::read_inventory(inventory)) {
        SHM_LOG(2, "%s: Error in reading DIMM Info from SHM", __func__);
        return 0;
    }
    uint8_t count = 0;  // at most 128
    for (int32_t i = 0; i < dimm::kInventoryRecords; ++i) {
        const uint8_t type = inventory.type(i);
        if (isNVDIMMApachePass(type) == 0) continue;
        SHM_LOG(4, "%s: DIMM Index: %d Type: %d", __func__, static_cast<int>(i),
                static_cast<int>(type));
        ++count;
    }
    SHM_LOG(4, "%s: DIMM Count: %d", __func__, static_cast<int>(count));
    return count;
}
