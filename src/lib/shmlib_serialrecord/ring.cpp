// Producers and the exporter of the SDC ring: append, export oldest first,
// clear and size. Nothing is held across steps: each section read or write is
// atomic on its own and the header is written after the data it covers.
#include <cstring>

#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "shmlib_serialrecord/sdc.h"

using namespace shm::sdc;

namespace {

bool write_ring(const void* src, uint32_t index, uint32_t length) {
    return Vond_shm_memwrite(kSection, src, int32_t(index), int32_t(length)) == 0;
}

bool write_header_word(int32_t header_offset, uint32_t value) {
    uint8_t bytes[4];
    shm::store_le<uint32_t>(bytes, value);
    return Vond_shm_memwrite(kSection, bytes, field_offset(header_offset), sizeof bytes) == 0;
}

}  // namespace

SHM_EXPORT int32_t Vond_shm_write_sdc(const uint32_t* length, const void* data) {
    if (length == nullptr || data == nullptr || *length == 0 || *length > kRingSize) return -1;

    Header header;
    if (!read_header(__func__, 2, header)) return -1;
    const uint32_t head = header.head, tail = header.tail, written = header.written;

    // The count is read once: a caller changing it during the call cannot make
    // the two copies disagree with each other or with the header. `tail` is
    // below kRingSize, so start + first never passes the ring's end.
    const uint32_t n = *length;
    const bool empty = is_empty(head, tail, written);
    const uint32_t start = empty ? 0 : tail + 1;
    const uint32_t room = empty ? kRingSize : kRingSize - (tail + 1);
    const uint32_t first = n < room ? n : room;
    const bool wraps = n > room || is_full(head, tail);

    if (!write_ring(data, start, first)) {
        SHM_LOG(2, "Write SDC data section failed.\n");
        return -1;
    }
    if (n > first && !write_ring(static_cast<const uint8_t*>(data) + first, 0, n - first)) {
        SHM_LOG(2, "Write SDC data section failed.\n");
        return -1;
    }

    // An append of more than one byte into an empty ring leaves Tail one index
    // beyond its last byte: that is what the stored format means.
    const uint32_t new_tail = (n == 1 && tail == 0 && written == 0) ? 0 : (tail + n) & kRingMask;
    uint32_t new_head = head;
    if (wraps) {
        new_head = (new_tail + 1) & kRingMask;
        uint8_t indexes[8];
        shm::store_le<uint32_t>(indexes + kHead, new_head);
        shm::store_le<uint32_t>(indexes + kTail, new_tail);
        if (Vond_shm_memwrite(kSection, indexes, field_offset(kHead), sizeof indexes) != 0) {
            SHM_LOG(2, "Write SDC header section failed.\n");
            return -1;
        }
    } else {
        if (!write_header_word(kTail, new_tail)) {
            SHM_LOG(2, "Write SDC header section failed.\n");
            return -1;
        }
        if (written == 0 && !write_header_word(kWritten, 1)) {
            SHM_LOG(2, "Write SDC header section failed.\n");
            return -1;
        }
    }
    SHM_LOG(5, "Success. (%d) OLD H=0x%x (%d), T=0x%x (%d) \n", n, head, head, tail, tail);
    SHM_LOG(5, "Success. (%d) NEW H=0x%x (%d), T=0x%x (%d) \n", n, new_head, new_head, new_tail,
            new_tail);
    return 0;
}

SHM_EXPORT int32_t Vond_shm_export_sdc(uint32_t* length, void* buffer) {
    if (buffer == nullptr || length == nullptr) return -1;
    *length = 0;

    Header header;
    if (!read_header(__func__, 2, header)) return -1;
    const uint32_t head = header.head, tail = header.tail;
    if (is_empty(head, tail, header.written)) return 0;

    const uint32_t to_end = kRingSize - head;
    SHM_LOG(5, "Head = 0x%x (%d): Tail = 0x%x (%d): ShmBytesToEnd = 0x%x (%d)\n", head, head,
            tail, tail, to_end, to_end);
    uint32_t count;
    bool read;
    if (is_full(head, tail)) {
        SHM_LOG(5, "SHM FULL. 1st read 0x%x (%d) bytes from Head = 0x%x (%d) to end\n", to_end,
                to_end, head, head);
        read = read_ring(buffer, head, to_end);
        if (read) {
            SHM_LOG(5, "SHM FULL. 2nd read 0x%x (%d) bytes from 0 \n", head, head);
            read = read_ring(static_cast<uint8_t*>(buffer) + to_end, 0, head);
        }
        count = kRingSize;
    } else {
        count = tail + 1;
        // Logged at level 2 on purpose, though it reports progress.
        SHM_LOG(2, "SHM not full. Read 0x%x (%d) bytes from 0 \n", count, count);
        read = read_ring(buffer, 0, count);
    }
    if (!read) {
        SHM_LOG(2, "Read SDC data section failed.\n");
        return -1;
    }
    *length = count;
    SHM_LOG(5, "Export 0x%x (%d) bytes :  H=0x%x (%d) : T=0x%x (%d) \n", count, count, head, head,
            tail, tail);
    return 0;
}

SHM_EXPORT int32_t Vond_shm_clear_sdc(void) {
    Header header;
    if (!read_header(__func__, 2, header)) return -1;
    const uint8_t zeros[12] = {};
    if (Vond_shm_memwrite(kSection, zeros, field_offset(kHead), sizeof zeros) != 0) {
        SHM_LOG(2, "Write SDC header section failed.\n");
        return -1;
    }
    return 0;
}

SHM_EXPORT int32_t Vond_shm_get_size_sdc(uint32_t* size) {
    if (size == nullptr) return -1;
    *size = 0;
    Header header;
    if (!read_header(__func__, 2, header)) return -1;
    *size = content_size(header.head, header.tail, header.written);
    return 0;
}
