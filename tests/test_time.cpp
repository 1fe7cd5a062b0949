// The time records: EOP time set and get, up-time, boot time in local time,
// the collection date in UTC, and what each call does when the store fails.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "harness.h"

namespace {

void set_time_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}
uint32_t stored(int32_t sec, int32_t offset) {
    uint8_t b[4] = {};
    EXPECT_EQ(Vond_shm_memread(sec, b, offset, 4), 0);
    return b[0] | b[1] << 8 | b[2] << 16 | uint32_t{b[3]} << 24;
}
void store(int32_t sec, int32_t offset, uint32_t value) { test::put_le32(sec, offset, value); }
// The clock the up-time reads: time() can trail it by a clock tick, which
// makes the up-time look a second longer than the time() bounds allow.
uint32_t now() {
    timeval t{};
    gettimeofday(&t, nullptr);
    return static_cast<uint32_t>(t.tv_sec);
}

TEST(Time, EopSetAndGet) {
    test::install_hook();
    store(9, 4, 0xA5A5A5A5);
    test::clear_messages();
    uint32_t eop = 7;
    EXPECT_EQ(Vond_get_EOPTime(&eop), 0);
    EXPECT_EQ(eop, 0u);
    EXPECT_EQ(Vond_set_EOPTime(1, 0x01020304), 0);
    EXPECT_EQ(stored(9, 0), 0x01020304u);
    EXPECT_EQ(Vond_get_EOPTime(&eop), 0);
    EXPECT_EQ(eop, 0x01020304u);
    EXPECT_EQ(Vond_set_EOPTime(2, 12345), -1);
    EXPECT_EQ(Vond_set_EOPTime(-1, 12345), -1);
    EXPECT_EQ(stored(9, 0), 0x01020304u);
    EXPECT_EQ(Vond_set_EOPTime(0, 12345), 0);
    EXPECT_EQ(stored(9, 0), 0u);
    EXPECT_EQ(stored(9, 4), 0xA5A5A5A5u);
    EXPECT_TRUE(test::messages().empty());
    EXPECT_EQ(Vond_get_EOPTime(nullptr), -1);
    EXPECT_EQ(Vond_get_OSDataCollectionDate(nullptr), -1);
    EXPECT_EQ(test::count(1, "Vond_get_EOPTime", "eop NULL pointer\n"), 1);
    // The boot time writes its buffer only once the time is set: before that
    // a NULL buffer gets the unset time's answer.
    EXPECT_EQ(Vond_get_BootTime(nullptr), 0);
    EXPECT_EQ(test::count(3, "Vond_get_BootTime", "EOP time not yet set.\n"), 1);
    EXPECT_EQ(Vond_set_EOPTime(1, 12345), 0);
    EXPECT_EQ(Vond_get_BootTime(nullptr), -1);
    EXPECT_EQ(test::count(1, "Vond_get_BootTime", "text NULL pointer\n"), 1);
}

TEST(Time, UpTimeCountsFromTheEopTime) {
    test::install_hook();
    EXPECT_EQ(Vond_get_SysUpTime(), 0);
    EXPECT_EQ(test::count(3, "Vond_get_SysUpTime", "EOP time not yet set.\n"), 1);
    const struct { int32_t offset; } cases[] = {{100}, {-50}, {-1}, {86400 * 365}};
    for (const auto& c : cases) {
        const uint32_t before = now();
        store(9, 0, before - static_cast<uint32_t>(c.offset));
        const int32_t up = Vond_get_SysUpTime();
        const int32_t elapsed = static_cast<int32_t>(now() - before);
        EXPECT_GE(up, c.offset);
        EXPECT_LE(up, c.offset + elapsed);
    }
}

TEST(Time, BootTimeIsLocalCollectionDateIsUtc) {
    test::install_hook();
    char text[32];
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(Vond_get_BootTime(text), 0);  // not yet set: untouched
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(test::count(3, "Vond_get_BootTime", "EOP time not yet set.\n"), 1);

    const bool wide = sizeof(time_t) == 8;
    const struct { const char* tz; uint32_t when; const char* boot; const char* date; } cases[] = {
        {"UTC0", 1, "Thu Jan  1 00:00:01 1970", "19700101000001.000000+000"},
        {"EST5", 1, "Wed Dec 31 19:00:01 1969", "19700101000001.000000+000"},
        {"EST5", 1794745867, "Sun Nov 15 07:31:07 2026", "20261115123107.000000+000"},
        {"UTC0", 0x80000000u, wide ? "Tue Jan 19 03:14:08 2038" : "Fri Dec 13 20:45:52 1901",
         wide ? "20380119031408.000000+000" : "19011213204552.000000+000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.tz << " " << c.when);
        set_time_zone(c.tz);
        store(9, 0, c.when);
        store(19, 153, c.when);
        std::memset(text, 'x', sizeof text);
        EXPECT_EQ(Vond_get_BootTime(text), 0);
        EXPECT_STREQ(text, c.boot);
        std::memset(text, 'x', sizeof text);
        EXPECT_EQ(Vond_get_OSDataCollectionDate(text), 0);
        EXPECT_STREQ(text, c.date);
        EXPECT_EQ(text[26], 'x');  // nothing written past the terminator
    }
    store(19, 153, 0);
    EXPECT_EQ(Vond_get_OSDataCollectionDate(text), 0);
    EXPECT_STREQ(text, "N/A");
}

TEST(Time, StoreFailures) {
    test::install_hook();
    store(9, 0, 1000);
    store(19, 153, 1000);
    test::break_section_locks();  // every section lock fails now
    test::clear_messages();
    uint32_t eop = 5;
    EXPECT_EQ(Vond_get_EOPTime(&eop), -1);
    EXPECT_EQ(eop, 0u);
    EXPECT_EQ(Vond_set_EOPTime(1, 5), -1);
    EXPECT_EQ(Vond_get_SysUpTime(), -1);
    char text[32] = "untouched";
    EXPECT_EQ(Vond_get_BootTime(text), -1);
    EXPECT_EQ(Vond_get_OSDataCollectionDate(text), -1);
    EXPECT_STREQ(text, "untouched");
    for (const char* function : {"Vond_get_EOPTime", "Vond_get_SysUpTime", "Vond_get_BootTime"})
        EXPECT_EQ(test::count(1, function, "shmread failed.\n"), 1) << function;
    EXPECT_EQ(test::count(1, "Vond_set_EOPTime", "shmwrite failed.\n"), 1);
    for (const test::Message& m : test::messages())
        EXPECT_EQ(m.text.find("Vond_get_OSDataCollectionDate"), std::string::npos) << m.text;
    test::clear_messages();
    EXPECT_EQ(Vond_get_BootTime(nullptr), -1);  // the read comes first
    EXPECT_EQ(test::count(1, "Vond_get_BootTime", "shmread failed.\n"), 1);
}

}  // namespace
