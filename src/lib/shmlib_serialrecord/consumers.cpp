// Registered consumers of the SDC ring: up to eight applications, each with a
// slot in the header's table whose iLast is the ring index of the last byte it
// has been given. Registration starts a new consumer at Head; a poll hands
// over everything after iLast up to Tail.
//
// A stored iLast of SDC_RING_SIZE or more names no ring index: a poll refuses
// it (-1, level 2 message) and leaves it alone, since no starting point can be
// derived from it. Re-registering does not repair it (the name still
// matches); rewriting the slot (a restore, or a write of a valid iLast) does.
#include <cstring>

#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "shmlib_serialrecord/sdc.h"

using namespace shm::sdc;

namespace {

// Application slot `id` inside a header copy.
uint8_t* slot(Header& header, uint32_t id) { return header.bytes + app_offset(id); }

// The slot's name with a terminating zero, whatever its 21 stored bytes hold.
struct SlotName {
    char text[SDC_APP_NAME_SIZE + 1];
};
SlotName slot_name(const uint8_t* entry) {
    SlotName name{};
    std::memcpy(name.text, entry, SDC_APP_NAME_SIZE);
    return name;
}

}  // namespace

SHM_EXPORT int32_t Vond_shm_periodic_register_sdc(const char* name, int32_t* id) {
    if (name == nullptr || id == nullptr) return -1;
    *id = -1;

    Header header;
    if (!read_header(__func__, 2, header)) return -1;

    for (uint32_t i = 0; i < SDC_MAX_APPS; ++i) {
        // Free slots take part: an empty name matches the lowest free one.
        if (std::strncmp(name, reinterpret_cast<const char*>(slot(header, i)), SDC_APP_NAME_SIZE) == 0) {
            SHM_LOG(5, "App %s already using id %d.\n", name, i);
            *id = int32_t(i);
            return 0;
        }
    }
    for (uint32_t i = 0; i < SDC_MAX_APPS; ++i) {
        uint8_t* entry = slot(header, i);
        if (entry[0] != 0) {
            SHM_LOG(5, "App %d is already registerd as %s\n", i, slot_name(entry).text);
            continue;
        }
        SHM_LOG(5, "App %s is registering id %d.\n", name, i);
        // Bytes 0 to 19 only: a shorter name is zero-padded, a longer one cut
        // without a terminating zero; byte 20 keeps its stored value.
        std::strncpy(reinterpret_cast<char*>(entry), name, kAppNameStored);
        shm::store_le<uint32_t>(entry + kAppLast, header.head);
        const int32_t offset = field_offset(app_offset(i));
        SHM_LOG(5, "SDCAppTable[%d] shm offset = 0x%x\n", i, offset);
        if (Vond_shm_memwrite(kSection, entry, offset, kAppEntrySize) != 0) {
            SHM_LOG(2, "Write SDC header section failed.\n");
            return -1;
        }
        *id = int32_t(i);
        return 0;
    }
    return -1;
}

SHM_EXPORT int32_t Vond_shm_periodic_get_sdc(uint32_t* length, void* buffer, uint32_t id) {
    if (length == nullptr || buffer == nullptr) return -1;
    *length = 0;
    if (id >= SDC_MAX_APPS) {
        SHM_LOG(2, "Id %d out of range\n", id);
        return -1;
    }
    Header header;
    if (!read_header(__func__, 2, header)) return -1;
    const uint8_t* entry = slot(header, id);
    if (entry[0] == 0) {
        SHM_LOG(2, "Id %d not registered \n", id);
        return -1;
    }
    const uint32_t tail = header.tail;
    const uint32_t last = shm::load_le<uint32_t>(entry + kAppLast);
    SHM_LOG(5, "H=0x%x : T=0x%x : ID%d : L=0x%x \n", header.head, tail, id, last);
    if (tail == last) return 0;
    if (last >= kRingSize) {
        SHM_LOG(2, "Id %d read position L=0x%x out of range\n", id, last);
        return -1;
    }

    // Every range below ends at or before the ring's end, and the bytes
    // delivered never exceed SDC_POLL_BUFFER_SIZE: with last and tail both
    // ring indexes, a wrapped poll hands over 524288 + tail - last bytes.
    uint32_t count;
    bool read;
    auto* out = static_cast<uint8_t*>(buffer);
    if (tail > last) {
        count = tail - last;
        read = read_ring(out, last + 1, count);
    } else {
        // The writer went round the end since the last poll. The count is the
        // part from the start of the ring only, as consumers expect it.
        const uint32_t to_end = kRingSize - (last + 1);
        read = to_end == 0 || read_ring(out, last + 1, to_end);
        if (read) read = read_ring(out + to_end, 0, tail + 1);
        count = tail + 1;
    }
    if (!read) {
        SHM_LOG(2, "Read SDC data section failed.\n");
        return -1;
    }
    *length = count;

    const int32_t offset = field_offset(app_offset(id) + kAppLast);
    SHM_LOG(5, "Write Tail=0x%x to id %d LastOffset=0x%x  \n", tail, id, offset);
    uint8_t bytes[4];
    shm::store_le<uint32_t>(bytes, tail);
    if (Vond_shm_memwrite(kSection, bytes, offset, sizeof bytes) != 0) {
        SHM_LOG(2, "Write SDC header (ID%d iLast) section failed.\n", id);
        *length = 0;
        return -1;
    }
    return 0;
}
