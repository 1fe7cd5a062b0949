// FRU queries: the FRU directory and data blocks of section 22, and the OCP
// mezzanine FRU id of section 24.
//
// The directory (an 8-byte header whose bytes 6-7 hold deviceCount, then
// deviceCount entries of 15 bytes) is read in place through the section's
// base pointer, without the section lock, as its writer expects. Only the
// data block is copied with the locked read.
//
// The directory is written by another process and trusted for nothing:
// - every stored byte is read exactly once into a local copy (see snapshot),
//   so a concurrent writer can tear an entry but cannot change a value
//   between its check and its use;
// - the directory must lie inside the section as gShmSecSize configures it.
//   A table that gives section 22 fewer than 8 bytes, or fewer than the
//   8 + 15 * deviceCount bytes the directory claims, makes the queries answer
//   1 (not readable) without a message, as when the section pointer is
//   missing; a deviceCount above 59 is still reported as corrupt first;
// - a data block is readable when dataOffset + dataLength, summed in 64 bits,
//   is at most 242557 and at most the configured section size, so neither a
//   wrapping offset nor a shrunken table lets the copy leave the section or
//   write more than dataLength bytes to the caller.
#include <cstddef>
#include <cstdint>

#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"

namespace {

// The layout of section 22, the FRU data section, and the byte of section 24,
// the OCP mezzanine section, that the queries read. Shared with every program
// that writes these sections: they must not change.
namespace fru {
constexpr int64_t kSectionSize = 242557;  // data blocks must end inside it
constexpr int32_t kDeviceCount = 6;  // 2 bytes in the header
constexpr int32_t kHeaderSize = 8;
constexpr int32_t kEntrySize = 15;
constexpr uint32_t kMaxDevices = 59;
constexpr int64_t kDirectorySpan = kHeaderSize + int64_t{kEntrySize} * kMaxDevices;  // 893

// Fields of one directory entry.
constexpr int32_t kStatus = 0;
constexpr int32_t kFruId = 1;  // 2 bytes
constexpr int32_t kAttribute = 4;
constexpr int32_t kDeviceType = 5;
constexpr int32_t kLocator = 6;
constexpr int32_t kDataLength = 7;  // 2 bytes
constexpr int32_t kDataOffset = 9;  // 4 bytes
constexpr uint8_t kInitialised = 1;

constexpr uint32_t kLastDeviceType = 25;
constexpr uint32_t kLastLocator = 3;  // locators are 1 to 3
constexpr uint32_t kMaxClassDevices = 64;

// The caller's device list: count byte, a gap byte, then 4-byte entries.
constexpr int32_t kListEntries = 2;
constexpr int32_t kListEntrySize = 4;

constexpr int32_t kOcpFruId = 1;  // byte of section 24
constexpr uint32_t kOcpNone = 255;
}  // namespace fru

static_assert(sizeof(FruEntry) == fru::kEntrySize);
static_assert(offsetof(FruEntry, status) == fru::kStatus);
static_assert(offsetof(FruEntry, fruId) == fru::kFruId);
static_assert(offsetof(FruEntry, reserved3) == 3);
static_assert(offsetof(FruEntry, fruAttribute) == fru::kAttribute);
static_assert(offsetof(FruEntry, deviceType) == fru::kDeviceType);
static_assert(offsetof(FruEntry, fruLocator) == fru::kLocator);
static_assert(offsetof(FruEntry, dataLength) == fru::kDataLength);
static_assert(offsetof(FruEntry, dataOffset) == fru::kDataOffset);
static_assert(offsetof(FruEntry, reserved13) == 13);
static_assert(sizeof(FruInfo) == fru::kEntrySize);
static_assert(sizeof(FruDeviceListEntry) == fru::kListEntrySize);
static_assert(offsetof(FruDeviceList, entry) == fru::kListEntries);
static_assert(sizeof(FruDeviceList) == fru::kListEntries + fru::kListEntrySize * fru::kMaxClassDevices);
static_assert(sizeof(FruDeviceList) == 258);
static_assert(fru::kSectionSize == SHM_FRU_SECTION_SIZE && fru::kMaxDevices == SHM_FRU_MAX_DEVICES &&
              fru::kMaxClassDevices == SHM_FRU_MAX_CLASS_DEVICES);
static_assert(fru::kDirectorySpan == 893 && fru::kDirectorySpan <= fru::kSectionSize);

constexpr uint32_t kOk = SHM_FRU_OK;
constexpr uint32_t kNotFound = SHM_FRU_NOT_FOUND;
constexpr uint32_t kNotInitialised = SHM_FRU_NOT_INITIALIZED;
constexpr uint32_t kBadArgument = SHM_FRU_BAD_ARGUMENT;

using Entry = uint8_t[fru::kEntrySize];

// Copies stored bytes through a volatile view, so that each byte is read from
// the store once and every later test uses that one value.
void snapshot(uint8_t* dst, const uint8_t* src, size_t n) {
    const volatile uint8_t* from = src;
    for (size_t i = 0; i < n; ++i) dst[i] = from[i];
}

struct Directory {
    const uint8_t* base = nullptr;
    int64_t size = 0;  // the section's size as configured at the call
    uint32_t count = 0;

    void entry(uint32_t i, Entry& out) const {
        snapshot(out, base + fru::kHeaderSize + int64_t{fru::kEntrySize} * i, fru::kEntrySize);
    }
    // The first entry with this id; false when there is none.
    bool find(uint32_t id, Entry& out) const {
        for (uint32_t i = 0; i < count; ++i) {
            entry(i, out);
            if (shm::load_le<uint16_t>(out + fru::kFruId) == id) return true;
        }
        return false;
    }
};

// Finds the directory and checks its header. kOk, kNotFound (no section, or
// a section too small for the directory) or kBadArgument (corrupt count,
// logged under the query's name).
uint32_t open_directory(const char* function, Directory& dir) {
    void* base = nullptr;
    if (Vond_shm_get_shm(SHM_SEC_FRU_DATA, &base) != 0 || base == nullptr) return kNotFound;
    dir.base = static_cast<const uint8_t*>(base);
    dir.size = gShmSecSize[SHM_SEC_FRU_DATA];
    if (dir.size < fru::kHeaderSize) return kNotFound;

    uint8_t count[2];
    snapshot(count, dir.base + fru::kDeviceCount, sizeof count);
    dir.count = shm::load_le<uint16_t>(count);
    if (dir.count > fru::kMaxDevices) {
        SHM_LOG_AS(function, 1, "deviceCount invalid\n");
        return kBadArgument;
    }
    if (fru::kHeaderSize + int64_t{fru::kEntrySize} * dir.count > dir.size) return kNotFound;
    return kOk;
}

// The steps both id queries take once their pointer is checked: open the
// directory and find the first entry with the id, logged under the query's
// name. kOk with `entry` filled, or the query's result.
uint32_t find_entry(const char* function, uint32_t id, Directory& dir, Entry& entry) {
    if (const uint32_t result = open_directory(function, dir); result != kOk) return result;
    SHM_LOG_AS(function, 9, "%s: shm get success\n", function);
    if (dir.count == 0 || !dir.find(id, entry)) return kNotFound;
    return kOk;
}

}  // namespace

SHM_EXPORT uint32_t Vond_shm_get_frudata(uint32_t id, uint8_t* data) {
    SHM_LOG(9, "%s:id=%d\n", __func__, static_cast<int>(id));
    if (data == nullptr) {
        SHM_LOG(1, "data NULL pointer\n");
        return kBadArgument;
    }
    Directory dir;
    Entry entry;
    if (const uint32_t result = find_entry(__func__, id, dir, entry); result != kOk) return result;
    if (entry[fru::kStatus] != fru::kInitialised) {
        SHM_LOG(1, " %s() FRU not initialized \n", __func__);
        return kNotInitialised;
    }
    const uint32_t offset = shm::load_le<uint32_t>(entry + fru::kDataOffset);
    const uint16_t length = shm::load_le<uint16_t>(entry + fru::kDataLength);
    const int64_t limit = dir.size < fru::kSectionSize ? dir.size : fru::kSectionSize;
    if (int64_t{offset} + length > limit) return kNotFound;

    // offset is now at most 242557, so both values fit the access call's ints.
    if (Vond_shm_memread(SHM_SEC_FRU_DATA, data, static_cast<int32_t>(offset), length) != 0) {
        SHM_LOG(1, " %s() Vond_shm_memread failed \n", __func__);
        return kNotFound;
    }
    SHM_LOG(9, " %s() Vond_shm_memread success \n", __func__);
    return kOk;
}

SHM_EXPORT uint32_t Vond_shm_get_fruinfo(uint32_t id, FruInfo* fruinfo) {
    SHM_LOG(9, "%s:id=%d\n", __func__, static_cast<int>(id));
    if (fruinfo == nullptr) {
        SHM_LOG(1, "fruinfo NULL pointer\n");
        return kBadArgument;
    }
    Directory dir;
    Entry entry;
    if (const uint32_t result = find_entry(__func__, id, dir, entry); result != kOk) return result;
    // The whole entry, status included: an uninitialised FRU is reported too.
    uint8_t* out = reinterpret_cast<uint8_t*>(fruinfo);
    for (int32_t i = 0; i < fru::kEntrySize; ++i) out[i] = entry[i];
    return kOk;
}

SHM_EXPORT uint32_t Vond_shm_get_fruDeviceinfo(uint32_t deviceType, uint32_t fruLocator,
                                               FruDeviceList* fruDeviceInfo) {
    SHM_LOG(9, "%s(): DeviceType: %d FruLocator:%d ", __func__, static_cast<int>(deviceType),
            static_cast<int>(fruLocator));
    if (fruLocator - 1 > fru::kLastLocator - 1) {
        SHM_LOG(3, "%s(): Invalid fru_locator %d.", __func__, static_cast<int>(fruLocator));
        return kBadArgument;
    }
    if (deviceType > fru::kLastDeviceType) {
        SHM_LOG(3, "%s(): Invalid fru device type:%d.", __func__, static_cast<int>(deviceType));
        return kBadArgument;
    }
    if (fruDeviceInfo == nullptr) {
        SHM_LOG(3, "%s(): fruDeviceInfo NULL pointer.", __func__);
        return kBadArgument;
    }
    Directory dir;
    if (const uint32_t result = open_directory(__func__, dir); result != kOk) return result;
    SHM_LOG(9, "%s(): shm get success, frucnt:%d", __func__, static_cast<int>(dir.count));

    // Byte 1 of the list is a gap the caller owns; entries past k stay as
    // they were.
    uint8_t* list = reinterpret_cast<uint8_t*>(fruDeviceInfo);
    uint32_t k = 0;
    for (uint32_t i = 0; i < dir.count; ++i) {
        Entry entry;
        dir.entry(i, entry);
        if (entry[fru::kDeviceType] != deviceType || entry[fru::kLocator] != fruLocator) continue;
        uint8_t* out = list + fru::kListEntries + fru::kListEntrySize * k;
        shm::store_le<uint16_t>(out, shm::load_le<uint16_t>(entry + fru::kFruId));
        out[2] = entry[fru::kAttribute];
        out[3] = static_cast<uint8_t>(fruLocator);
        // A count of at most 59 never gets here; the list's own size is the
        // limit should that change.
        if (++k >= fru::kMaxClassDevices) {
            SHM_LOG(3, "%s(): Same class fru devices exceed limit %d.", __func__,
                    static_cast<int>(fru::kMaxClassDevices));
            break;
        }
    }
    list[0] = static_cast<uint8_t>(k);
    SHM_LOG(9, "%s(): Max Device cnt:%d ", __func__, static_cast<int>(k));
    return kOk;
}

SHM_EXPORT uint32_t getOCPMezzFRUID(void) {
    uint8_t id = 0;
    if (Vond_shm_memread(SHM_SEC_OCP_MEZZ, &id, fru::kOcpFruId, 1) != 0) {
        SHM_LOG(5, "%s: shmread failed\n", __func__);
        return fru::kOcpNone;
    }
    return id != 0 ? id : fru::kOcpNone;
}
