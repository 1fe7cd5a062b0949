// Section access: result codes, messages, clipping, bounds and the
// development-build abort.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "harness.h"

namespace {

constexpr int32_t kMax = INT32_MAX;
constexpr const char* kLengthPast = "The caller requested a length beyond the end of the section.\n";
constexpr const char* kLengthPastW = "The caller requested a length beyond the end of thesection.\n";
constexpr const char* kOffsetPast = "The caller requested an offset beyond the end of the section.\n";

unsigned char* sec(int n) { return static_cast<unsigned char*>(gShmData[n]); }

class Access : public ::testing::Test {
protected:
    void SetUp() override {
        test::install_hook();
        ASSERT_EQ(Vond_shm_init_shm(), 0);
        Reset();
    }
    // Known bytes in section 1 and at the start of section 2, so any change
    // outside the addressed range shows.
    static void Reset() {
        for (int i = 0; i < 56; ++i) sec(1)[i] = static_cast<unsigned char>(i + 1);
        std::memset(sec(2), 0xEE, 64);
        test::clear_messages();
    }
    static void ExpectSectionOne(int32_t offset, int32_t changed, unsigned char value) {
        for (int i = 0; i < 56; ++i) {
            const bool in = i >= offset && i < int64_t{offset} + changed;
            ASSERT_EQ(sec(1)[i], in ? value : i + 1) << "section 1 byte " << i;
        }
        for (int i = 0; i < 64; ++i) ASSERT_EQ(sec(2)[i], 0xEE) << "section 2 byte " << i;
    }
};

TEST_F(Access, ReadResultsMessagesAndBuffer) {
    const struct {
        int32_t sec, offset, length, want, copied;  // the same result locked and unlocked
        const char* locked_tail;    // hook message of Vond_shm_memread, if any
        const char* unlocked_tail;  // hook message of Vond_shm_memread_unlocked, if any
    } cases[] = {
        {1, 0, 56, 0, 56, nullptr, nullptr},
        {1, 50, 10, 0, 6, nullptr, kLengthPast},
        {1, 56, 1, -1, 0, nullptr, kOffsetPast},
        {1, kMax, 2, -1, 0, nullptr, kOffsetPast},
        {1, -1, 4, -1, 0, nullptr, "negative offset. sec_id=1 offset=-1\n"},
        {1, 0, -5, 0, 0, nullptr, nullptr},
        {33, 0, 5, 0, 5, nullptr, nullptr},
        {34, 0, 1, -1, 0, nullptr, "Invalid sec_id=34.\n"},
        {-65535, 0, 1, -1, 0, "Invalid sec_id=-65535.\n", "Invalid sec_id=-65535.\n"},  // no wrap onto section 1's lock
        {0, 0, 1, -1, 0, "Unable to get the section semaphore.\n", kOffsetPast},
        {35, 0, 1, -1, 0, "Unable to get the section semaphore.\n", "Invalid sec_id=35.\n"},
    };
    for (const auto& c : cases) {
        for (bool locked : {true, false}) {
            SCOPED_TRACE(::testing::Message() << (locked ? "locked" : "unlocked") << " sec " << c.sec
                                              << " offset " << c.offset << " length " << c.length);
            std::vector<unsigned char> buf(64, 0xAA);
            test::clear_messages();
            const int32_t got = locked ? Vond_shm_memread(c.sec, buf.data(), c.offset, c.length)
                                       : Vond_shm_memread_unlocked(c.sec, buf.data(), c.offset, c.length);
            EXPECT_EQ(got, c.want);
            const char* tail = locked ? c.locked_tail : c.unlocked_tail;
            const char* function = locked ? "Vond_shm_memread" : "Vond_shm_memread_unlocked";
            if (tail != nullptr) {
                EXPECT_EQ(test::count(1, function, tail), 1);
            } else if (locked) {
                EXPECT_TRUE(test::messages().empty());
            }
            const bool clipped = !locked && c.copied > 0 && c.copied < c.length;
            EXPECT_EQ(test::count(1, function, "sec_id=1 offset=50 length=10 gShmSecSize[]=56\n"), clipped ? 1 : 0);
            const bool reached_read = !(locked && c.locked_tail != nullptr);
            const int zeroed = c.length < 1 || !reached_read ? 0 : c.length;
            for (int i = 0; i < 64; ++i) {
                const int expected = i < c.copied ? sec(c.sec)[c.offset + i] : i < zeroed ? 0 : 0xAA;
                ASSERT_EQ(buf[i], expected) << "buffer byte " << i;
            }
        }
    }
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));
}

TEST_F(Access, WriteAndFillResultsMessagesAndBounds) {
    const struct {
        int32_t sec, offset, length, want, changed;
        const char* tail;
    } cases[] = {
        {1, 0, 56, 0, 56, nullptr},
        {1, 50, 10, 0, 6, "sec_id=1 offset=50 length=10 gShmSecSize[]=56 section id 1\n"},
        {1, 56, 1, -3, 0, kOffsetPast},
        {1, 0, -1, 0, 0, nullptr},
        {1, -1, 4, -3, 0, "negative offset. sec_id=1 offset=-1\n"},
        {34, 0, 1, -2, 0, "bad sec id=34\n"},
    };
    const std::vector<unsigned char> src(64, 0x5A);
    for (const auto& c : cases) {
        for (const char* function : {"Vond_shm_memwrite", "Vond_shm_memset"}) {
            SCOPED_TRACE(::testing::Message() << function << " sec " << c.sec << " offset " << c.offset
                                              << " length " << c.length);
            Reset();
            const bool fill = std::strcmp(function, "Vond_shm_memset") == 0;
            const int32_t got = fill ? Vond_shm_memset(c.sec, 0x15A, c.offset, c.length)
                                     : Vond_shm_memwrite(c.sec, src.data(), c.offset, c.length);
            EXPECT_EQ(got, c.want);
            EXPECT_EQ(c.tail != nullptr ? test::count(1, function, c.tail) : 1, 1);
            if (c.changed > 0 && c.changed < c.length) {
                EXPECT_EQ(test::count(1, function, kLengthPastW), 1);
            }
            ExpectSectionOne(c.offset, c.changed, 0x5A);
        }
    }
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));
}

TEST_F(Access, BitCall) {
    const struct {
        int32_t sec, offset, on;
        uint64_t before, mask;
        int32_t want;
        uint64_t after;
        const char* tail;
    } cases[] = {
        {1, 48, 1, 0x0F, 0xF0, 0, 0xFF, nullptr},
        {1, 48, 2, 0xFF, 0x0F, 0, 0xF0, nullptr},   // any on other than 1 clears
        {1, 3, 1, 0x1, 0x8000000100000000ull, 0, 0x8000000100000001ull, nullptr},  // unaligned, both halves
        {1, 49, 1, 0, 1, -3, 0, nullptr},  // a word that would not fit whole is not clipped
        {1, -8, 1, 0, 1, -3, 0, nullptr},
        {34, 0, 1, 0, 1, -2, 0, "bad sec id=34\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "sec " << c.sec << " offset " << c.offset << " on " << c.on);
        Reset();
        const bool valid = c.want == 0;
        if (valid) std::memcpy(sec(1) + c.offset, &c.before, 8);
        EXPECT_EQ(Vond_shm_mem_set_bit_on_uint(c.sec, c.offset, c.on, c.mask), c.want);
        if (valid) {
            uint64_t now;
            std::memcpy(&now, sec(1) + c.offset, 8);
            EXPECT_EQ(now, c.after);
        } else {
            ExpectSectionOne(0, 0, 0);
        }
        EXPECT_EQ(test::messages().size(), c.tail != nullptr ? 1u : 0u);  // the range refusals are silent
        EXPECT_EQ(c.tail != nullptr ? test::count(1, "Vond_shm_mem_set_bit_on_uint", c.tail) : 1, 1);
    }
}

TEST_F(Access, SafeCallsKeepMessagesFromTheHook) {
    std::vector<unsigned char> buf(10);
    EXPECT_EQ(Vond_shm_memread_unlocked_safe(40, buf.data(), 0, 1), -1);
    EXPECT_EQ(Vond_shm_memwrite_safe(40, buf.data(), 0, 1), -2);
    EXPECT_EQ(Vond_shm_memread_safe(1, buf.data(), 0, 4), 0);
    EXPECT_EQ(buf[3], 4);
    EXPECT_TRUE(test::messages().empty());
    EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
}

// Out-of-range requests on a development build: the caller gets SIGABRT.
// (Without the marker the same calls return: the tables above make them.)
TEST_F(Access, DevelopmentMarkerAbortsOutOfRangeCalls) {
    static unsigned char buf[64];
    test::touch("/etc/xrev_fw");
    const std::vector<std::function<int()>> calls = {
        [] { return Vond_shm_memread_unlocked(1, buf, 50, 10); },
        [] { return Vond_shm_memread(1, buf, 56, 1); },
        [] { return Vond_shm_memwrite(1, buf, 50, 10); },
        [] { return Vond_shm_memset(1, 0, 56, 1); },
        [] { return Vond_shm_mem_set_bit_on_uint(1, 49, 1, 1); },
    };
    for (size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(test::run_child([&] { calls[i](); return 0; }).signal, SIGABRT) << "call " << i;
}

int g_aborts = 0;

TEST_F(Access, CaughtAbortLetsTheClippedReadGoOnAndMarkerIsReadEachTime) {
    signal(SIGABRT, [](int) { ++g_aborts; });
    unsigned char buf[10];
    test::touch("/etc/xrev_fw");
    EXPECT_EQ(isXRev(), 1);
    EXPECT_EQ(Vond_shm_memread(1, buf, 0, 10), 0);  // in range: no abort
    EXPECT_EQ(g_aborts, 0);
    EXPECT_EQ(Vond_shm_memread(1, buf, 50, 10), 0);
    EXPECT_EQ(g_aborts, 1);
    EXPECT_EQ(buf[5], 56);
    EXPECT_EQ(buf[6], 0);
    unlink("/etc/xrev_fw");
    EXPECT_EQ(isXRev(), 0);
    EXPECT_EQ(Vond_shm_memread(1, buf, 50, 10), 0);
    EXPECT_EQ(g_aborts, 1);
}

}  // namespace
