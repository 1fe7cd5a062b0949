// Section access with arbitrary section numbers, offsets, lengths, values and
// masks. After every call: the result is one the call documents, and no byte
// of the segment outside the addressed range (clipped at the section's end)
// has changed; a write leaves the range equal to its source, a fill to its
// byte. Caller buffers have exactly the length passed, so the sanitizer sees
// any access beyond them.
#include "fuzz_common.h"

namespace {

constexpr int32_t kMaxBuffer = 1 << 20;

enum Op { kRead, kReadUnlocked, kReadSafe, kWrite, kWriteSafe, kFill, kBit, kOps };

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    uint8_t* base = segment();
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
        const std::vector<uint8_t> before = snapshot();
        // Only the reads and writes take a caller buffer; a fill's length may be
        // anything.
        const bool buffered = op != kFill && op != kBit && length > 0;
        std::vector<uint8_t> buffer(buffered ? size_t(length) : 0);
        in.bytes(buffer.data(), buffer.size() < 64 ? buffer.size() : 64);
        const uint8_t value = in.u8();
        int32_t result = 0;
        switch (op) {
            case kRead: result = Vond_shm_memread(sec, buffer.data(), offset, length); break;
            case kReadUnlocked:
                result = Vond_shm_memread_unlocked(sec, buffer.data(), offset, length);
                break;
            case kReadSafe: result = Vond_shm_memread_safe(sec, buffer.data(), offset, length); break;
            case kWrite: result = Vond_shm_memwrite(sec, buffer.data(), offset, length); break;
            case kWriteSafe:
                result = Vond_shm_memwrite_safe(sec, buffer.data(), offset, length);
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
        expect_unchanged_outside(before, lo, hi);
        if (result == 0 && hi > lo && (op == kWrite || op == kWriteSafe))
            FUZZ_CHECK(std::memcmp(base + lo, buffer.data(), size_t(hi - lo)) == 0);
        if (result == 0 && hi > lo && op == kFill)
            for (int64_t i = lo; i < hi; ++i) FUZZ_CHECK(base[i] == value);
    }
    return 0;
}
