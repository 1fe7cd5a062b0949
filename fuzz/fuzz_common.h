// Shared pieces of the fuzz targets: a reader over the input, a log hook that
// formats every message (so the arguments the library passes are checked by
// the sanitizers), a watch on the whole segment for before/after comparisons,
// and caller buffers of exact size that are made once.
//
// Every target runs inside tests/sandbox.sh, so the store it creates is a
// private one and this process is the only one that can write to it.
//
// What an execution costs. The checks compare the whole segment (4 MB) and
// caller buffers of up to 1 MiB, but copying and comparing all of that for
// every call made the targets run at a few hundred inputs per second. The
// helpers below do the same checks at a cost that follows what the calls
// actually write:
// - the segment stays read-only between checks; the first write to a page
//   faults, the handler records the page and makes it writable, and the
//   call goes on. Pages that never faulted have not changed (the processor
//   guarantees it), so a check compares only the recorded pages, byte for
//   byte, with a copy of the segment taken once and kept up to date at
//   every checkpoint. Any stray write anywhere in the segment, by any code
//   of this process, is therefore seen;
// - a caller buffer of n bytes is the start of one allocation of the largest
//   size, with the bytes past n poisoned for the address sanitizer: an access
//   past n is reported as for an allocation of exactly n bytes, and nothing
//   is allocated or zeroed per call.
#pragma once

#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/statfs.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "libshm.h"

// The targets' own bookkeeping stays out of the coverage the fuzzer steers
// by: only the library's and the targets' decisions about the input count.
// (The corpus replay of the test builds has no coverage to steer by.)
#if defined(__clang__)
#define FUZZ_NO_COVERAGE __attribute__((no_sanitize("coverage")))
#else
#define FUZZ_NO_COVERAGE
#endif

namespace fuzz {

#define FUZZ_CHECK(condition)                                                  \
    do {                                                                       \
        if (!(condition)) {                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                           \
        }                                                                      \
    } while (false)

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
    // n calls of u8(): the input's next bytes, zeros once it has run out.
    void bytes(void* out, size_t n) {
        if (n == 0) return;
        const size_t left = size_ - at_;
        const size_t taken = n < left ? n : left;
        if (taken > 0) std::memcpy(out, data_ + at_, taken);
        std::memset(static_cast<uint8_t*>(out) + taken, 0, n - taken);
        at_ += taken;
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

// The library sends the messages it logs while a thread holds a lock to the
// system log (openlog with LOG_CONS). The sandbox has no /dev/log, so the C
// library wrote each of them to /dev/console instead, synchronously, through
// the machine's serial console: that took most of the time of some targets
// and flooded the console. Inside the sandbox (whose /dev is a private
// overlay) a socket bound at /dev/log takes them instead, and a thread reads
// and drops them; they are still formatted from the library's arguments as
// before. Outside the sandbox, or when /dev/log exists, nothing is done.
inline void receive_system_log() {
    struct statfs dev {};
    constexpr long kOverlayMagic = 0x794c7630;  // OVERLAYFS_SUPER_MAGIC
    if (access("/dev/log", F_OK) == 0 || statfs("/dev", &dev) != 0 ||
        long(dev.f_type) != kOverlayMagic)
        return;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/dev/log");
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("fuzz: bind /dev/log");
        abort();
    }
    pthread_t reader;
    const auto drain = [](void* argument) -> void* {
        const int socket_fd = int(reinterpret_cast<intptr_t>(argument));
        static char message[4096];
        for (;;)
            if (recv(socket_fd, message, sizeof message, 0) < 0 && errno != EINTR) return nullptr;
    };
    if (pthread_create(&reader, nullptr, drain, reinterpret_cast<void*>(intptr_t(fd))) != 0)
        abort();
    pthread_detach(reader);
}

// Attaches once per process and installs the formatting hook; returns the
// segment's first byte.
inline uint8_t* segment() {
    static uint8_t* base = [] {
        receive_system_log();
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

// True when the n bytes at p all equal `value`.
FUZZ_NO_COVERAGE inline bool all_bytes(const uint8_t* p, size_t n, uint8_t value) {
    static uint8_t pattern[4096];
    static int filled = -1;
    if (filled != value) {
        std::memset(pattern, value, sizeof pattern);
        filled = value;
    }
    for (size_t at = 0; at < n; at += sizeof pattern) {
        const size_t chunk = n - at < sizeof pattern ? n - at : sizeof pattern;
        if (std::memcmp(p + at, pattern, chunk) != 0) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The segment watch.
//
//   checkpoint();                       // the segment as it is now is "before"
//   expect_writes(lo, hi);              // optional: pages the call will write
//   ... the call ...
//   expect_unchanged_outside(lo, hi);   // abort unless only [lo, hi) changed
//
// is the comparison of the whole segment with a copy taken at the checkpoint,
// whatever the calls in between did. Offsets are segment offsets; the
// comparison covers every byte of the pages the segment is mapped with
// (the tail of the last page past SHM_SIZE included).
//
// Pages that faulted, and pages opened by expect_writes (a saving of one
// fault per page, not a promise: they are compared like the others), are
// compared with the copy; all other pages are read-only and so unchanged.
// A write that does not fault cannot be seen this way: a second mapping of
// the segment, or the kernel writing into it for a system call (which would
// fail with EFAULT instead). Neither exists in the library; as a backstop,
// every 1024th checkpoint compares the whole segment with the copy.
// ---------------------------------------------------------------------------
namespace watch_detail {

constexpr size_t kMaxPages = SHM_SIZE / 4096 + 1;

struct State {
    uint8_t* base = nullptr;
    size_t page = 0;
    size_t pages = 0;
    uint8_t* copy = nullptr;                 // the segment at the last checkpoint
    volatile uint8_t writable[kMaxPages] = {};  // 1: may differ from the copy
    volatile size_t first = kMaxPages;       // bounds of the writable pages
    volatile size_t end = 0;
    size_t always_first = 0, always_end = 0;  // pages left writable and never compared
    int64_t always_lo = 0, always_hi = 0;     // the bytes that may always change
    struct sigaction previous {};
    uint64_t checkpoints = 0;
};

inline State state;

// Pages of the always-allowed range are never protected and never recorded.
FUZZ_NO_COVERAGE inline void note_writable(size_t first, size_t end) {
    if (first >= state.always_first && end <= state.always_end) return;
    for (size_t p = first; p < end; ++p)
        if (p < state.always_first || p >= state.always_end) state.writable[p] = 1;
    if (first < state.first) state.first = first;
    if (end > state.end) state.end = end;
}

// The first write to a read-only page of the segment: record it and let the
// write go on. Anything else goes to the handler that was there before (the
// sanitizer's, which reports it).
FUZZ_NO_COVERAGE inline void on_fault(int signal, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    const auto base = reinterpret_cast<uintptr_t>(state.base);
    if (info->si_code == SEGV_ACCERR && address >= base &&
        address - base < state.pages * state.page) {
        const size_t p = (address - base) / state.page;
        if (state.writable[p] == 0 &&
            mprotect(state.base + p * state.page, state.page, PROT_READ | PROT_WRITE) == 0) {
            note_writable(p, p + 1);
            return;
        }
    }
    if ((state.previous.sa_flags & SA_SIGINFO) != 0 && state.previous.sa_sigaction != nullptr) {
        state.previous.sa_sigaction(signal, info, context);
        return;
    }
    if (state.previous.sa_handler != SIG_DFL && state.previous.sa_handler != SIG_IGN &&
        (state.previous.sa_flags & SA_SIGINFO) == 0) {
        state.previous.sa_handler(signal);
        return;
    }
    // No handler before ours: the default action, when the write runs again.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigaction(SIGSEGV, &fallback, nullptr);
}

FUZZ_NO_COVERAGE inline State& watched() {
    if (state.base == nullptr) {
        uint8_t* base = segment();
        const long page = sysconf(_SC_PAGESIZE);
        if (page < 4096 || (page & (page - 1)) != 0 ||
            reinterpret_cast<uintptr_t>(base) % uintptr_t(page) != 0)
            abort();
        state.page = size_t(page);
        state.pages = (size_t(SHM_SIZE) + state.page - 1) / state.page;
        state.copy = new uint8_t[state.pages * state.page];
        std::memcpy(state.copy, base, state.pages * state.page);
        struct sigaction action {};
        action.sa_sigaction = on_fault;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
        sigemptyset(&action.sa_mask);
        if (sigaction(SIGSEGV, &action, &state.previous) != 0) abort();
        state.base = base;
        if (mprotect(base, state.pages * state.page, PROT_READ) != 0) abort();
        // The watch sees writes: rewriting the last byte (outside every
        // section) must record its page.
        volatile uint8_t* probe = base + SHM_SIZE - 1;
        *probe = *probe;
        const size_t last = (SHM_SIZE - 1) / state.page;
        if (state.writable[last] == 0) {
            std::fprintf(stderr, "fuzz: the segment watch did not see a write\n");
            abort();
        }
    }
    return state;
}

FUZZ_NO_COVERAGE inline void protect(size_t first, size_t end, int protection) {
    if (first < end &&
        mprotect(state.base + first * state.page, (end - first) * state.page, protection) != 0)
        abort();
}

FUZZ_NO_COVERAGE inline bool differs(int64_t from, int64_t to) {
    return from < to && std::memcmp(state.base + from, state.copy + from, size_t(to - from)) != 0;
}

// Compares the segment bytes [from, to) outside [lo, hi) with the copy and
// aborts naming the first that differs.
FUZZ_NO_COVERAGE inline void compare(int64_t from, int64_t to, int64_t lo, int64_t hi) {
    const int64_t left_end = to < lo ? to : lo;
    const int64_t right_start = from > hi ? from : hi;
    if (!differs(from, left_end) && !differs(right_start, to)) return;
    int64_t at = from;
    while (at < to - 1 && ((at >= lo && at < hi) || state.base[at] == state.copy[at])) ++at;
    std::fprintf(stderr, "segment changed outside [%lld, %lld): byte %lld was 0x%02x, is 0x%02x\n",
                 (long long)lo, (long long)hi, (long long)at, state.copy[at], state.base[at]);
    abort();
}

}  // namespace watch_detail

// Lets the bytes [lo, hi) change at any time for the rest of the run: the
// pages wholly inside them stay writable and are never compared, and every
// later expect_unchanged_outside must allow at least these bytes. For targets
// whose every check allows the same range.
FUZZ_NO_COVERAGE inline void allow_changes_always(int64_t lo, int64_t hi) {
    using namespace watch_detail;
    State& s = watched();
    if (s.always_hi > s.always_lo || lo < 0 || hi > int64_t(s.pages * s.page) || hi <= lo) abort();
    s.always_lo = lo;
    s.always_hi = hi;
    s.always_first = (size_t(lo) + s.page - 1) / s.page;
    s.always_end = size_t(hi) / s.page;
    if (s.always_end < s.always_first) s.always_end = s.always_first;
    for (size_t p = s.always_first; p < s.always_end; ++p) s.writable[p] = 0;
    protect(s.always_first, s.always_end, PROT_READ | PROT_WRITE);
}

// The segment as it is now becomes the state later checks compare with.
FUZZ_NO_COVERAGE inline void checkpoint() {
    using namespace watch_detail;
    State& s = watched();
    if (s.end > s.first) {
        // Copy every writable page and make the runs of them read-only again.
        size_t run = s.first;
        for (size_t p = s.first; p <= s.end; ++p) {
            const bool writable = p < s.end && s.writable[p] != 0;
            if (writable) {
                std::memcpy(s.copy + p * s.page, s.base + p * s.page, s.page);
                s.writable[p] = 0;
            } else {
                protect(run, p, PROT_READ);
                run = p + 1;
            }
        }
        s.first = kMaxPages;
        s.end = 0;
    }
    if (++s.checkpoints % 1024 == 0) {
        const int64_t size = int64_t(s.pages * s.page);
        compare(0, int64_t(s.always_first * s.page), s.always_lo, s.always_hi);
        compare(int64_t(s.always_end * s.page), size, s.always_lo, s.always_hi);
    }
}

// Clips [lo, hi) to the segment; an empty or inverted range becomes empty.
FUZZ_NO_COVERAGE inline void clip_to_segment(const watch_detail::State& s, int64_t& lo, int64_t& hi) {
    const int64_t size = int64_t(s.pages * s.page);
    lo = lo < 0 ? 0 : lo > size ? size : lo;
    hi = hi < lo ? lo : hi > size ? size : hi;
}

// Opens the pages of [lo, hi) for writing ahead of a call that is expected to
// write there. Only saves faults: opened pages are compared like written ones.
FUZZ_NO_COVERAGE inline void expect_writes(int64_t lo, int64_t hi) {
    using namespace watch_detail;
    State& s = watched();
    clip_to_segment(s, lo, hi);
    if (hi <= lo) return;
    const size_t first = size_t(lo) / s.page, end = (size_t(hi) + s.page - 1) / s.page;
    protect(first, end, PROT_READ | PROT_WRITE);
    note_writable(first, end);
}

// Aborts unless the segment equals its state at the last checkpoint outside
// [lo, hi) (clipped to the segment).
FUZZ_NO_COVERAGE inline void expect_unchanged_outside(int64_t lo, int64_t hi) {
    using namespace watch_detail;
    State& s = watched();
    clip_to_segment(s, lo, hi);
    if (s.always_hi > s.always_lo && !(lo <= s.always_lo && hi >= s.always_hi)) {
        std::fprintf(stderr, "fuzz target error: [%lld, %lld) does not allow [%lld, %lld)\n",
                     (long long)lo, (long long)hi, (long long)s.always_lo, (long long)s.always_hi);
        abort();
    }
    for (size_t p = s.first; p < s.end; ++p) {
        if (s.writable[p] == 0) continue;
        const int64_t from = int64_t(p * s.page), to = from + int64_t(s.page);
        if (from >= lo && to <= hi) continue;
        compare(from, to, lo, hi);
    }
}

// ---------------------------------------------------------------------------
// Caller buffers.
// ---------------------------------------------------------------------------

// A caller buffer of exactly n bytes (n <= Max) for one call, carved from one
// allocation of Max bytes kept for the whole run. Its start is the
// allocation's start (the allocator's redzone is ahead of it) and the bytes
// past n are poisoned, so the address sanitizer reports any access outside
// the n bytes, as for an allocation of exactly n bytes.
//
// take(n, true) gives n zero bytes: only the bytes that may have been written
// since they were last zero (see wrote) are cleared, not all n.
template <size_t Max>
class ExactBuffer {
public:
    FUZZ_NO_COVERAGE uint8_t* take(size_t n, bool zeroed) {
        if (n > Max) abort();
        if (n < size_)
            ASAN_POISON_MEMORY_REGION(bytes_ + n, size_ - n);
        else if (n > size_)
            ASAN_UNPOISON_MEMORY_REGION(bytes_ + size_, n - size_);
        size_ = n;
        if (zeroed && dirty_ > 0) {
            const size_t clear = n < dirty_ ? n : dirty_;
            std::memset(bytes_, 0, clear);
            if (clear == dirty_) dirty_ = 0;
        }
        return bytes_;
    }
    // The first n bytes may no longer be zero (input copied in, or a call
    // that writes into the buffer).
    void wrote(size_t n) {
        if (n > dirty_) dirty_ = n;
    }

private:
    uint8_t* bytes_ = new uint8_t[Max]();
    size_t size_ = Max;   // bytes [size_, Max) are poisoned
    size_t dirty_ = 0;    // bytes [dirty_, Max) are zero
};

// A caller buffer of exactly `size` bytes, kept for the whole run, so the
// sanitizer reports any access past its documented size.
template <size_t size>
std::vector<uint8_t>& buffer_of() {
    static std::vector<uint8_t> b(size);
    return b;
}

}  // namespace fuzz
