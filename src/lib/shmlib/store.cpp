// Creating and attaching the segment, the section base pointers and the
// section semaphore set. Attachment happens lazily, on a process's first store
// operation; nothing ever detaches on success or removes an IPC object.
#include "shmlib/store.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>

#include "common/constants.h"
#include "common/export.h"
#include "common/log.h"
#include "shmlib/sem.h"

SHM_EXPORT_DATA int32_t gShmId = -1;
SHM_EXPORT_DATA int32_t gShmLibSemId = -1;
SHM_EXPORT_DATA int32_t gShmSecSemId = -1;
SHM_EXPORT_DATA void* gShmData[SHM_SECTION_COUNT] = {};

namespace {

// The library lock (member 0 of gShmLibSemId), held from a successful take in
// the constructor until release() or the end of the scope. A path that fails
// while holding it calls release() before it logs, so that its message
// reaches the hook and not the system log.
class LibraryLock {
public:
    enum class Take {
        kAttach,  // with the repair of a member its creator never set up
        kPlain,
    };
    explicit LibraryLock(Take take)
        : held_((take == Take::kAttach ? shm::take_library_lock(gShmLibSemId)
                                       : shm::sem_take(gShmLibSemId, 0)) == 0) {}
    ~LibraryLock() { release(); }
    LibraryLock(const LibraryLock&) = delete;
    LibraryLock& operator=(const LibraryLock&) = delete;

    bool held() const { return held_; }
    void release() {
        if (!held_) return;
        held_ = false;
        (void)shm::sem_give(gShmLibSemId, 0);
    }

private:
    bool held_;
};

// Offsets of every section from the table as it stands now, and whether the
// sections fit the segment. Besides the end of the last section, every section
// that has bytes must start and end inside the segment: a negative size in a
// modified table must not move a later section in front of the segment.
bool compute_layout(int64_t (&offsets)[SHM_SECTION_COUNT]) {
    int64_t offset = 0;
    bool fits = true;
    for (int32_t section = 0; section < shm::kSectionCount; ++section) {
        offsets[section] = offset;
        const int32_t size = gShmSecSize[section];
        if (size > 0 && (offset < 0 || offset + size > shm::kSegmentSize)) fits = false;
        offset += size;
    }
    return fits && offset <= shm::kSegmentSize;
}

}  // namespace

SHM_EXPORT int32_t Vond_shm_init_shm(void) {
    if (shm::attached()) return 0;

    SHML_sanity_check();

    if (gShmLibSemId < 0) {
        gShmLibSemId = Vond_shm_init_sem(shm::kLibSemKey, shm::kLibSemCount);
        if (gShmLibSemId < 0) {
            SHM_LOG(1, "SHMLIB: Error creating shm lib semaphore\n");
            return -1;
        }
    }
    LibraryLock lock(LibraryLock::Take::kAttach);
    if (!lock.held()) {
        SHM_LOG(1, "Unable to get the lib semaphore.\n");
        return -1;
    }
    // From here on every failure releases the library lock before it logs,
    // so its message reaches the hook and not the system log.
    if (shm::attached()) {
        lock.release();
        SHM_LOG(9, "race condition avoided\n");
        return 0;
    }

    if (gShmId < 0) {  // mode 0666 as given: the umask does not apply to System V objects
        gShmId = shmget(shm::kSegmentKey, shm::kSegmentSize, IPC_CREAT | shm::kIpcMode);
    }
    if (gShmId < 0) {
        lock.release();
        SHM_LOG(1, "SHMLIB: Error creating shared memory\n");
        return -1;
    }

    void* base = shmat(gShmId, nullptr, 0);
    if (base == reinterpret_cast<void*>(-1)) {
        const int error_number = errno;
        lock.release();
        SHM_LOG_ERRNO(1, "SHMLIB: Error attaching shared memory\n", error_number);
        return -1;
    }

    int64_t offsets[SHM_SECTION_COUNT];
    const bool fits = compute_layout(offsets);
    const auto base_address = reinterpret_cast<uintptr_t>(base);
    for (int32_t section = 1; section < shm::kSectionCount; ++section)
        gShmData[section] = reinterpret_cast<void*>(base_address + static_cast<uintptr_t>(offsets[section]));
    if (!fits) {
        shmdt(base);
        lock.release();
        SHM_LOG(1, "The size of the sections is greater than SHM_SIZE\n");
        return -1;
    }

    gShmSecSemId = Vond_shm_init_sem(shm::kSectionSemKey, shm::kSectionSemCount);
    if (gShmSecSemId < 0) {
        shmdt(base);
        lock.release();
        SHM_LOG(1, "SHMLIB: Error creating section semaphore\n");
        return -1;
    }
    const bool healed = shm::heal_unstarted_set(gShmSecSemId, shm::kSectionSemCount);

    // Published last: whoever sees entry 0 may use every section pointer.
    __atomic_store_n(&gShmData[0], base, __ATOMIC_RELEASE);
    lock.release();
    if (healed)
        SHM_LOG(1, "section semaphore set %d was never initialised (its creator died): set every member to 1\n",
                gShmSecSemId);
    return 0;
}

SHM_EXPORT int32_t Vond_shm_get_shm(int32_t sec_id, void** base) {
    if (!shm::attached()) {
        const int32_t result = Vond_shm_init_shm();
        if (result != 0) return result;
    }
    // gShmData has 34 entries; a number outside them would read past it.
    if (sec_id < 0 || sec_id > shm::kLastSection) {
        SHM_LOG(1, "Invalid sec_id=%d.\n", sec_id);
        return -1;
    }
    const LibraryLock lock(LibraryLock::Take::kPlain);
    if (!lock.held()) {
        SHM_LOG(1, "Unable to get the lib semaphore.\n");
        return -1;
    }
    *base = gShmData[sec_id];
    return 0;
}
