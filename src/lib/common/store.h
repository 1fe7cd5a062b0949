// The process's view of the store, for the library's own access paths.
#pragma once

#include <sys/sem.h>

#include <cstdint>

#include "constants.h"
#include "libshm.h"

namespace shm {

// True once this process has published its attachment (gShmData[0]); every
// section pointer and gShmSecSemId are valid from then on.
inline bool attached() { return __atomic_load_n(&gShmData[0], __ATOMIC_ACQUIRE) != nullptr; }

inline unsigned char* section_base(int32_t section) {
    return static_cast<unsigned char*>(gShmData[section]);
}

// A section number whose lock member (number - 1) does not fit the 16-bit
// member field of a semaphore operation would wrap onto another section's
// lock. Such numbers are refused before any lock is taken.
inline bool lock_member_wraps(int32_t section) { return section < 0 || section > 65536; }

// The calling thread's logging record, as SHML_get_per_thread_data gives it,
// looked up directly once the one-time initialisation has finished: the lock
// paths move the recursion counter without the exported call and its
// pthread_once.
SHML_per_thread_data* thread_record();

// Take and release one member, with the messages and the counter moves of
// Vond_shm_sem_get and Vond_shm_sem_put (which are these), for the library's
// own lock paths. The first semop is made right here, so the lock paths call
// the system call directly instead of through a chain of functions; only a
// failed semop (a signal to retry after, or an error to log) leaves the line.
int32_t sem_retry(int32_t sem_id, int32_t member, sembuf op);

// A store whose creator was killed between creating a set and setting its
// members to 1 heals here.
// The section set is opened under the library lock, and its creator creates
// it under the same lock: a set nobody ever operated on with a member at 0
// therefore has a dead creator, and every member is set to 1 at once. True
// when it did so.
bool heal_unstarted_set(int32_t sem_id, int32_t count);
// The library lock's take at attach. A member that nobody ever operated on
// and that stays at 0 for a second is given its initial 1, then taken.
int32_t take_library_lock(int32_t sem_id);

inline sembuf sem_operation(int32_t member, short delta) {
    sembuf op{};
    op.sem_num = static_cast<unsigned short>(member);  // -1 becomes 65535, as in C
    op.sem_op = delta;
    op.sem_flg = kSemUndo;
    return op;
}

inline void raise_recursion() {
    if (SHML_per_thread_data* record = thread_record()) ++record->recursion;
}

inline void lower_recursion() {
    if (SHML_per_thread_data* record = thread_record()) {
        if (--record->recursion < 0) record->recursion = 0;
    }
}

inline int32_t sem_take(int32_t sem_id, int32_t member) {
    sembuf op = sem_operation(member, -1);
    if (__builtin_expect(semop(sem_id, &op, 1) != -1, 1)) {
        raise_recursion();
        return 0;
    }
    return sem_retry(sem_id, member, op);
}

inline int32_t sem_give(int32_t sem_id, int32_t member) {
    sembuf op = sem_operation(member, 1);
    if (__builtin_expect(semop(sem_id, &op, 1) != -1, 1)) {
        lower_recursion();
        return 0;
    }
    return sem_retry(sem_id, member, op);
}

}  // namespace shm
