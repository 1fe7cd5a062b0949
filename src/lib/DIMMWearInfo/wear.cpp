// DIMM wear levels (section 21): updates by position or by FQDD, and the
// report of every Apache Pass module's wear.
//
// The wear table holds 192 records of 40 bytes from offset 555, record
// cpu * 48 + channel * 6 + dimm. Every update reads the whole record, puts
// the new float at byte 28 and writes the 40 bytes back, so bytes owned by
// other writers are carried. Each read and write is locked on its own; an
// update as a whole is not atomic.
//
// Stored data is untrusted:
// - FQDDs, in the inventory and in the caller's list, may fill all 16 bytes
//   without a terminating zero. They are compared and logged as bounded
//   copies (16 bytes and a zero), so two such FQDDs match when all 16 bytes
//   agree, and nothing past the 16 bytes is ever read. The report's FQDD
//   holds at most 15 characters and always ends in a zero.
// - The report's wear byte comes from a stored float; see wear_byte.
// - The report never writes more entries than the Apache Pass count it
//   checked against the buffer size, even if the inventory changes between
//   its two reads.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "DIMMWearInfo/dimm.h"
#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"

namespace {

namespace dimm = shm::dimm;

static_assert(sizeof(DimmWearPosition) == dimm::kPositionEntrySize);
static_assert(offsetof(DimmWearPosition, cpu) == 0 && offsetof(DimmWearPosition, channel) == 1 &&
              offsetof(DimmWearPosition, dimm) == 2 && offsetof(DimmWearPosition, type) == 3 &&
              offsetof(DimmWearPosition, wear) == 4);
static_assert(sizeof(DimmWearEntry) == dimm::kWearEntrySize);
static_assert(offsetof(DimmWearEntry, index) == 0 && offsetof(DimmWearEntry, wear) == 1 &&
              offsetof(DimmWearEntry, fqdd) == 2);
static_assert(sizeof(DimmWearEntry::fqdd) == dimm::kFqddSize);
static_assert(dimm::kWearOffset == SHM_DIMM_WEAR_OFFSET &&
              dimm::kWearRecordSize == SHM_DIMM_WEAR_RECORD_SIZE);
static_assert(dimm::kDimmsPerCpu * (dimm::kLastCpu + 1) == SHM_DIMM_WEAR_RECORDS);
static_assert(dimm::kWearOffset + dimm::kWearRecordSize * SHM_DIMM_WEAR_RECORDS == 8235);
static_assert(sizeof(float) == 4);

struct WearRecord {
    uint8_t bytes[dimm::kWearRecordSize];
    int32_t offset;
};

uint32_t record_number(uint32_t cpu, uint32_t channel, uint32_t position) {
    return cpu * dimm::kDimmsPerCpu + channel * dimm::kDimmsPerChannel + position;
}

// Zeroes the record and reads wear record n (n < 192) into it.
bool read_wear(uint32_t n, WearRecord& record) {
    std::memset(record.bytes, 0, sizeof record.bytes);
    record.offset = dimm::kWearOffset + dimm::kWearRecordSize * static_cast<int32_t>(n);
    return Vond_shm_memread(SHM_SEC_DIMM_WEAR, record.bytes, record.offset, sizeof record.bytes) == 0;
}

bool write_wear(const WearRecord& record, float percent) {
    uint8_t bytes[dimm::kWearRecordSize];
    std::memcpy(bytes, record.bytes, sizeof bytes);
    shm::store_le<float>(bytes + dimm::kWearPercent, percent);
    return Vond_shm_memwrite(SHM_SEC_DIMM_WEAR, bytes, record.offset, sizeof bytes) == 0;
}

enum class Match { kFound, kNone, kOutOfRange };

// Finds the wear record of inventory record i: translates its CPU and channel
// numbers, then takes the first of the six positions whose record reads and
// carries the module's slot. Logs under the calling query's name.
Match find_wear_record(const char* function, const dimm::Inventory& inventory, int32_t i,
                       WearRecord& record) {
    uint32_t cpu = inventory.cpu(i);
    uint32_t channel = inventory.channel(i);
    calculateCPUChannelNum(&cpu, &channel);
    if (cpu > dimm::kLastCpu || channel > dimm::kLastChannel) {  // the masks keep them in range
        SHM_LOG_AS(function, 2, "%s: Error CPU Num %d and Channel Num %d exceeds max", function,
                   static_cast<int>(cpu), static_cast<int>(channel));
        return Match::kOutOfRange;
    }
    const uint8_t slot = inventory.slot(i);
    for (uint32_t d = 0; d <= dimm::kLastDimm; ++d) {
        SHM_LOG_AS(function, 4, "%s: Checking CPU %d Channel %d DIMM %d", function,
                   static_cast<int>(cpu), static_cast<int>(channel), static_cast<int>(d));
        if (!read_wear(record_number(cpu, channel, d), record) ||
            record.bytes[dimm::kWearSlotIndex] != slot)
            continue;
        SHM_LOG_AS(function, 4, "%s: Matching DIMM found at CPU %d Channel %d DIMM %d Slot %d",
                   function, static_cast<int>(cpu), static_cast<int>(channel),
                   static_cast<int>(d), static_cast<int>(slot));
        return Match::kFound;
    }
    return Match::kNone;
}

// The report's wear byte: the stored percentage truncated toward zero, then
// cut to its low 8 bits. Zero, negative values and NaN give 0. Every float of
// 2^31 or more is a whole multiple of 256 (its last digit is worth at least
// 2^8), so the low 8 bits of its truncated value are 0: those values, and
// +infinity with them, give 0 without a conversion to an integer, which would
// be undefined from 2^32 on.
uint8_t wear_byte(float percent) {
    if (!(percent > 0.0f)) return 0;
    if (percent >= 2147483648.0f) return 0;
    return static_cast<uint8_t>(static_cast<uint32_t>(percent) & 0xFFu);
}

}  // namespace

SHM_EXPORT uint32_t updateDIMMWearLevel(const uint8_t* list) {
    if (list == nullptr) {
        SHM_LOG(2, "%s: Error!! input buffer NULL", __func__);
        return 1;
    }
    SHM_LOG(4, "%s: DIMM Count: %d", __func__, static_cast<int>(list[0]));
    // The count is taken anew before every entry.
    for (uint32_t i = 0; i < list[0]; ++i) {
        const uint8_t* entry = list + 1 + dimm::kPositionEntrySize * i;
        const uint32_t cpu = entry[offsetof(DimmWearPosition, cpu)];
        const uint32_t channel = entry[offsetof(DimmWearPosition, channel)];
        const uint32_t position = entry[offsetof(DimmWearPosition, dimm)];
        const uint32_t type = entry[offsetof(DimmWearPosition, type)];
        const uint32_t wear = entry[offsetof(DimmWearPosition, wear)];
        if (channel > dimm::kLastChannel || cpu > dimm::kLastCpu || position > dimm::kLastDimm) {
            SHM_LOG(2, "%s: Error!! Invalid input data", __func__);
            SHM_LOG(2, "%s: CPU Num: %d, Channel Num: %d, DIMM Index: %d", __func__,
                    static_cast<int>(cpu), static_cast<int>(channel), static_cast<int>(position));
            return 1;
        }
        const uint32_t n = record_number(cpu, channel, position);
        WearRecord record;
        if (!read_wear(n, record)) {
            SHM_LOG(2, "%s: Error!! Reading DIMM info from SHM", __func__);
            return 1;
        }
        SHM_LOG(4, "%s: CPU Num: %d, Channel Num: %d, DIMM Index: %d, DIMM type: %x", __func__,
                static_cast<int>(cpu), static_cast<int>(channel), static_cast<int>(position),
                static_cast<unsigned>(type));
        SHM_LOG(4, "%s: Wear Percent: %d, SHM index: %d", __func__, static_cast<int>(wear),
                static_cast<int>(n));
        if (!write_wear(record, static_cast<float>(wear))) {
            SHM_LOG(2, "%s: Error!! Writing DIMM info to SHM", __func__);
            return 1;
        }
    }
    return 0;
}

SHM_EXPORT uint32_t updateDIMMWearLevelUsingFQDD(const uint8_t* list) {
    dimm::Inventory inventory;
    if (list == nullptr) {
        SHM_LOG(2, "%s: Error!! input buffer NULL", __func__);
        return 1;
    }
    if (!dimm::read_inventory(inventory)) {
        SHM_LOG(2, "%s: Error in reading DIMM Info from SHM", __func__);
        return 1;
    }
    const uint32_t count = list[0];
    for (uint32_t e = 0; e < count; ++e) {
        const uint8_t* entry = list + 1 + dimm::kWearEntrySize * e;
        const dimm::Fqdd wanted = dimm::fqdd_text(entry + offsetof(DimmWearEntry, fqdd));
        SHM_LOG(4, "%s: Looking for DIMM FQDD %s", __func__, wanted.text);

        int32_t i = 0;
        for (; i < dimm::kInventoryRecords; ++i)
            if (inventory.presence(i) != 0 &&
                std::strcmp(dimm::fqdd_text(inventory.fqdd(i)).text, wanted.text) == 0)
                break;
        if (i == dimm::kInventoryRecords) continue;
        SHM_LOG(4, "%s: Found matching FQDD at %d", __func__, static_cast<int>(i));
        SHM_LOG(4, "%s: FQDD %s DIMM Type %d", __func__, dimm::fqdd_text(inventory.fqdd(i)).text,
                static_cast<int>(inventory.type(i)));

        WearRecord record;
        const Match match = find_wear_record(__func__, inventory, i, record);
        if (match == Match::kOutOfRange) return 1;
        if (match == Match::kNone) continue;

        const float percent = static_cast<float>(entry[offsetof(DimmWearEntry, wear)]);
        if (write_wear(record, percent))
            SHM_LOG(4, "%s: Successfully updated wear percentage %f", __func__,
                    static_cast<double>(percent));
        else
            SHM_LOG(2, "%s: Error in updating wear percentage %f", __func__,
                    static_cast<double>(percent));
    }
    return 0;
}

SHM_EXPORT uint32_t readDIMMWearLevel(uint8_t* buffer, uint32_t size) {
    dimm::Inventory inventory;
    if (size == 0 || buffer == nullptr) {
        SHM_LOG(2, "%s: Error!! input buffer NULL or buffer size is 0", __func__);
        return 1;
    }
    const uint32_t count = static_cast<uint32_t>(getNVDIMMApachePassCount());
    SHM_LOG(4, "%s: Buffer Size: %d", __func__, static_cast<int>(size));
    if (count > (size - 1) / dimm::kWearEntrySize) {
        SHM_LOG(2, "%s: Error!! insufficient buffer size", __func__);
        return 1;
    }
    std::memset(buffer, 0, 1 + dimm::kWearEntrySize * count);
    if (!dimm::read_inventory(inventory)) {
        SHM_LOG(2, "%s: Error in reading DIMM Info from SHM", __func__);
        return 1;
    }

    uint8_t k = 0;  // entries filled, never more than count
    for (int32_t i = 0; k < count && i < dimm::kInventoryRecords; ++i) {
        const uint8_t type = inventory.type(i);
        if (isNVDIMMApachePass(type) == 0) continue;
        SHM_LOG(4, "%s: Found DIMM Type: %d at Index %d", __func__, static_cast<int>(type),
                static_cast<int>(i));
        WearRecord record;
        const Match match = find_wear_record(__func__, inventory, i, record);
        if (match == Match::kOutOfRange) return 1;
        if (match == Match::kNone) continue;

        uint8_t* out = buffer + 1 + dimm::kWearEntrySize * k;
        out[offsetof(DimmWearEntry, index)] = inventory.slot(i);
        SHM_LOG(4, "%s: DIMM Index %d", __func__, static_cast<int>(inventory.slot(i)));
        // The FQDD comes from inventory record k, the entry's own number, not
        // from record i: the two agree while the Apache Pass modules fill the
        // first records without a gap.
        char fqdd[dimm::kFqddSize] = {};
        const uint8_t* stored = inventory.fqdd(k);
        for (int32_t c = 0; c < dimm::kFqddSize - 1 && stored[c] != 0; ++c)
            fqdd[c] = static_cast<char>(stored[c]);
        std::memcpy(out + offsetof(DimmWearEntry, fqdd), fqdd, sizeof fqdd);
        SHM_LOG(4, "%s: DIMM FQDD %s", __func__, fqdd);
        const uint8_t wear = wear_byte(shm::load_le<float>(record.bytes + dimm::kWearPercent));
        out[offsetof(DimmWearEntry, wear)] = wear;
        SHM_LOG(4, "%s: Wear Percentage %d", __func__, static_cast<int>(wear));
        ++k;
    }
    buffer[0] = k;
    SHM_LOG(4, "%s: Total DIMM copied %d", __func__, static_cast<int>(k));
    return 0;
}
