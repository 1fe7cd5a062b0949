// The process's view of the store, for the library's own access paths.
#pragma once

#include <cstdint>

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

}  // namespace shm
