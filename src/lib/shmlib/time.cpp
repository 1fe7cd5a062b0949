// The time records: the EOP time (section 9) with its up-time and boot-time
// views, and the OS data collection date (section 19). The boot time is local
// time, the collection date UTC.
//
// Stored times are unsigned 32-bit seconds. They are widened to time_t
// explicitly: a build with a 64-bit time_t shows times after 2038 as they are;
// one with a 32-bit time_t cannot represent them and shows them wrapped, as
// every other program on such a build does.
//
// Beyond the records' contract, a null result pointer or text buffer is
// refused (-1 and a level-1 message): before anything is read, except in the
// boot time, which refuses it where the text would be written.
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "common/platform.h"

namespace {

// One 32-bit time field; false when the read fails (the read logs that).
bool read_time(int32_t section, int32_t offset, uint32_t& value) {
    uint8_t bytes[4] = {};
    if (Vond_shm_memread(section, bytes, offset, sizeof bytes) != 0) return false;
    value = shm::load_le<uint32_t>(bytes);
    return true;
}

// The EOP time, for the calls that report its read failure under their own
// name.
bool read_eop(const char* function, uint32_t& eop) {
    if (read_time(SHM_SEC_TIME, shm::times::kEopTime, eop)) return true;
    SHM_LOG_AS(function, 1, "shmread failed.\n");
    return false;
}

time_t to_time_t(uint32_t seconds) { return static_cast<time_t>(seconds); }

}  // namespace

SHM_EXPORT int32_t Vond_get_EOPTime(uint32_t* eop) {
    if (eop == nullptr) {
        SHM_LOG(1, "eop NULL pointer\n");
        return -1;
    }
    uint32_t value = 0;
    const bool read = read_eop(__func__, value);
    *eop = value;
    return read ? 0 : -1;
}

SHM_EXPORT int32_t Vond_set_EOPTime(int32_t op, uint32_t eop) {
    uint32_t value;
    if (op == 1)
        value = eop;
    else if (op == 0)
        value = 0;
    else
        return -1;
    uint8_t bytes[4];
    shm::store_le<uint32_t>(bytes, value);
    if (Vond_shm_memwrite(SHM_SEC_TIME, bytes, shm::times::kEopTime, sizeof bytes) != 0) {
        SHM_LOG(1, "shmwrite failed.\n");
        return -1;
    }
    return 0;
}

SHM_EXPORT int32_t Vond_get_SysUpTime(void) {
    uint32_t eop = 0;
    if (!read_eop(__func__, eop)) return -1;
    if (eop == 0) {
        SHM_LOG(3, "EOP time not yet set.\n");
        return 0;
    }
    timeval now{};
    if (gettimeofday(&now, nullptr) != 0) {
        SHM_LOG(1, "gettimeofday() returned an error (this is really bad)\n");
        return -1;
    }
    // 32-bit arithmetic, wrapping rather than overflowing; microseconds are
    // dropped.
    return static_cast<int32_t>(static_cast<uint32_t>(now.tv_sec) - eop);
}

// The buffer is first written by the conversion, so a null one is refused
// only there: a failed read and an unset EOP time answer as they do for any
// buffer.
SHM_EXPORT int32_t Vond_get_BootTime(char* text) {
    uint32_t eop = 0;
    if (!read_eop(__func__, eop)) return -1;
    if (eop == 0) {
        SHM_LOG(3, "EOP time not yet set.\n");
        return 0;
    }
    if (text == nullptr) {
        SHM_LOG(1, "text NULL pointer\n");
        return -1;
    }
    const time_t when = to_time_t(eop);
    // ctime_r writes at most 26 bytes for any year below 10000, which every
    // 32-bit time is. Should it fail anyway, the caller gets an empty text
    // rather than a dereferenced null result.
    if (ctime_r(&when, text) == nullptr) {
        text[0] = '\0';
        SHM_LOG(1, "ctime_r failed.\n");
        return -1;
    }
    const size_t length = std::strlen(text);
    if (length > 0) text[length - 1] = '\0';  // the line end
    return 0;
}

SHM_EXPORT int32_t Vond_get_OSDataCollectionDate(char* text) {
    if (text == nullptr) {
        SHM_LOG(1, "text NULL pointer\n");
        return -1;
    }
    uint32_t collected = 0;
    char date[shm::times::kDateTextSize] = {};
    if (!read_time(SHM_SEC_OS_DATA, shm::times::kOsDataCollectionTime, collected)) return -1;
    if (collected == 0) {
        std::memcpy(text, "N/A", sizeof "N/A");
        return 0;
    }
    const time_t when = to_time_t(collected);
    tm broken{};
    if (gmtime_r(&when, &broken) != nullptr) {
        // Bounded to the 32-byte text; every 32-bit time gives 25 characters.
        const int written = std::snprintf(date, sizeof date, "%4d%02d%02d%02d%02d%02d.000000+000",
                                          broken.tm_year + 1900, broken.tm_mon + 1, broken.tm_mday,
                                          broken.tm_hour, broken.tm_min, broken.tm_sec);
        if (written < 0) date[0] = '\0';
    }
    // The text and its terminator only: never more than the 32 bytes the
    // caller provides, and nothing past the terminator.
    std::memcpy(text, date, std::strlen(date) + 1);
    return 0;
}
