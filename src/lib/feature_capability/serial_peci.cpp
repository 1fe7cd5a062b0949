// Serial PECI presence. The flag in the identity record can only force the
// answer to present; a zero flag (or a failed read) defers to the platform
// rule: present from generation 4 on, except on AMD and Tesk platforms.
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"
#include "common/platform.h"

namespace {

namespace id = shm::identity;

bool present_by_platform(uint32_t generation) {
    // The tests run in this order and stop at the first that decides, so
    // isTesk (with its own messages) runs only on a non-AMD 15G or later.
    if (generation <= id::kGeneration14G) return false;
    if (isAMD() == 1) return false;
    if (isTesk() == 1) return false;
    return true;
}

}  // namespace

SHM_EXPORT int32_t serialPECIPresent(void) {
    const uint32_t generation = Vond_get_generation();
    uint8_t flag = 0;
    if (Vond_shm_memread(SHM_SEC_PLATFORM_ID, &flag, id::kSerialPeciPresent, 1) != 0) {
        SHM_LOG(2, "%s: Error reading serial peci presence from SHM", __func__);
        flag = 0;
    }
    if (flag != 0 || present_by_platform(generation)) {
        SHM_LOG(9, "%s: Return Serial PECI as present", __func__);
        return 1;
    }
    SHM_LOG(9, "%s: Return Serial PECI as not present", __func__);
    return 0;
}
