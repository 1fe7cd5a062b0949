// Feature capability words, VR sensor enablement, power status, blade form
// factor and the power input table.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using test::put;
uint8_t byte_at(int32_t sec, int32_t offset) {
    uint8_t b = 0xEE;
    EXPECT_EQ(Vond_shm_memread(sec, &b, offset, 1), 0);
    return b;
}

TEST(Caps, WordsAreLittleEndianPairsAndIndexNineIsRefused) {
    test::install_hook();
    put(10, 18, 0x77);
    test::clear_messages();
    for (uint32_t i = 0; i <= 8; ++i) EXPECT_EQ(Set_SHM_feature_capabilities(i, uint16_t(0xC100 + i)), 0);
    const uint32_t wide = 0x12345;
    EXPECT_EQ(Set_SHM_feature_capabilities(0, static_cast<uint16_t>(wide)), 0);
    EXPECT_EQ(byte_at(10, 0), 0x45);
    EXPECT_EQ(byte_at(10, 1), 0x23);
    EXPECT_EQ(byte_at(10, 16), 0x08);
    EXPECT_EQ(byte_at(10, 17), 0xC1);
    uint16_t v = 0;
    EXPECT_EQ(Get_SHM_feature_capabilities(3, &v), 0);
    EXPECT_EQ(v, 0xC103);
    EXPECT_EQ(Get_SHM_feature_capabilities(8, &v), 0);
    EXPECT_EQ(v, 0xC108);
    EXPECT_TRUE(test::messages().empty());
    for (uint32_t bad : {9u, 0x80000000u, 0xFFFFFFFFu}) {
        test::clear_messages();
        v = 0xBEEF;
        EXPECT_EQ(Get_SHM_feature_capabilities(bad, &v), -1);
        EXPECT_EQ(v, 0xBEEF);
        EXPECT_EQ(Set_SHM_feature_capabilities(bad, 1), -1);
        EXPECT_EQ(test::count(1, "Get_SHM_feature_capabilities", "capname invalid\n"), 1);
        EXPECT_EQ(test::count(1, "Set_SHM_feature_capabilities", "capname invalid\n"), 1);
    }
    EXPECT_EQ(byte_at(10, 18), 0x77);
}

constexpr int32_t kVr = 137090;

TEST(Vr, ResultCodesAndMessages) {
    test::install_hook();
    const char* fn = "Get_VR_Sensor_Enablement";
    // Section 20 all zero: every in-range call answers "not yet initialised".
    for (uint32_t type : {0u, 3u, 5u, 19u}) EXPECT_EQ(Get_VR_Sensor_Enablement(type, 3), 2) << type;
    EXPECT_EQ(test::count(9, fn, "[Get_VR_Sensor_Enablement]: PBT initialization is not yet complete, returning"), 4);

    put(20, 0, 1);
    put(20, kVr + 1, 0xFF);   // CPU 0 disabled
    put(20, kVr + 7, 0xFF);   // CPU 3 disabled
    put(20, kVr + 9, 0xFE);   // memory 0 enabled
    put(20, kVr + 23, 0xFF);  // memory 7 disabled
    put(20, kVr + 8, 0xFF);   // first byte of memory 0: not interpreted
    const struct { uint32_t type, index; int32_t want; int level; std::string tail; } cases[] = {
        {5, 0, 0, 9, "CPU VR at SHM index 0 is disabled, returning"},
        {5, 1, 1, 9, "CPU VR at SHM index 1 is enabled, returning"},
        {5, 3, 0, 9, "CPU VR at SHM index 3 is disabled, returning"},
        {3, 0, 1, 9, "MEM VR at SHM index 0 is enabled, returning"},
        {3, 7, 0, 9, "MEM VR at SHM index 7 is disabled, returning"},
        {3, 6, 1, 9, "MEM VR at SHM index 6 is enabled, returning"},
        {5, 4, 3, 2, "Parameter SHMindex=4 is out of bounds! VRtype=5, MAX_CPU_VR_ENTRIES=4, MAX_MEM_VR_ENTRIES=8"},
        {3, 8, 3, 2, "Parameter SHMindex=8 is out of bounds! VRtype=3, MAX_CPU_VR_ENTRIES=4, MAX_MEM_VR_ENTRIES=8"},
        {20, 0, 3, 2, "Parameter VRtype=20 is invalid!"},
        {0xFFFFFFFF, 0, 3, 2, "Parameter VRtype=4294967295 is invalid!"},
        {4, 100, 3, 2, "Unknown error! Returning"},
        {0, 0xFFFFFFFF, 3, 2, "Unknown error! Returning"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " index " << c.index);
        test::clear_messages();
        EXPECT_EQ(Get_VR_Sensor_Enablement(c.type, c.index), c.want);
        EXPECT_EQ(test::count(c.level, fn, "[Get_VR_Sensor_Enablement]: " + c.tail), 1);
        const std::string entry = "[Get_VR_Sensor_Enablement]: Entry, VRtype=" + std::to_string(c.type) +
                                  ", SHMindex=" + std::to_string(c.index);
        EXPECT_EQ(test::count(9, fn, entry), 1);
        EXPECT_EQ(test::messages().size(), 2u);
    }
}

TEST(Vr, FailedReadsAnswerThree) {
    test::install_hook();
    put(20, 0, 1);
    gShmSecSize[20] = 1000;  // the VR section now lies past the section's end
    EXPECT_EQ(Get_VR_Sensor_Enablement(5, 0), 3);
    EXPECT_EQ(test::count(2, "Get_VR_Sensor_Enablement", "SHM read failed for VR section in PBT!"), 1);
    test::break_section_locks();
    EXPECT_EQ(Get_VR_Sensor_Enablement(5, 0), 3);
    EXPECT_EQ(test::count(2, "Get_VR_Sensor_Enablement", "SHM read failed for pbtVersion!"), 1);
}

TEST(Power, StatusAndFormFactor) {
    test::install_hook();
    uint8_t form = 0x33;
    EXPECT_EQ(Get_blade_form_factor(nullptr), -1);
    EXPECT_EQ(test::count(1, "Get_blade_form_factor", "form_factor NULL pointer\n"), 1);
    EXPECT_EQ(gShmData[0], nullptr);  // refused before the store is touched

    EXPECT_EQ(GetSystemPowerStatusSHM(), 0u);
    for (uint8_t status : {0x01, 0x7B, 0xFF}) {
        put(5, 451, status);
        EXPECT_EQ(GetSystemPowerStatusSHM(), status);
    }
    put(16, 385, 0x9C);
    EXPECT_EQ(Get_blade_form_factor(&form), 0);
    EXPECT_EQ(form, 0x9C);

    put(5, 451, 0x10);
    test::break_section_locks();
    test::clear_messages();
    EXPECT_EQ(GetSystemPowerStatusSHM(), 255u);
    EXPECT_EQ(test::count(1, "GetSystemPowerStatusSHM", "Vond_shm_memread read section 5 failed(-1)!\n"), 1);
    EXPECT_EQ(Get_blade_form_factor(&form), -1);
}

TEST(Power, InputMapIsPublishedAndWritable) {
    const int32_t want[16][2] = {{1, 0}, {3, 0}, {2, 0}, {3, 1}, {1, 0}, {3, 0}, {2, 0}, {4, 1},
                                 {3, 0}, {3, 0}, {2, 1}, {3, 0}, {1, 1}, {2, 0}, {2, 0}, {0, 0}};
    static_assert(sizeof powerInputMap == 128);
    for (int row = 0; row < 16; ++row)
        for (int col = 0; col < 2; ++col) EXPECT_EQ(powerInputMap[row][col], want[row][col]) << row << "," << col;
    powerInputMap[15][1] = 9;
    EXPECT_EQ(powerInputMap[15][1], 9);
}

}  // namespace
