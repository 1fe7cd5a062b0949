#include "section_lock.h"

#include "common.h"

namespace shmtool {

void lock_failure(const libshm::Result& result, int section) {
    const std::string call = result.call();
    library_failure(result.call(), long(result.code()),
                    call == "Vond_shm_get_shm"    ? "no base address for section " + std::to_string(section)
                    : call == "Vond_shm_lock_shm" ? "cannot take the lock of section " + std::to_string(section)
                                                  : std::string(result.meaning()));
}

SectionLock::SectionLock(int section) {
    attach_existing();
    libshm::Expected<libshm::SectionLock> taken = libshm::SectionLock::take(section);
    if (!taken) lock_failure(taken.result(), section);
    lock_ = std::move(*taken);
}

}  // namespace shmtool
