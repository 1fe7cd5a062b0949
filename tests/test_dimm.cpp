// DIMM inventory view (section 7) and wear records (section 21).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "harness.h"

namespace {

// Inventory record i; fqdd is stored with up to 16 bytes, unterminated at 16.
void inventory(int i, uint8_t slot, uint8_t presence, uint8_t cpu, uint8_t channel, uint8_t type,
               const std::string& fqdd) {
    std::vector<uint8_t> r(46, 0);
    r[1] = slot, r[2] = presence, r[14] = cpu, r[18] = channel, r[19] = type;
    std::memcpy(r.data() + 30, fqdd.data(), fqdd.size());
    test::put_bytes(7, 7357 + 46 * i, r);
}
// Wear record n: carried bytes 0x40 + j, the float at 28 and the slot at 36.
void wear_record(int n, uint8_t slot, float percent) {
    std::vector<uint8_t> r(40);
    for (int j = 0; j < 40; ++j) r[j] = uint8_t(0x40 + j);
    std::memcpy(r.data() + 28, &percent, 4);
    r[36] = slot;
    test::put_bytes(21, 555 + 40 * n, r);
}
// The stored float, after checking that every other byte is still carried.
float stored_wear(int n) {
    uint8_t r[40];
    EXPECT_EQ(Vond_shm_memread(21, r, 555 + 40 * n, 40), 0);
    for (int j = 0; j < 40; ++j)
        EXPECT_TRUE((j >= 28 && j <= 31) || j == 36 || r[j] == 0x40 + j) << "record " << n << " byte " << j;
    float f;
    std::memcpy(&f, r + 28, 4);
    return f;
}

TEST(Dimm, MappingTypesAndCount) {
    for (const auto& m : {std::vector<uint32_t>{4, 8, 3, 7}, {0, 0, 3, 7}, {5, 9, 0, 0}}) {
        uint32_t cpu = m[0], channel = m[1];
        EXPECT_EQ(calculateCPUChannelNum(&cpu, &channel), 0);
        EXPECT_EQ(cpu, m[2]) << m[0];
        EXPECT_EQ(channel, m[3]) << m[1];
    }
    for (const auto& [type, want] : {std::pair<uint32_t, int>{4, 0}, {5, 1}, {10, 1}, {11, 0}, {~0u, 0}})
        EXPECT_EQ(isNVDIMMApachePass(type), want) << type;
    EXPECT_EQ(getNVDIMMApachePassCount(), 0);
    for (int i = 0; i < 128; ++i) inventory(i, 0, i % 2, 1, 1, 7, "");
    test::install_hook();
    EXPECT_EQ(getNVDIMMApachePassCount(), 128);  // presence is not looked at
    EXPECT_EQ(test::count(4, "getNVDIMMApachePassCount", "getNVDIMMApachePassCount: DIMM Count: 128"), 1);
    gShmSecSize[7] = 7357;
    EXPECT_EQ(getNVDIMMApachePassCount(), 0);
    EXPECT_EQ(test::count(2, "getNVDIMMApachePassCount", "Error in reading DIMM Info from SHM"), 1);
}

TEST(Dimm, UpdateByPosition) {
    test::install_hook();
    for (int n : {0, 48, 191}) wear_record(n, 9, 1.0f);
    const uint8_t good[] = {2, 3, 7, 5, 0xAA, 73, 0, 0, 0, 1, 200};
    EXPECT_EQ(updateDIMMWearLevel(good), 0u);
    EXPECT_EQ(stored_wear(191), 73.0f);  // offset 8195
    EXPECT_EQ(stored_wear(0), 200.0f);
    for (const auto& bad : {std::vector<uint8_t>{4, 0, 0}, {0, 8, 0}, {0, 0, 6}}) {
        const uint8_t list[] = {3, 1, 0, 0, 0, 10, bad[0], bad[1], bad[2], 0, 11, 0, 0, 0, 0, 12};
        EXPECT_EQ(updateDIMMWearLevel(list), 1u);
        EXPECT_EQ(stored_wear(48), 10.0f);  // the entry before stays written
        EXPECT_EQ(stored_wear(0), 200.0f);  // nothing after it is done
    }
    EXPECT_EQ(test::count(2, "updateDIMMWearLevel", "CPU Num: 4, Channel Num: 0, DIMM Index: 0"), 1);
    EXPECT_EQ(updateDIMMWearLevel(nullptr), 1u);
}

TEST(Dimm, UpdateByFqdd) {
    test::install_hook();
    inventory(0, 21, 1, 0, 0, 7, "DIMM.Socket.A1");    // CPU 0, channel 0 -> indexes 3, 7
    inventory(1, 22, 0, 1, 1, 7, "DIMM.Socket.B1");    // not present
    inventory(2, 23, 1, 2, 1, 7, "DIMM.Socket.C123");  // 16 bytes, no zero
    for (int n : {0, 186, 187, 188, 48, 53}) wear_record(n, n == 188 ? 21 : n == 0 ? 22 : n == 53 ? 23 : 0, 0);
    std::vector<uint8_t> list = {4};
    for (const auto& [wear, fqdd] : {std::pair<uint8_t, std::string>{52, "DIMM.Socket.A1"}, {50, "dimm.socket.a1"},
                                     {51, "DIMM.Socket.B1"}, {53, "DIMM.Socket.C123"}}) {
        std::vector<uint8_t> e(18, 0);
        e[1] = wear;
        std::memcpy(e.data() + 2, fqdd.data(), fqdd.size());
        list.insert(list.end(), e.begin(), e.end());
    }
    EXPECT_EQ(updateDIMMWearLevelUsingFQDD(list.data()), 0u);
    EXPECT_EQ(stored_wear(188), 52.0f);
    EXPECT_EQ(stored_wear(0), 0.0f);
    EXPECT_EQ(stored_wear(53), 53.0f);
    EXPECT_EQ(stored_wear(48), 0.0f);
    EXPECT_EQ(test::count(4, "updateDIMMWearLevelUsingFQDD", ": Looking for DIMM FQDD DIMM.Socket.C123"), 1);
    EXPECT_EQ(updateDIMMWearLevelUsingFQDD(nullptr), 1u);
}

TEST(Dimm, Report) {
    std::vector<uint8_t> buf(130, 0xEE);
    EXPECT_EQ(readDIMMWearLevel(buf.data(), 1), 0u);  // no module, one byte is enough
    EXPECT_EQ(buf[0], 0);
    EXPECT_EQ(readDIMMWearLevel(nullptr, 10), 1u);
    EXPECT_EQ(readDIMMWearLevel(buf.data(), 0), 1u);
    for (int i = 0; i < 13; ++i) inventory(i, 0, 0, 0, 0, 0, i == 1 ? "ABCDEFGHIJKLMNOP" : "REC" + std::to_string(i));
    const struct { int pos; uint8_t slot, cpu, channel; int d; float wear; uint8_t want; } ap[] = {
        {3, 30, 1, 1, 1, 99.9f, 99}, {7, 31, 1, 2, 0, -5.0f, 0},     {8, 32, 1, 3, 5, 300.0f, 44},
        {10, 34, 2, 1, 0, NAN, 0},   {11, 35, 2, 2, 0, INFINITY, 0}, {12, 36, 2, 3, 0, 1000.0f, 232}};
    for (const auto& m : ap) {
        inventory(m.pos, m.slot, 0, m.cpu, m.channel, uint8_t(5 + m.pos % 6), "REC" + std::to_string(m.pos));
        wear_record((m.cpu - 1) * 48 + (m.channel - 1) * 6 + m.d, m.slot, m.wear);
    }
    inventory(9, 33, 1, 4, 4, 10, "AP");  // no wear record carries slot 33
    test::install_hook();
    std::fill(buf.begin(), buf.end(), 0xEE);
    EXPECT_EQ(readDIMMWearLevel(buf.data(), 1 + 18 * 7 - 1), 1u);
    EXPECT_EQ(test::count(2, "readDIMMWearLevel", "Error!! insufficient buffer size"), 1);
    EXPECT_EQ(buf[0], 0xEE);
    EXPECT_EQ(readDIMMWearLevel(buf.data(), 1 + 18 * 7), 0u);
    ASSERT_EQ(buf[0], 6);
    for (int k = 0; k < 6; ++k) {  // the FQDD of entry k comes from inventory record k, cut to 15 characters
        const uint8_t* e = &buf[1 + 18 * k];
        EXPECT_EQ(e[0], ap[k].slot) << k;
        EXPECT_EQ(e[1], ap[k].want) << k;
        const std::string fqdd = k == 1 ? "ABCDEFGHIJKLMNO" : "REC" + std::to_string(k);
        EXPECT_STREQ(reinterpret_cast<const char*>(e + 2), fqdd.c_str()) << k;
    }
    EXPECT_EQ(buf[1 + 18 * 6], 0);     // the seventh entry is zeroed, not filled
    EXPECT_EQ(buf[1 + 18 * 7], 0xEE);  // nothing past the checked size
}

}  // namespace
