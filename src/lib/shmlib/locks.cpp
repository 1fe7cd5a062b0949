// Explicit section locks: one section's lock held across several unlocked
// reads. Neither call attaches the process.
#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"
#include "shmlib/store.h"

namespace {

template <typename Operation>
int32_t section_lock_call(const char* function, int32_t sec_id, Operation operation) {
    if (gShmLibSemId < 0) {
        SHM_LOG_AS(function, 1, "gShmLibSemId < 0!  sec_id = %d\n", sec_id);
        return -1;
    }
    if (shm::lock_member_wraps(sec_id)) {
        SHM_LOG_AS(function, 1, "Invalid sec_id=%d.\n", sec_id);
        return -1;
    }
    return operation(gShmSecSemId, sec_id - 1);
}

}  // namespace

SHM_EXPORT int32_t Vond_shm_lock_shm(int32_t sec_id) {
    return section_lock_call(__func__, sec_id, Vond_shm_sem_get);
}

SHM_EXPORT int32_t Vond_shm_unlock_shm(int32_t sec_id) {
    return section_lock_call(__func__, sec_id, Vond_shm_sem_put);
}
