// Shared pieces of the fuzz targets: a reader over the input, a log hook that
// formats every message (so the arguments the library passes are checked by
// the sanitizers), and the whole segment for before/after comparisons.
//
// Every target runs inside tests/sandbox.sh, so the store it creates is a
// private one.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "libshm.h"

namespace fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool more() const { return at_ < size_; }
    uint8_t u8() { return at_ < size_ ? data_[at_++] : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= uint32_t(u8()) << (8 * i);
        return v;
    }
    // Values that hit the edges often: small, near a size, or anything.
    int32_t edgy(int32_t size) {
        switch (u8() % 6) {
            case 0: return int32_t(u8());
            case 1: return size - int32_t(u8() % 16);
            case 2: return size + int32_t(u8() % 16);
            case 3: return -int32_t(u8());
            case 4: return int32_t(u32() % uint32_t(size > 0 ? size : 1));
            default: return int32_t(u32());
        }
    }
    void bytes(void* out, size_t n) {
        auto* p = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i) p[i] = u8();
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
inline int format_hook(int32_t, int32_t, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return 0;
}
#pragma GCC diagnostic pop

// Attaches once per process and installs the formatting hook; returns the
// segment's first byte.
inline uint8_t* segment() {
    static uint8_t* base = [] {
        SHML_get_per_thread_data();
        SHML_vondprintf = format_hook;
        if (Vond_shm_init_shm() != 0) abort();
        return static_cast<uint8_t*>(gShmData[0]);
    }();
    return base;
}

inline int64_t section_offset(int32_t section) {
    int64_t offset = 0;
    for (int32_t i = 0; i < section; ++i) offset += gShmSecSize[i];
    return offset;
}

// Aborts unless the segment equals `before` outside [lo, hi).
inline void expect_unchanged_outside(const std::vector<uint8_t>& before, int64_t lo, int64_t hi) {
    const uint8_t* now = segment();
    if (lo < 0) lo = 0;
    if (lo > SHM_SIZE) lo = SHM_SIZE;
    if (hi < lo) hi = lo;
    if (hi > SHM_SIZE) hi = SHM_SIZE;
    if (std::memcmp(now, before.data(), size_t(lo)) != 0 ||
        std::memcmp(now + hi, before.data() + hi, size_t(SHM_SIZE - hi)) != 0) {
        std::fprintf(stderr, "segment changed outside [%lld, %lld)\n", (long long)lo, (long long)hi);
        abort();
    }
}

// A caller buffer of exactly `size` bytes, kept for the whole run, so the
// sanitizer reports any access past its documented size.
template <size_t size>
std::vector<uint8_t>& buffer_of() {
    static std::vector<uint8_t> b(size);
    return b;
}

inline std::vector<uint8_t> snapshot() {
    return std::vector<uint8_t>(segment(), segment() + SHM_SIZE);
}

#define FUZZ_CHECK(condition)                                                  \
    do {                                                                       \
        if (!(condition)) {                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                           \
        }                                                                      \
    } while (false)

}  // namespace fuzz
