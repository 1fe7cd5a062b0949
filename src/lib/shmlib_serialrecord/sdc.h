// The serial data record ring in section 26: the ring bytes at offsets 0 to
// 524287, then the 220-byte header with Head, Tail, Written, the application
// table and the signature. All SDC state lives in the section; these are the
// offsets and the index arithmetic every SDC call shares.
//
// Header values come from shared memory (any local process can write it) or
// from a recovery file, so they are untrusted: GetSdcHeader refuses Head and
// Tail outside the ring, and with both inside it every range the calls derive
// stays inside the section.
#pragma once

#include <cstdint>

#include "libshm.h"

namespace shm::sdc {

inline constexpr int32_t kSection = SHM_SEC_SDC;
inline constexpr uint32_t kRingSize = SDC_RING_SIZE;
inline constexpr uint32_t kRingMask = SDC_RING_SIZE - 1;
inline constexpr int32_t kHeaderOffset = SDC_HEADER_OFFSET;
inline constexpr int32_t kHeaderSize = SDC_HEADER_SIZE;
inline constexpr int32_t kSectionSize = kHeaderOffset + kHeaderSize;
inline constexpr int32_t kFileSize = SDC_RECOVERY_FILE_SIZE;
inline constexpr int32_t kRestoreChunk = 16384;
inline constexpr int32_t kRestoreChunks = SDC_RING_SIZE / kRestoreChunk;

// Byte offsets inside the header.
inline constexpr int32_t kHead = 0;
inline constexpr int32_t kTail = 4;
inline constexpr int32_t kWritten = 8;
inline constexpr int32_t kAppTable = 12;
inline constexpr int32_t kAppEntrySize = 25;
inline constexpr int32_t kAppLast = 21;   // iLast inside an application entry
inline constexpr int32_t kAppNameStored = 20;  // registration sets bytes 0 to 19
inline constexpr int32_t kSignature = 212;
inline constexpr int32_t kSignatureSize = 8;
inline constexpr char kSignatureText[kSignatureSize] = SDC_SIGNATURE;  // with its zero byte

static_assert(sizeof(SdcAppEntry) == kAppEntrySize);
static_assert(__builtin_offsetof(SdcAppEntry, iLast) == kAppLast);
static_assert(sizeof(SdcHeader) == kHeaderSize);
static_assert(__builtin_offsetof(SdcHeader, Head) == kHead);
static_assert(__builtin_offsetof(SdcHeader, Tail) == kTail);
static_assert(__builtin_offsetof(SdcHeader, Written) == kWritten);
static_assert(__builtin_offsetof(SdcHeader, SDCAppTable) == kAppTable);
static_assert(__builtin_offsetof(SdcHeader, Signature) == kSignature);
static_assert(kRingSize == 0x80000 && kRingMask == 0x7FFFF);
static_assert(kSectionSize == 524508 && kFileSize == kSectionSize);

// Section offsets of the header fields and of application slot `id`.
constexpr int32_t section_offset(int32_t header_offset) { return kHeaderOffset + header_offset; }
constexpr int32_t app_offset(uint32_t id) { return kAppTable + kAppEntrySize * int32_t(id); }
static_assert(section_offset(app_offset(0)) == 524300);
static_assert(section_offset(app_offset(1) + kAppLast) == 524346);

// The ring states, tested in this order.
constexpr bool is_full(uint32_t head, uint32_t tail) { return head == ((tail + 1) & kRingMask); }
constexpr bool is_empty(uint32_t head, uint32_t tail, uint32_t written) {
    return head == 0 && tail == 0 && written == 0;
}
// The count an export returns.
constexpr uint32_t content_size(uint32_t head, uint32_t tail, uint32_t written) {
    if (is_full(head, tail)) return kRingSize;
    if (is_empty(head, tail, written)) return 0;
    return tail + 1;
}

// A copy of the header as read from the section, with the indexes decoded.
struct Header {
    uint8_t bytes[kHeaderSize];
    uint32_t head;
    uint32_t tail;
    uint32_t written;
};

// Reads the header into `bytes` and the three indexes; -1 when the read fails
// (already logged) or Head or Tail lies outside the ring.
int32_t GetSdcHeader(uint8_t (&bytes)[kHeaderSize], uint32_t& head, uint32_t& tail,
                     uint32_t& written);

// GetSdcHeader into a zeroed Header; on failure logs "Read SDC header section
// failed." at `level` under `function`'s name. True when the header is usable.
bool read_header(const char* function, int32_t level, Header& header);

// Copies `length` bytes of the ring from ring index `index` into `dest`; the
// callers keep index + length within the ring.
bool read_ring(void* dest, uint32_t index, uint32_t length);

}  // namespace shm::sdc
