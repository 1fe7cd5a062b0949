// The SDC header reader every SDC call starts with.
#include <cstring>

#include "common/le.h"
#include "common/log.h"
#include "shmlib_serialrecord/sdc.h"

namespace shm::sdc {

int32_t GetSdcHeader(uint8_t (&bytes)[kHeaderSize], uint32_t& head, uint32_t& tail,
                     uint32_t& written) {
    if (Vond_shm_memread(kSection, bytes, kHeaderOffset, kHeaderSize) != 0) return -1;
    const uint32_t stored_head = load_le<uint32_t>(bytes + kHead);
    const uint32_t stored_tail = load_le<uint32_t>(bytes + kTail);
    if (!indexes_valid(stored_head, stored_tail)) {
        SHM_LOG(2, "Head/Tail indexes out of range H=0x%x T=x%x\n", stored_head, stored_tail);
        return -1;
    }
    head = stored_head;
    tail = stored_tail;
    written = load_le<uint32_t>(bytes + kWritten);
    return 0;
}

bool read_header(const char* function, int32_t level, Header& header) {
    std::memset(&header, 0, sizeof header);
    if (GetSdcHeader(header.bytes, header.head, header.tail, header.written) == 0) return true;
    SHM_LOG_AS(function, level, "Read SDC header section failed.\n");
    return false;
}

bool read_ring(void* dest, uint32_t index, uint32_t length) {
    return Vond_shm_memread(kSection, dest, int32_t(index), int32_t(length)) == 0;
}

}  // namespace shm::sdc
