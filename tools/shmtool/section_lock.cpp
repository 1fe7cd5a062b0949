#include "section_lock.h"

#include "common.h"

namespace shmtool {

SectionLock::SectionLock(int section) : section_(section) {
    attach_existing();
    void* base = nullptr;
    if (const int32_t result = Vond_shm_get_shm(section, &base); result != 0 || base == nullptr)
        library_failure("Vond_shm_get_shm", result, "no base address for section " + std::to_string(section));
    if (const int32_t result = Vond_shm_lock_shm(section); result != 0)
        library_failure("Vond_shm_lock_shm", result, "cannot take the lock of section " + std::to_string(section));
    base_ = static_cast<uint8_t*>(base);
}

SectionLock::~SectionLock() { (void)Vond_shm_unlock_shm(section_); }

}  // namespace shmtool
