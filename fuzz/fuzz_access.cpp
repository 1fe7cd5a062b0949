// Section access with arbitrary section numbers, offsets, lengths, values and
// masks. After every call: the result is one the call documents, and no byte
// of the segment outside the addressed range (clipped at the section's end)
// has changed; a write leaves the range equal to its source, a fill to its
// byte. Caller buffers have exactly the length passed, so the sanitizer sees
// any access beyond them.
//
// "Whole segment" is checked through the segment watch of fuzz_common.h
// (only pages the call wrote can differ), and the caller buffer is one
// allocation of the largest length, cut to the length passed: the costs
// follow the ranges the input names, not the segment's size.
#include "fuzz_common.h"

namespace {

constexpr int32_t kMaxBuffer = 1 << 20;

enum Op { kRead, kReadUnlocked, kReadSafe, kWrite, kWriteSafe, kFill, kBit, kOps };

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    uint8_t* base = segment();
    static ExactBuffer<kMaxBuffer> caller;
    Input in(data, size);
    for (int step = 0; step < 32 && in.more(); ++step) {
        const Op op = Op(in.u8() % kOps);
        const int32_t sec = in.u8() % 4 == 0 ? int32_t(in.u32()) : int32_t(in.u8() % 36) - 1;
        const bool known = sec >= 0 && sec < SHM_SECTION_COUNT;
        const int32_t sec_size = known ? gShmSecSize[sec] : 0;
        const int32_t offset = in.edgy(sec_size);
        int32_t length = op == kBit ? 8 : in.edgy(sec_size);
        if (op != kFill && op != kBit && length > kMaxBuffer) length = kMaxBuffer;

        // The range the call may change, in segment offsets.
        int64_t lo = 0, hi = 0;
        const bool writes = op == kWrite || op == kWriteSafe || op == kFill || op == kBit;
        if (writes && known && offset >= 0 && offset < sec_size && length > 0) {
            const int64_t start = section_offset(sec);
            const int64_t end = int64_t(offset) + length;
            lo = start + offset;
            hi = start + (end < sec_size ? end : sec_size);
        }
        checkpoint();
        expect_writes(lo, hi);
        // Only the reads and writes take a caller buffer; a fill's length may be
        // anything. A write's buffer holds up to 64 bytes of the input, then
        // zeros.
        const bool buffered = op != kFill && op != kBit && length > 0;
        const size_t buffer_size = buffered ? size_t(length) : 0;
        uint8_t* buffer = buffered ? caller.take(buffer_size, writes) : nullptr;
        in.bytes(buffer, buffer_size < 64 ? buffer_size : 64);
        caller.wrote(writes ? (buffer_size < 64 ? buffer_size : 64) : buffer_size);
        const uint8_t value = in.u8();
        int32_t result = 0;
        switch (op) {
            case kRead: result = Vond_shm_memread(sec, buffer, offset, length); break;
            case kReadUnlocked:
                result = Vond_shm_memread_unlocked(sec, buffer, offset, length);
                break;
            case kReadSafe: result = Vond_shm_memread_safe(sec, buffer, offset, length); break;
            case kWrite: result = Vond_shm_memwrite(sec, buffer, offset, length); break;
            case kWriteSafe:
                result = Vond_shm_memwrite_safe(sec, buffer, offset, length);
                break;
            case kFill: result = Vond_shm_memset(sec, value, offset, length); break;
            case kBit: {
                const uint64_t mask = uint64_t(in.u32()) << 32 | in.u32();
                result = Vond_shm_mem_set_bit_on_uint(sec, offset, value % 3, mask);
                break;
            }
            default: break;
        }
        if (writes)
            FUZZ_CHECK(result >= -4 && result <= 0);
        else
            FUZZ_CHECK(result == 0 || result == -1);
        expect_unchanged_outside(lo, hi);
        if (result == 0 && hi > lo && (op == kWrite || op == kWriteSafe))
            FUZZ_CHECK(std::memcmp(base + lo, buffer, size_t(hi - lo)) == 0);
        if (result == 0 && hi > lo && op == kFill)
            FUZZ_CHECK(all_bytes(base + lo, size_t(hi - lo), value));
    }
    return 0;
}
