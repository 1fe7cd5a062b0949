// The platform identity record (section 6): byte getters, the progress bits
// with their summary bit, the chassis type setter, the two chassis predicates
// and the constant answers of the same family.
//
// Every read and write goes through the section access calls, except the
// progress setter: it takes the section-6 semaphore itself so that its
// read-modify-write of the progress word is one atomic step.
//
// Beyond the record's contract, a null result pointer is refused (-1 and a
// level-1 message) instead of being written through, at the point where it
// would be written: checks that come before that keep their results and
// messages.
#include <sys/stat.h>

#include <csignal>
#include <cstring>

#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "common/platform.h"
#include "shmlib/store.h"

namespace {

namespace id = shm::identity;

constexpr int32_t kSection = SHM_SEC_PLATFORM_ID;

// One byte of the record, or `failed` when the read fails (the read has
// logged its own failure).
uint32_t read_byte(int32_t offset, uint32_t failed) {
    uint8_t byte = 0;
    if (Vond_shm_memread(kSection, &byte, offset, 1) != 0) return failed;
    return byte;
}

// 1 << (low 8 bits of bit, unsigned); 0 when that shift is 32 or more, so a
// negative or oversized bit number never shifts out of the word.
uint32_t progress_mask(int32_t bit) {
    const uint32_t shift = static_cast<uint32_t>(bit) & 0xFFu;
    return shift < 32 ? (uint32_t{1} << shift) : 0u;
}

}  // namespace

SHM_EXPORT uint32_t Vond_get_platform_type(void) { return read_byte(id::kPlatformType, 0); }
SHM_EXPORT uint32_t Vond_get_system_id(void) { return read_byte(id::kSystemId, 0); }
SHM_EXPORT uint32_t Vond_get_quorx_type(void) { return read_byte(id::kQuorxType, 0); }
SHM_EXPORT uint32_t Vond_get_generation(void) { return read_byte(id::kGeneration, 0); }
SHM_EXPORT uint32_t Vond_get_modular_chassis_type(void) {
    return read_byte(id::kModularChassisType, id::kChassisReadFailed);
}
SHM_EXPORT uint32_t Vond_get_post_update(void) { return read_byte(id::kPostUpdate, 0); }
SHM_EXPORT uint32_t Vond_get_cpu_type(void) { return read_byte(id::kCpuType, 0); }

// The platform check comes first, with its message, whatever `slot` is; a
// null slot is refused where the byte would be stored.
SHM_EXPORT int32_t Vond_get_blade_slot_num(uint8_t* slot) {
    if (Vond_get_platform_type() != id::kPlatformModular) {
        SHM_LOG(1, "platform is not modular\n");
        return -1;
    }
    if (slot == nullptr) {
        SHM_LOG(1, "slot NULL pointer\n");
        return -1;
    }
    return Vond_shm_memread(kSection, slot, id::kBladeSlot, 1) == 0 ? 0 : -1;
}

SHM_EXPORT uint32_t Vond_get_quorx_progress(int32_t bit) {
    uint8_t word[4] = {};
    if (Vond_shm_memread(kSection, word, id::kProgress, sizeof word) != 0) return 0;
    return (shm::load_le<uint32_t>(word) & progress_mask(bit)) != 0 ? 1u : 0u;
}

SHM_EXPORT int32_t Vond_set_quorx_progress(int32_t bit, int32_t set) {
    if (bit > 31 || bit == 0 || set > 1) {
        SHM_LOG(1, "invalid argument or data size\n");
        return -1;
    }
    int32_t length = sizeof(uint32_t);
    const int32_t size = gShmSecSize[kSection];
    if (size < length) {
        SHM_LOG(1, "data length is beyond section size\n");
        if (isXRev() == 1) raise(SIGABRT);
        // The table's size is the length: a record of 0 bytes has nothing to
        // update and the call succeeds having copied nothing. Only a negative
        // size, which no copy length can be, is refused.
        if (size < 0) return -1;
        length = size;
    }
    if (!shm::attached()) {
        const int32_t result = Vond_shm_init_shm();
        if (result != 0) return result;
    }
    const shm::SectionLock lock(kSection);
    if (!lock.held()) return -1;

    // From here until the lock goes at the end of the call nothing is logged,
    // and the record is copied directly: Vond_shm_memread would wait for the
    // semaphore held here.
    unsigned char* record = shm::section_base(kSection);
    uint8_t bytes[4] = {};
    if (length > 0) std::memcpy(bytes, record + id::kProgress, static_cast<size_t>(length));
    uint32_t word = shm::load_le<uint32_t>(bytes);
    const uint32_t mask = progress_mask(bit);
    word = set != 0 ? (word | mask) : (word & ~mask);
    if ((word & id::kRequiredProgress) == id::kRequiredProgress)
        word |= id::kSummaryBit;
    else
        word &= ~id::kSummaryBit;
    shm::store_le<uint32_t>(bytes, word);
    if (length > 0) std::memcpy(record + id::kProgress, bytes, static_cast<size_t>(length));
    return 0;
}

SHM_EXPORT int32_t Vond_set_modular_chassis_type(uint32_t type) {
    const uint8_t byte = static_cast<uint8_t>(type & 0xFFu);
    return Vond_shm_memwrite(kSection, &byte, id::kModularChassisType, 1);
}

// Deliberately ignores the platform type, unlike is_ngm.
SHM_EXPORT int32_t is_modular_brask_chassis(void) {
    const uint32_t type = Vond_get_modular_chassis_type();
    return (type == 5 || (type & ~uint32_t{2}) == 1) ? 1 : 0;
}

SHM_EXPORT uint32_t is_ngm(void) {
    if (Vond_get_platform_type() != id::kPlatformModular) return 0;
    return (Vond_get_modular_chassis_type() >> id::kChassisNgmBit) & 1u;
}

// Mere existence decides, so a dangling symbolic link counts as present.
SHM_EXPORT uint32_t Vond_get_product_type(void) {
    struct stat status;
    return lstat(id::kProductTypeMarker, &status) == 0 ? 1u : 0u;
}

SHM_EXPORT int32_t Vond_get_bios_livescan_stagger_time(uint8_t* time) {
    if (time == nullptr) {
        SHM_LOG(1, "time NULL pointer\n");
        return -1;
    }
    *time = id::kLivescanStaggerTime;
    return 0;
}

SHM_EXPORT int32_t Vond_get_hybridSysFlag(void) { return 0; }
