// FRU directory queries over section 22 and the OCP mezzanine id.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <vector>

#include "harness.h"

namespace {

using test::put_bytes;
void set_count(uint16_t n) { put_bytes(22, 6, {uint8_t(n), uint8_t(n >> 8)}); }
// Entry i with carried bytes 0xC3, 0xD1, 0xD2; returns what was stored.
std::vector<uint8_t> set_entry(int i, uint8_t status, uint16_t id, uint8_t attr, uint8_t type, uint8_t loc,
                               uint16_t len, uint32_t off) {
    const std::vector<uint8_t> e = {status, uint8_t(id), uint8_t(id >> 8), 0xC3, attr, type, loc, uint8_t(len),
                                    uint8_t(len >> 8), uint8_t(off), uint8_t(off >> 8), uint8_t(off >> 16),
                                    uint8_t(off >> 24), 0xD1, 0xD2};
    put_bytes(22, 8 + 15 * i, e);
    return e;
}

TEST(Fru, CountLimitAndDuplicateIds) {
    test::install_hook();
    const auto first = set_entry(0, 0, 0x1234, 0, 1, 1, 4, 1000);
    set_entry(1, 1, 0x1234, 0, 1, 1, 4, 1000);
    set_entry(58, 1, 0x0777, 0, 25, 3, 3, 2000);
    put_bytes(22, 2000, {7, 8, 9, 10});
    set_count(59);
    std::vector<uint8_t> data(SHM_FRU_DATA_MAX_LENGTH, 0xEE);
    FruInfo info;
    EXPECT_EQ(Vond_shm_get_frudata(0x1234, data.data()), 195u);  // the first entry with the id decides
    EXPECT_EQ(test::count(1, "Vond_shm_get_frudata", ":  Vond_shm_get_frudata() FRU not initialized \n"), 1);
    EXPECT_EQ(Vond_shm_get_fruinfo(0x1234, &info), 0u);
    EXPECT_EQ(std::memcmp(&info, first.data(), 15), 0);
    EXPECT_EQ(Vond_shm_get_frudata(0x10777, data.data()), 1u);  // ids are not cut to 16 bits
    EXPECT_EQ(Vond_shm_get_frudata(0x0777, data.data()), 0u);
    EXPECT_EQ(std::vector<uint8_t>(data.begin(), data.begin() + 4), (std::vector<uint8_t>{7, 8, 9, 0xEE}));

    set_count(60);
    FruDeviceList list;
    EXPECT_EQ(Vond_shm_get_frudata(0x0777, data.data()), 201u);
    EXPECT_EQ(Vond_shm_get_fruinfo(0x0777, &info), 201u);
    EXPECT_EQ(Vond_shm_get_fruDeviceinfo(25, 3, &list), 201u);
    for (const char* fn : {"Vond_shm_get_frudata", "Vond_shm_get_fruinfo", "Vond_shm_get_fruDeviceinfo"})
        EXPECT_EQ(test::count(1, fn, "deviceCount invalid\n"), 1) << fn;
}

// The block must end inside 242557 bytes and inside the configured section; so must the directory.
TEST(Fru, DataBlockMustLieInsideTheSection) {
    set_count(1);
    put_bytes(22, 242550, {1, 2, 3, 4, 5, 6, 7});
    const struct { uint32_t offset; uint16_t length; int32_t table_size; uint32_t want; } cases[] = {
        {242550, 7, 242557, 0}, {242550, 8, 242557, 1}, {0xFFFFFFF0u, 0x20, 242557, 1},
        {990, 10, 1000, 0},     {990, 11, 1000, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset + c.length);
        set_entry(0, 1, 5, 0, 0, 1, c.length, c.offset);
        gShmSecSize[22] = c.table_size;
        std::vector<uint8_t> buf(SHM_FRU_DATA_MAX_LENGTH, 0xEE);
        EXPECT_EQ(Vond_shm_get_frudata(5, buf.data()), c.want);
        EXPECT_EQ(buf[c.length], 0xEE);
        EXPECT_EQ(buf[0], c.want != 0 ? 0xEE : c.table_size == 242557 ? 1 : 0);
    }
    set_count(6);
    FruInfo info;
    gShmSecSize[22] = 97;
    EXPECT_EQ(Vond_shm_get_fruinfo(5, &info), 1u);
    gShmSecSize[22] = 98;
    EXPECT_EQ(Vond_shm_get_fruinfo(5, &info), 0u);
}

// Another process flips the block's length between 16, which fits, and 60000, which runs past the section's
// end. Each copy must follow the length it checked: a success copies 16 bytes, never a clipped 60000.
TEST(Fru, LengthChangingDuringTheCallIsCheckedAndCopiedOnce) {
    set_entry(0, 1, 7, 0, 0, 1, 16, 242557 - 16);
    set_count(1);
    const pid_t writer = test::start_u16_flipper(22, 8 + 7, 16, 60000);  // entry 0's dataLength
    std::vector<uint8_t> buf(SHM_FRU_DATA_MAX_LENGTH);
    int answered = 0, overrun = 0;
    const int calls = test::rounds(20000);
    for (int i = 0; i < calls; ++i) {
        std::fill(buf.begin(), buf.end(), 0xEE);
        const uint32_t result = Vond_shm_get_frudata(7, buf.data());
        answered += result <= 1;
        if (result == 0) overrun += std::count(buf.begin() + 16, buf.end(), 0xEE) != SHM_FRU_DATA_MAX_LENGTH - 16;
    }
    kill(writer, SIGKILL);
    test::wait_child(writer);
    EXPECT_EQ(answered, calls);
    EXPECT_EQ(overrun, 0);
}

TEST(Fru, ClassQuery) {
    test::install_hook();
    FruDeviceList list;
    const struct { uint32_t type, locator; const char* tail; } refused[] = {  // the locator is checked first
        {99, 0, "Invalid fru_locator 0."}, {0, 4, "Invalid fru_locator 4."}, {26, 1, "Invalid fru device type:26."}};
    for (const auto& c : refused) {
        std::memset(&list, 0xAA, sizeof list);
        test::clear_messages();
        EXPECT_EQ(Vond_shm_get_fruDeviceinfo(c.type, c.locator, &list), 201u);
        EXPECT_EQ(test::count(3, "Vond_shm_get_fruDeviceinfo", c.tail), 1) << c.tail;
        EXPECT_EQ(list.count, 0xAA);
    }
    EXPECT_EQ(Vond_shm_get_fruDeviceinfo(25, 3, nullptr), 201u);
    EXPECT_EQ(gShmData[0], nullptr);  // all refused before the store is touched

    set_entry(0, 0, 0x0102, 0x11, 25, 3, 0, 0);
    set_entry(1, 1, 0x0203, 0x22, 25, 2, 0, 0);
    set_entry(2, 1, 0x0304, 0x33, 24, 3, 0, 0);
    set_entry(3, 1, 0x0405, 0x44, 25, 3, 0, 0);
    set_count(4);
    std::memset(&list, 0xAA, sizeof list);
    EXPECT_EQ(Vond_shm_get_fruDeviceinfo(25, 3, &list), 0u);
    const uint8_t want[] = {2, 0xAA, 0x02, 0x01, 0x11, 3, 0x05, 0x04, 0x44, 3, 0xAA};
    EXPECT_EQ(std::memcmp(&list, want, sizeof want), 0);
    EXPECT_EQ(Vond_shm_get_fruDeviceinfo(0, 1, &list), 0u);  // no match: only the count changes
    EXPECT_EQ(std::memcmp(&list, "\0\xAA\x02\x01\x11\x03", 6), 0);
}

TEST(Fru, OcpMezzanineId) {
    test::install_hook();
    for (const auto& [stored, want] : {std::pair<uint8_t, uint32_t>{0, 255}, {254, 254}}) {
        test::put(24, 1, stored);
        EXPECT_EQ(getOCPMezzFRUID(), want);
    }
    gShmSecSize[24] = 1;
    EXPECT_EQ(getOCPMezzFRUID(), 255u);
    EXPECT_EQ(test::count(5, "getOCPMezzFRUID", "getOCPMezzFRUID: shmread failed\n"), 1);
}

}  // namespace
