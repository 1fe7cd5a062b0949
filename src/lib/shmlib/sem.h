// Taking and releasing one member of a semaphore set: the primitives under
// Vond_shm_sem_get and Vond_shm_sem_put (which are these), with their retry
// after a signal, and the repairs of a set whose creator died half-way.
//
// A take raises the thread's recursion counter and a release lowers it, so
// that whatever a thread logs while it holds a store lock stays out of the
// host's hook.
#pragma once

#include <sys/sem.h>

#include <cstdint>

#include "common/constants.h"
#include "common/log.h"

namespace shm {

inline sembuf sem_operation(int32_t member, short delta) {
    sembuf op{};
    op.sem_num = static_cast<unsigned short>(member);  // -1 becomes 65535, as in C
    op.sem_op = delta;
    op.sem_flg = kSemUndo;
    return op;
}

// After a failed semop: retried while a signal interrupts it; any other
// failure is logged under the exported call's name. 0 or -1.
int32_t sem_retry(int32_t sem_id, int32_t member, sembuf op);

// The first semop is made right here, so the lock paths make the system call
// directly instead of through a chain of functions; only a failed semop (a
// signal to retry after, or an error to log) leaves the line.
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

}  // namespace shm
