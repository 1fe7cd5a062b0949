// The time records: EOP time, up-time, boot time in local time, the collection date in UTC, and store failures.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "harness.h"

namespace {

uint32_t stored(int32_t sec, int32_t offset) {
    uint32_t v = 0;  // the store is little-endian like the host
    EXPECT_EQ(Vond_shm_memread(sec, &v, offset, 4), 0);
    return v;
}
using test::put_le32;

TEST(Time, EopSetAndGet) {
    test::install_hook();
    put_le32(9, 4, 0xA5A5A5A5);
    test::clear_messages();
    uint32_t eop = 0;
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
    EXPECT_EQ(test::count(1, "Vond_get_EOPTime", "eop NULL pointer\n"), 1);
    EXPECT_EQ(Vond_get_OSDataCollectionDate(nullptr), -1);
}

// The clock the up-time reads is gettimeofday's: time() can trail it by a tick.
TEST(Time, UpTimeCountsFromTheEopTime) {
    test::install_hook();
    EXPECT_EQ(Vond_get_SysUpTime(), 0);
    EXPECT_EQ(test::count(3, "Vond_get_SysUpTime", "EOP time not yet set.\n"), 1);
    for (const int32_t offset : {100, -50}) {
        timeval before{}, after{};
        gettimeofday(&before, nullptr);
        put_le32(9, 0, static_cast<uint32_t>(before.tv_sec) - static_cast<uint32_t>(offset));
        const int32_t up = Vond_get_SysUpTime();
        gettimeofday(&after, nullptr);
        EXPECT_GE(up, offset);
        EXPECT_LE(up, offset + static_cast<int32_t>(after.tv_sec - before.tv_sec));
    }
}

// Before the EOP time is set the boot time answers 0 and writes nothing, whatever the buffer, null included.
TEST(Time, BootTimeIsLocalCollectionDateIsUtc) {
    test::install_hook();
    char text[32];
    std::memset(text, 'x', sizeof text);
    EXPECT_EQ(Vond_get_BootTime(text), 0);
    EXPECT_EQ(text[0], 'x');
    EXPECT_EQ(Vond_get_BootTime(nullptr), 0);
    EXPECT_EQ(test::count(3, "Vond_get_BootTime", "EOP time not yet set.\n"), 2);

    const bool wide = sizeof(time_t) == 8;
    const struct { const char* tz; uint32_t when; const char* boot; const char* date; } cases[] = {
        {"EST5", 1, "Wed Dec 31 19:00:01 1969", "19700101000001.000000+000"},
        {"EST5", 1794745867, "Sun Nov 15 07:31:07 2026", "20261115123107.000000+000"},
        {"UTC0", 0x80000000u, wide ? "Tue Jan 19 03:14:08 2038" : "Fri Dec 13 20:45:52 1901",
         wide ? "20380119031408.000000+000" : "19011213204552.000000+000"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.tz << " " << c.when);
        setenv("TZ", c.tz, 1);
        tzset();
        put_le32(9, 0, c.when);
        put_le32(19, 153, c.when);
        std::memset(text, 'x', sizeof text);
        EXPECT_EQ(Vond_get_BootTime(text), 0);
        EXPECT_STREQ(text, c.boot);
        std::memset(text, 'x', sizeof text);
        EXPECT_EQ(Vond_get_OSDataCollectionDate(text), 0);
        EXPECT_STREQ(text, c.date);
        EXPECT_EQ(text[26], 'x');  // nothing written past the terminator
    }
    EXPECT_EQ(Vond_get_BootTime(nullptr), -1);
    EXPECT_EQ(test::count(1, "Vond_get_BootTime", "text NULL pointer\n"), 1);
    put_le32(19, 153, 0);
    EXPECT_EQ(Vond_get_OSDataCollectionDate(text), 0);
    EXPECT_STREQ(text, "N/A");
}

TEST(Time, StoreFailures) {
    test::install_hook();
    put_le32(9, 0, 1000);
    put_le32(19, 153, 1000);
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
    EXPECT_EQ(Vond_get_BootTime(nullptr), -1);  // the read comes first
    for (const auto& [function, n] :
         {std::pair{"Vond_get_EOPTime", 1}, {"Vond_get_SysUpTime", 1}, {"Vond_get_BootTime", 2}})
        EXPECT_EQ(test::count(1, function, "shmread failed.\n"), n) << function;
    EXPECT_EQ(test::count(1, "Vond_set_EOPTime", "shmwrite failed.\n"), 1);
    for (const test::Message& m : test::messages())
        EXPECT_EQ(m.text.find("Vond_get_OSDataCollectionDate"), std::string::npos) << m.text;
}

}  // namespace
