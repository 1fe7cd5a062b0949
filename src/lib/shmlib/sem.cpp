// The semaphore sets: creation or opening, and taking and releasing one
// member (see sem.h).
#include "shmlib/sem.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <ctime>

#include "common/export.h"
#include "common/log.h"

namespace {

union SemArgument {  // the fourth argument of semctl, which callers define
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// System V objects take the mode bits they are given (the umask does not
// apply to them), so the process's umask is left alone: changing it would
// change the modes of files other threads create meanwhile.
int create_set(int32_t key, int32_t count, int flags, int& error_number) {
    const int id = semget(key, count, flags);
    error_number = errno;
    return id;
}

// One semop on one member, retried while a signal interrupts it.
bool operate(int32_t sem_id, sembuf& op) {
    for (;;) {
        if (semop(sem_id, &op, 1) != -1) return true;
        if (errno != EINTR) return false;
    }
}

// member + 1 without a signed overflow for member INT32_MAX.
int32_t section_of(int32_t member) {
    return static_cast<int32_t>(static_cast<uint32_t>(member) + 1u);
}

}  // namespace

SHM_EXPORT int32_t Vond_shm_init_sem(int32_t key, int32_t count) {
    SHML_increment_recursion();
    errno = 0;
    int error_number = 0;
    int id = create_set(key, count, IPC_CREAT | IPC_EXCL | shm::kIpcMode, error_number);
    if (id < 0) {
        if (error_number != EEXIST) {
            SHM_LOG_ERRNO(1, "unable to get the semaphore\n", error_number);
            SHML_decrement_recursion();
            return -1;
        }
        // Another process created the set; its creator initialises it, and a
        // take that comes too early simply waits for the value 1.
        SHML_decrement_recursion();
        id = create_set(key, count, shm::kIpcMode, error_number);
        if (id >= 0) return id;
        SHM_LOG_ERRNO(1, "unable to get the semaphore on the second try\n", error_number);
        return -1;
    }

    SHM_LOG(9, "this thread created the semaphore and is initializing it\n");
    for (int32_t member = count - 1; member >= 0; --member) {
        SemArgument value{};
        value.val = 1;
        if (semctl(id, member, SETVAL, value) == -1) {
            error_number = errno;
            SHM_LOG_ERRNO(1, "unable to initialize the semaphore\n", error_number);
            return -1;  // the counter stays raised on this path
        }
    }
    SHML_decrement_recursion();
    SHM_LOG(9, "semaphore initialized ok\n");
    return id;
}

namespace shm {

int32_t sem_retry(int32_t sem_id, int32_t member, sembuf op) {
    const bool take = op.sem_op < 0;
    if (errno == EINTR && operate(sem_id, op)) {
        if (take)
            raise_recursion();
        else
            lower_recursion();
        return 0;
    }
    const int error_number = errno;
    if (take) {
        SHM_LOG_ERRNO_AS("Vond_shm_sem_get", 1, "SHMLIB: Error getting semaphore\n", error_number);
        SHM_LOG_AS("Vond_shm_sem_get", 1, "SHMLIB: sec_id = %d %d\n", section_of(member),
                   static_cast<int>(op.sem_flg));
    } else {
        SHM_LOG_ERRNO_AS("Vond_shm_sem_put", 1, "SHMLIB: Error putting semaphore\n", error_number);
        SHM_LOG_AS("Vond_shm_sem_put", 1, "SHMLIB: sec_id = %d\n", section_of(member));
    }
    return -1;
}

// ----------------------------------------------------- a creator that died
// A creator killed between its semget and its SETVAL calls leaves members at
// 0 that nobody holds and the kernel will never give back. sem_otime, the
// time of the last semop on the set, tells such a set apart: it stays 0 until
// somebody takes or gives a member, and SETVAL/SETALL do not change it.

namespace {

bool never_operated(int32_t sem_id) {
    semid_ds status{};
    SemArgument argument{};
    argument.buf = &status;
    return semctl(sem_id, 0, IPC_STAT, argument) == 0 && status.sem_otime == 0;
}

}  // namespace

bool heal_unstarted_set(int32_t sem_id, int32_t count) {
    if (count <= 0 || count > kSectionSemCount || !never_operated(sem_id)) return false;
    unsigned short values[kSectionSemCount] = {};
    SemArgument argument{};
    argument.array = values;
    if (semctl(sem_id, 0, GETALL, argument) != 0) return false;
    bool stuck = false;
    for (int32_t member = 0; member < count; ++member) stuck = stuck || values[member] == 0;
    if (!stuck) return false;  // a complete set, as its creator left it: not touched
    for (int32_t member = 0; member < count; ++member) values[member] = 1;
    return semctl(sem_id, 0, SETALL, argument) == 0;
}

int32_t take_library_lock(int32_t sem_id) {
    sembuf op = sem_operation(0, -1);
    // Waits in slices so that a member that was never set up is noticed; a
    // member some process holds is waited for as long as it takes.
    constexpr long kSliceNanoseconds = 100L * 1000 * 1000;
    constexpr int kSlicesBeforeRepair = 10;  // 1 s, far beyond a live creator's few microseconds
    int unstarted_slices = 0;
    for (;;) {
        timespec slice{0, kSliceNanoseconds};
        if (semtimedop(sem_id, &op, 1, &slice) != -1) {
            raise_recursion();
            return 0;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return sem_retry(sem_id, 0, op);
        if (!never_operated(sem_id) || semctl(sem_id, 0, GETVAL) != 0) {
            unstarted_slices = 0;
            continue;
        }
        if (++unstarted_slices < kSlicesBeforeRepair) continue;
        // Give the member its initial 1, but only while it is still 0; a
        // process that got there first leaves nothing to do. The loop then
        // takes the member as usual.
        sembuf repair[2] = {};
        repair[0].sem_num = 0;
        repair[0].sem_op = 0;
        repair[0].sem_flg = IPC_NOWAIT;
        repair[1].sem_num = 0;
        repair[1].sem_op = 1;
        repair[1].sem_flg = 0;
        if (semop(sem_id, repair, 2) == 0)
            SHM_LOG_AS("Vond_shm_init_shm", 1,
                       "library semaphore %d was never initialised (its creator died): set it to 1\n", sem_id);
        unstarted_slices = 0;
    }
}

}  // namespace shm

SHM_EXPORT int32_t Vond_shm_sem_get(int32_t sem_id, int32_t member) {
    return shm::sem_take(sem_id, member);
}

SHM_EXPORT int32_t Vond_shm_sem_put(int32_t sem_id, int32_t member) {
    return shm::sem_give(sem_id, member);
}
