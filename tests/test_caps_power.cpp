// Feature capability words, VR sensor enablement, power status and blade form factor.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using test::put;

TEST(Caps, WordsAreLittleEndianPairsAndIndexNineIsRefused) {
    test::install_hook();
    put(10, 18, 0x77);
    test::clear_messages();
    for (uint32_t i = 0; i <= 8; ++i) EXPECT_EQ(Set_SHM_feature_capabilities(i, uint16_t(0xC100 + i)), 0);
    uint16_t v = 0;
    EXPECT_EQ(Get_SHM_feature_capabilities(8, &v), 0);
    EXPECT_EQ(v, 0xC108);
    EXPECT_TRUE(test::messages().empty());
    for (uint32_t bad : {9u, 0x80000000u, 0xFFFFFFFFu}) {
        test::clear_messages();
        v = 0xBEEF;
        EXPECT_EQ(Get_SHM_feature_capabilities(bad, &v), -1);
        EXPECT_EQ(v, 0xBEEF);
        EXPECT_EQ(Set_SHM_feature_capabilities(bad, 1), -1);
        EXPECT_EQ(test::count(1, "Get_SHM_feature_capabilities", "capname invalid\n"), 1) << bad;
        EXPECT_EQ(test::count(1, "Set_SHM_feature_capabilities", "capname invalid\n"), 1) << bad;
    }
    uint8_t bytes[19];
    ASSERT_EQ(Vond_shm_memread(10, bytes, 0, 19), 0);
    EXPECT_EQ(bytes[16], 0x08);
    EXPECT_EQ(bytes[17], 0xC1);
    EXPECT_EQ(bytes[18], 0x77);  // nothing past the last word
}

TEST(Vr, ResultCodesAndMessages) {
    constexpr int32_t kVr = 137090;
    const char* fn = "Get_VR_Sensor_Enablement";
    test::install_hook();
    // Table version byte 0: every in-range call answers "not yet initialised".
    for (uint32_t type : {0u, 19u}) EXPECT_EQ(Get_VR_Sensor_Enablement(type, 3), 2) << type;
    EXPECT_EQ(test::count(9, fn, "[Get_VR_Sensor_Enablement]: PBT initialization is not yet complete, returning"), 2);

    // CPU i's status at 1 + 2i, memory i's at 9 + 2i, 0xFF disabled: CPUs 0 and 3 and memory 7 are off; byte 8
    // (memory 0's first byte, not interpreted) is 0xFF too.
    std::vector<uint8_t> vr(24, 0);
    vr[1] = vr[7] = vr[23] = vr[8] = 0xFF;
    vr[9] = 0xFE;
    test::put_bytes(20, kVr, vr);
    put(20, 0, 1);
    const struct { uint32_t type, index; int32_t want; int level; std::string tail; } cases[] = {
        {5, 0, 0, 9, "CPU VR at SHM index 0 is disabled, returning"},
        {5, 1, 1, 9, "CPU VR at SHM index 1 is enabled, returning"},
        {5, 3, 0, 9, "CPU VR at SHM index 3 is disabled, returning"},
        {3, 0, 1, 9, "MEM VR at SHM index 0 is enabled, returning"},
        {3, 7, 0, 9, "MEM VR at SHM index 7 is disabled, returning"},
        {5, 4, 3, 2, "Parameter SHMindex=4 is out of bounds! VRtype=5, MAX_CPU_VR_ENTRIES=4, MAX_MEM_VR_ENTRIES=8"},
        {3, 8, 3, 2, "Parameter SHMindex=8 is out of bounds! VRtype=3, MAX_CPU_VR_ENTRIES=4, MAX_MEM_VR_ENTRIES=8"},
        {20, 0, 3, 2, "Parameter VRtype=20 is invalid!"},
        {0xFFFFFFFF, 0, 3, 2, "Parameter VRtype=4294967295 is invalid!"},
        {4, 100, 3, 2, "Unknown error! Returning"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " index " << c.index);
        test::clear_messages();
        EXPECT_EQ(Get_VR_Sensor_Enablement(c.type, c.index), c.want);
        EXPECT_EQ(test::count(c.level, fn, "[Get_VR_Sensor_Enablement]: " + c.tail), 1);
        EXPECT_EQ(test::count(9, fn, "[Get_VR_Sensor_Enablement]: Entry, VRtype=" + std::to_string(c.type) +
                                         ", SHMindex=" + std::to_string(c.index)),
                  1);
        EXPECT_EQ(test::messages().size(), 2u);
    }
    gShmSecSize[20] = 1000;  // the VR section now lies past the section's end
    EXPECT_EQ(Get_VR_Sensor_Enablement(5, 0), 3);
    EXPECT_EQ(test::count(2, fn, "SHM read failed for VR section in PBT!"), 1);
    test::break_section_locks();
    EXPECT_EQ(Get_VR_Sensor_Enablement(5, 0), 3);
    EXPECT_EQ(test::count(2, fn, "SHM read failed for pbtVersion!"), 1);
}

TEST(Power, StatusAndFormFactor) {
    test::install_hook();
    uint8_t form = 0x33;
    EXPECT_EQ(Get_blade_form_factor(nullptr), -1);
    EXPECT_EQ(test::count(1, "Get_blade_form_factor", "form_factor NULL pointer\n"), 1);
    EXPECT_EQ(gShmData[0], nullptr);  // refused before the store is touched

    EXPECT_EQ(GetSystemPowerStatusSHM(), 0u);
    put(5, 451, 0xFF);
    EXPECT_EQ(GetSystemPowerStatusSHM(), 0xFFu);  // stored 255 reads as a failure does
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

}  // namespace
