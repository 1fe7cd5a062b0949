// The process's view of the store, for the library's own access paths: the
// attachment, the section base pointers and a section's lock.
#pragma once

#include <cstdint>

#include "libshm.h"
#include "shmlib/sem.h"

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

// A section's lock, held from a successful take in the constructor to the end
// of the scope. A failed take has logged why and holds nothing: the caller
// tests held() and answers with its own message.
class SectionLock {
public:
    explicit SectionLock(int32_t section)
        : member_(section - 1), held_(sem_take(gShmSecSemId, member_) == 0) {}
    ~SectionLock() {
        if (held_) (void)sem_give(gShmSecSemId, member_);
    }
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;

    bool held() const { return held_; }

private:
    int32_t member_;
    bool held_;
};

}  // namespace shm
