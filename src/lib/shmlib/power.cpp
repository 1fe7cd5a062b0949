// Chassis power status (section 5), blade form factor (section 16) and the
// power input table the library publishes for its clients. The library does
// not interpret either code, and never reads the table itself.
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"
#include "common/platform.h"

// Writable in each process; a client that changes it changes only its own
// copy. Rows 0 to 15, first column 0 to 4, second column 0 or 1.
SHM_EXPORT_DATA int32_t powerInputMap[16][2] = {
    {1, 0}, {3, 0}, {2, 0}, {3, 1}, {1, 0}, {3, 0}, {2, 0}, {4, 1},
    {3, 0}, {3, 0}, {2, 1}, {3, 0}, {1, 1}, {2, 0}, {2, 0}, {0, 0},
};

// A stored status of 255 reads the same as a failed read.
SHM_EXPORT uint32_t GetSystemPowerStatusSHM(void) {
    uint8_t status = 0;
    const int32_t result =
        Vond_shm_memread(SHM_SEC_POWER, &status, shm::power::kSystemPowerStatus, 1);
    if (result != 0) {
        SHM_LOG(1, "Vond_shm_memread read section %d failed(%d)!\n", SHM_SEC_POWER, result);
        return shm::power::kPowerStatusReadFailed;
    }
    return status;
}

SHM_EXPORT int32_t Get_blade_form_factor(uint8_t* form_factor) {
    if (form_factor == nullptr) {
        SHM_LOG(1, "form_factor NULL pointer\n");
        return -1;
    }
    return Vond_shm_memread(SHM_SEC_BLADE, form_factor, shm::power::kBladeFormFactor, 1) == 0 ? 0
                                                                                              : -1;
}
