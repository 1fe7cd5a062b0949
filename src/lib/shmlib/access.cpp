// Section access: locked and unlocked reads, writes, fills and the bit call,
// with their range checks and clipping. One check (common/range.h) places a
// request in its section; each family maps that answer to its own results and
// messages. The write family checks the range
// before it attaches and locks, so its range messages reach the log hook; the
// read checks under the lock, so its messages go to the system log.
//
// Beyond the checks every caller of the store relies on, negative offsets are
// refused (reads -1, writes -3) and negative section numbers are refused by
// every call, so that no argument can address memory outside a section.
//
// The common case costs the semop pair and the copy and nothing else: a valid
// in-range read copies without the zero fill first (only a refused or clipped
// read can show it), the locks are taken through the library's own entry
// points rather than its exported symbols, and the development-marker test
// (a system call) runs only for a request out of range.
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "common/range.h"
#include "shmlib/store.h"

namespace {

using shm::Range;

void abort_if_development_build() {
    if (isXRev() == 1) raise(SIGABRT);
}

// The write family's answer to a range, shared by Vond_shm_memwrite and
// Vond_shm_memset and logged under their names: 0 with length possibly
// clipped, -2 for a bad section or -3 for an offset outside the section.
int32_t check_write_range(const char* function, int32_t sec_id, int32_t offset, int32_t& length) {
    const shm::RangeCheck check = shm::check_range(sec_id, offset, length);
    switch (check.range) {
        case Range::kInside:
            return 0;
        case Range::kBadSection:
            SHM_LOG_AS(function, 1, "bad sec id=%d\n", sec_id);
            return -2;
        case Range::kNegativeOffset:
            SHM_LOG_AS(function, 1, "The caller requested a negative offset. sec_id=%d offset=%d\n",
                       sec_id, offset);
            abort_if_development_build();
            return -3;
        case Range::kClipped:
        case Range::kPastEnd:
            break;
    }
    SHM_LOG_AS(function, 1, "The caller requested a length beyond the end of thesection.\n");
    SHM_LOG_AS(function, 1, "sec_id=%d offset=%d length=%d gShmSecSize[]=%d section id %d\n",
               sec_id, offset, length, check.size, sec_id);
    if (check.range == Range::kPastEnd) {
        SHM_LOG_AS(function, 1, "The caller requested an offset beyond the end of the section.\n");
        abort_if_development_build();
        return -3;
    }
    abort_if_development_build();
    length = check.size - offset;
    return 0;
}

// The steps the write family shares once its arguments are known to be valid:
// range, attach, lock, change, release.
template <typename Change>
int32_t write_section(const char* function, int32_t sec_id, int32_t offset, int32_t length,
                      Change change) {
    if (length < 1) return 0;
    if (const int32_t refused = check_write_range(function, sec_id, offset, length); refused != 0)
        return refused;
    if (!shm::attached() && Vond_shm_init_shm() != 0) {
        SHM_LOG_AS(function, 1, "bad share memory init \n");
        return -4;
    }
    const shm::SectionLock lock(sec_id);
    if (!lock.held()) {
        SHM_LOG_AS(function, 1, "bad shared memory section semiphore get\n");
        return -1;
    }
    change(shm::section_base(sec_id) + offset, static_cast<size_t>(length));
    return 0;
}

// The read of a valid, attached, in-range request (length at least 1, range
// its answer): the copy covers all of dest, so the zero fill that a refused or
// clipped read leaves behind would be overwritten anyway. False, with nothing
// done, for every other request, which then takes the checked path.
inline bool copy_in_range(Range range, int32_t sec_id, void* dest, int32_t offset, int32_t length) {
    if (range != Range::kInside || !shm::attached()) return false;
    std::memcpy(dest, shm::section_base(sec_id) + offset, static_cast<size_t>(length));
    return true;
}

// The _safe calls: the inner call runs with the thread's recursion counter
// raised, so none of its messages reaches the hook.
template <typename Call, typename Buffer>
int32_t with_recursion_raised(Call call, int32_t sec_id, Buffer buffer, int32_t offset,
                              int32_t length) {
    SHML_increment_recursion();
    const int32_t result = call(sec_id, buffer, offset, length);
    SHML_decrement_recursion();
    return result;
}

}  // namespace

SHM_EXPORT int32_t isXRev(void) { return access(shm::kXRevMarker, F_OK) == 0 ? 1 : 0; }

SHM_EXPORT int32_t Vond_shm_memread_unlocked(int32_t sec_id, void* dest, int32_t offset,
                                             int32_t length) {
    if (length < 1) return 0;
    shm::RangeCheck check = shm::check_range(sec_id, offset, length);
    if (copy_in_range(check.range, sec_id, dest, offset, length)) return 0;
    std::memset(dest, 0, static_cast<size_t>(length));
    if (check.range == Range::kBadSection) {
        SHM_LOG(1, "Invalid sec_id=%d.\n", sec_id);
        return -1;
    }
    if (!shm::attached()) {
        const int32_t result = Vond_shm_init_shm();
        if (result != 0) return result;
        check = shm::check_range(sec_id, offset, length);  // the table as attaching left it
    }
    switch (check.range) {
        case Range::kInside:
        case Range::kBadSection:  // answered above
            break;
        case Range::kNegativeOffset:
            SHM_LOG(1, "The caller requested a negative offset. sec_id=%d offset=%d\n", sec_id,
                    offset);
            abort_if_development_build();
            return -1;
        case Range::kClipped:
        case Range::kPastEnd:
            SHM_LOG(1, "The caller requested a length beyond the end of the section.\n");
            SHM_LOG(1, "sec_id=%d offset=%d length=%d gShmSecSize[]=%d\n", sec_id, offset, length,
                    check.size);
            if (check.range == Range::kPastEnd) {
                SHM_LOG(1, "The caller requested an offset beyond the end of the section.\n");
                abort_if_development_build();
                return -1;
            }
            abort_if_development_build();
            length = check.size - offset;  // the rest of dest stays zero
            break;
    }
    std::memcpy(dest, shm::section_base(sec_id) + offset, static_cast<size_t>(length));
    return 0;
}

SHM_EXPORT int32_t Vond_shm_memread(int32_t sec_id, void* dest, int32_t offset, int32_t length) {
    if (!shm::attached()) {
        const int32_t result = Vond_shm_init_shm();
        if (result != 0) return result;
    }
    if (shm::lock_member_wraps(sec_id)) {
        SHM_LOG(1, "Invalid sec_id=%d.\n", sec_id);
        return -1;
    }
    const shm::SectionLock lock(sec_id);
    if (!lock.held()) {
        SHM_LOG(1, "Unable to get the section semaphore.\n");
        return -1;
    }
    if (length >= 1 &&
        copy_in_range(shm::check_range(sec_id, offset, length).range, sec_id, dest, offset, length))
        return 0;
    return Vond_shm_memread_unlocked(sec_id, dest, offset, length);
}

SHM_EXPORT int32_t Vond_shm_memwrite(int32_t sec_id, const void* src, int32_t offset,
                                     int32_t length) {
    return write_section(__func__, sec_id, offset, length,
                         [src](unsigned char* to, size_t n) { std::memcpy(to, src, n); });
}

SHM_EXPORT int32_t Vond_shm_memset(int32_t sec_id, int32_t value, int32_t offset, int32_t length) {
    SHM_LOG(9, "enter\n");
    return write_section(__func__, sec_id, offset, length, [value](unsigned char* to, size_t n) {
        std::memset(to, static_cast<unsigned char>(value), n);
    });
}

// Its range refusals are silent on purpose, and a word that would not fit
// whole is not clipped.
SHM_EXPORT int32_t Vond_shm_mem_set_bit_on_uint(int32_t sec_id, int32_t offset, int32_t on,
                                                uint64_t mask) {
    const Range range = shm::check_range(sec_id, offset, sizeof(uint64_t)).range;
    if (range == Range::kBadSection) {
        SHM_LOG(1, "bad sec id=%d\n", sec_id);
        return -2;
    }
    if (range != Range::kInside) {
        abort_if_development_build();
        return -3;
    }
    if (!shm::attached() && Vond_shm_init_shm() != 0) {
        SHM_LOG(1, "bad share memory init \n");
        return -4;
    }
    const shm::SectionLock lock(sec_id);
    if (!lock.held()) {
        SHM_LOG(1, "bad shared memory section semiphore get\n");
        return -1;
    }
    unsigned char* word = shm::section_base(sec_id) + offset;
    uint64_t value = shm::load_le<uint32_t>(word) |
                     (static_cast<uint64_t>(shm::load_le<uint32_t>(word + 4)) << 32);
    value = (on == 1) ? (value | mask) : (value & ~mask);
    shm::store_le<uint32_t>(word, static_cast<uint32_t>(value));
    shm::store_le<uint32_t>(word + 4, static_cast<uint32_t>(value >> 32));
    return 0;
}

SHM_EXPORT int32_t Vond_shm_memread_safe(int32_t sec_id, void* dest, int32_t offset,
                                         int32_t length) {
    return with_recursion_raised(Vond_shm_memread, sec_id, dest, offset, length);
}

SHM_EXPORT int32_t Vond_shm_memread_unlocked_safe(int32_t sec_id, void* dest, int32_t offset,
                                                  int32_t length) {
    return with_recursion_raised(Vond_shm_memread_unlocked, sec_id, dest, offset, length);
}

SHM_EXPORT int32_t Vond_shm_memwrite_safe(int32_t sec_id, const void* src, int32_t offset,
                                          int32_t length) {
    return with_recursion_raised(Vond_shm_memwrite, sec_id, src, offset, length);
}
