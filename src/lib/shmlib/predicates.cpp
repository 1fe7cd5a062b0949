// The platform family predicates: yes-or-no questions over the identity
// record and the BIOS POST status. Each reads the store anew on every call
// through the identity getters, so a failed read answers as a stored 0 would,
// and system id 0 belongs to no family. The answers never depend on whether a
// message was logged.
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"
#include "common/platform.h"

namespace {

namespace id = shm::identity;

// id - first, unsigned, is at most last - first: one comparison per range.
constexpr bool in_range(uint32_t value, uint32_t first, uint32_t last) {
    return value - first <= last - first;
}

// The system id, after the level-5 line every id-logging predicate writes.
uint32_t logged_system_id(const char* function) {
    const uint32_t system_id = Vond_get_system_id();
    SHM_LOG_AS(function, 5, "%s: System Id = [%d]", function, static_cast<int>(system_id));
    return system_id;
}

// The QV ids 28, 29, 30, 50, 51, 52, 53 and 56 as bits counted from 28.
constexpr uint32_t kQvFirst = 28;
constexpr uint32_t kQvBits = 0x13C00007;

}  // namespace

SHM_EXPORT int32_t isAMD(void) { return Vond_get_cpu_type() == id::kCpuAmd ? 1 : 0; }

SHM_EXPORT int32_t is14GAMD(void) {
    const uint32_t generation = Vond_get_generation();
    const uint32_t cpu = Vond_get_cpu_type();
    return generation == id::kGeneration14G && cpu == id::kCpuAmd ? 1 : 0;
}

// Also true on 16G and later AMD platforms, as callers expect.
SHM_EXPORT int32_t is15GAMD(void) {
    const uint32_t generation = Vond_get_generation();
    const uint32_t cpu = Vond_get_cpu_type();
    return generation >= id::kGeneration15G && cpu == id::kCpuAmd ? 1 : 0;
}

SHM_EXPORT int32_t is16G(void) { return Vond_get_generation() > id::kGeneration15G ? 1 : 0; }

SHM_EXPORT int32_t isQV(void) {
    const uint32_t offset = logged_system_id(__func__) - kQvFirst;
    return offset <= 28 && ((kQvBits >> offset) & 1u) != 0 ? 1 : 0;
}

SHM_EXPORT int32_t isVarduna(void) {
    const uint32_t system_id = Vond_get_system_id();
    if (!in_range(system_id, 6, 7) && !in_range(system_id, 10, 11) && system_id != 40) return 0;
    SHM_LOG(9, "Varduna system Id = [%d]", static_cast<int>(system_id));
    return 1;
}

SHM_EXPORT int32_t isTesk(void) {
    const uint32_t system_id = Vond_get_system_id();
    if (in_range(system_id, 106, 110)) {
        SHM_LOG(9, "Tesk system Id = [%d]", static_cast<int>(system_id));
        return 1;
    }
    SHM_LOG(9, "System Id = [%d] is not Tesk", static_cast<int>(system_id));
    return 0;
}

SHM_EXPORT int32_t isMorvast(void) { return logged_system_id(__func__) == 37 ? 1 : 0; }
SHM_EXPORT int32_t isQillan(void) { return logged_system_id(__func__) == 39 ? 1 : 0; }
SHM_EXPORT int32_t isDunmarch(void) { return logged_system_id(__func__) == 61 ? 1 : 0; }

SHM_EXPORT int32_t IsBootFirstPolicyEnabled(void) {
    SHM_LOG(9, "Entering: %s  \n", __func__);
    return Vond_get_generation() > id::kGeneration14G ? 1 : 0;
}

SHM_EXPORT int32_t isPowerOnHookAvailable(void) {
    SHM_LOG(9, "Entering: %s  \n", __func__);
    return Vond_get_generation() > id::kGeneration14G ? 1 : 0;
}

// The generation is read only when the id is not one of the excluded ones.
SHM_EXPORT int32_t IsCPDimmPollingSupported(void) {
    const uint32_t system_id = logged_system_id(__func__);
    if (system_id == 50 || system_id == 51 || system_id == 56) return 0;
    return Vond_get_generation() < 5 ? 1 : 0;
}

// The system id is read (and logged) only on an AMD platform.
SHM_EXPORT int32_t IsCPCpuCupsSupported(void) {
    if (isAMD() == 0) return 0;
    const uint32_t system_id = logged_system_id(__func__);
    return in_range(system_id, 28, 30) ? 0 : 1;
}

// The read's result is ignored: a failed read leaves the status 0.
SHM_EXPORT int32_t isBiosDonePost(void) {
    uint8_t status = 0;
    (void)Vond_shm_memread(SHM_SEC_BIOS_STATE, &status, shm::bios::kPostStatus, 1);
    return status == 0x51 || in_range(status, 0x7E, 0x7F) ? 1 : 0;
}
