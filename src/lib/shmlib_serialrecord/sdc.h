// The serial data record ring in section 26: the ring bytes at offsets 0 to
// 524287, then the 220-byte header with Head, Tail, Written, the application
// table and the signature. All SDC state lives in the section; these are the
// offsets every SDC call shares (the ring's states are in ring_state.h).
//
// Header values come from shared memory (any local process can write it) or
// from a recovery file, so they are untrusted: GetSdcHeader refuses Head and
// Tail outside the ring, and with both inside it every range the calls derive
// stays inside the section.
#pragma once

#include <cstdint>

#include "libshm.h"
#include "shmlib_serialrecord/ring_state.h"

namespace shm::sdc {

inline constexpr int32_t kSection = SHM_SEC_SDC;
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
static_assert(kSectionSize == 524508 && kFileSize == kSectionSize);

// Where a header field lies in the section, from its offset in the header,
// and where application slot `id` starts in the header.
constexpr int32_t field_offset(int32_t header_offset) { return kHeaderOffset + header_offset; }
constexpr int32_t app_offset(uint32_t id) { return kAppTable + kAppEntrySize * int32_t(id); }
static_assert(field_offset(app_offset(0)) == 524300);
static_assert(field_offset(app_offset(1) + kAppLast) == 524346);

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
