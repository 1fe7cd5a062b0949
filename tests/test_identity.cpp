// The platform identity record: getters and their failure values, the progress bits, the chassis predicates.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "harness.h"

namespace {

void put(int32_t offset, const std::vector<uint8_t>& bytes) { test::put_bytes(6, offset, bytes); }
uint32_t progress_word() {
    uint32_t word = 0;
    EXPECT_EQ(Vond_shm_memread(6, &word, 0, 4), 0);
    return word;
}

TEST(Identity, GettersReadTheirByteAndAnswerFixedValuesOnFailure) {
    const struct { uint32_t (*call)(); int32_t offset; uint32_t on_failure; } getters[] = {
        {Vond_get_platform_type, 4, 0}, {Vond_get_system_id, 5, 0},  {Vond_get_quorx_type, 7, 0},
        {Vond_get_generation, 8, 0},    {Vond_get_modular_chassis_type, 9, 247},
        {Vond_get_post_update, 10, 0},  {Vond_get_cpu_type, 11, 0}};
    test::install_hook();
    for (int32_t i = 0; i < 13; ++i) put(i, {static_cast<uint8_t>(0xA0 + i)});
    for (const auto& g : getters) EXPECT_EQ(g.call(), 0xA0u + g.offset) << "offset " << g.offset;
    test::break_section_locks();  // every store read fails from here on
    test::clear_messages();
    for (const auto& g : getters) EXPECT_EQ(g.call(), g.on_failure) << "offset " << g.offset;
    EXPECT_EQ(Vond_get_quorx_progress(0), 0u);
    EXPECT_EQ(Vond_set_quorx_progress(1, 1), -1);
    EXPECT_EQ(is_modular_brask_chassis(), 0);
    EXPECT_EQ(is_ngm(), 0u);
    for (const test::Message& m : test::messages())  // only the access layer's own messages
        EXPECT_EQ(m.text.find("identity.cpp"), std::string::npos) << m.text;
}

// Bit 0 is the summary of the required bits 1, 5, 6, 13 and 22. The store is not attached at the start: the
// setter attaches by itself.
TEST(Identity, ProgressBits) {
    test::install_hook();
    ASSERT_EQ(gShmData[0], nullptr);
    EXPECT_EQ(Vond_set_quorx_progress(1, 1), 0);
    const struct { int32_t bit, set, want; uint32_t word; } steps[] = {
        {5, 1, 0, 0x22}, {6, 1, 0, 0x62}, {13, 1, 0, 0x2062}, {22, 1, 0, 0x402063},
        {1, 0, 0, 0x402060}, {1, 1, 0, 0x402063},  // bit 1 counts too
        {3, -1, 0, 0x40206B},                      // a negative set sets
        {5, 0, 0, 0x40204A}, {5, 1, 0, 0x40206B}, {31, 1, 0, 0x8040206B}, {31, 0, 0, 0x40206B},
        {0, 1, -1, 0x40206B}, {32, 1, -1, 0x40206B}, {3, 2, -1, 0x40206B},
        {-248, 1, 0, 0x40216B},  // low 8 bits 8: bit 8
        {-1, 1, 0, 0x40216B}, {-224, 1, 0, 0x40216B},  // shifts 255 and 32: empty masks
        {-256, 0, 0, 0x40216B},  // shift 0 clears bit 0, which is re-derived at once
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(::testing::Message() << "bit " << s.bit << " set " << s.set);
        test::clear_messages();
        EXPECT_EQ(Vond_set_quorx_progress(s.bit, s.set), s.want);
        EXPECT_EQ(progress_word(), s.word);
        EXPECT_EQ(test::count(1, "Vond_set_quorx_progress", "invalid argument or data size\n"), s.want ? 1 : 0);
        EXPECT_EQ(test::messages().size(), s.want ? 1u : 0u);
    }
    // The summary follows the required bits on every call, whichever bit changes.
    put(0, {0x62, 0x20, 0x40, 0x00});
    EXPECT_EQ(Vond_set_quorx_progress(3, 0), 0);
    EXPECT_EQ(progress_word(), 0x402063u);
    put(0, {0x01, 0x00, 0x00, 0x00});
    EXPECT_EQ(Vond_set_quorx_progress(3, 0), 0);
    EXPECT_EQ(progress_word(), 0u);
    // The table's section-6 size is the setter's length: 0 copies nothing and succeeds, a negative size is
    // refused; both after the size message.
    for (const auto& [size, want] : {std::pair{0, 0}, {-1, -1}}) {
        gShmSecSize[6] = size;
        test::clear_messages();
        EXPECT_EQ(Vond_set_quorx_progress(3, 1), want) << size;
        gShmSecSize[6] = 13;
        EXPECT_EQ(progress_word(), 0u) << size;
        EXPECT_EQ(test::count(1, "Vond_set_quorx_progress", "data length is beyond section size\n"), 1) << size;
    }
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));

    put(0, {0x63, 0x20, 0x40, 0x80});  // the getter shifts by the low byte too
    const struct { int32_t bit; uint32_t want; } gets[] = {{0, 1}, {2, 0}, {31, 1}, {32, 0}, {-256, 1}, {257, 1}};
    for (const auto& g : gets) EXPECT_EQ(Vond_get_quorx_progress(g.bit), g.want) << "bit " << g.bit;
}

TEST(Identity, ChassisPredicatesAndSetter) {
    const struct { uint8_t platform, chassis; uint32_t ngm; int32_t brask; } cases[] = {
        {0, 8, 0, 0}, {2, 8, 1, 0}, {2, 7, 0, 0}, {0, 1, 0, 1},    {0, 3, 0, 1},
        {0, 5, 0, 1}, {2, 3, 0, 1}, {0, 0, 0, 0}, {2, 0xF7, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << int(c.platform) << "/" << int(c.chassis));
        put(4, {c.platform});
        EXPECT_EQ(Vond_set_modular_chassis_type(c.chassis | 0x300u), 0);
        EXPECT_EQ(Vond_get_modular_chassis_type(), c.chassis);
        EXPECT_EQ(is_ngm(), c.ngm);
        EXPECT_EQ(is_modular_brask_chassis(), c.brask);
    }
    uint8_t record[13];
    ASSERT_EQ(Vond_shm_memread(6, record, 0, 13), 0);
    EXPECT_EQ(record[8] | record[10], 0);  // the setter writes one byte
}

TEST(Identity, BladeSlotStaggerTimeAndProductType) {
    test::install_hook();
    put(4, {1, 0, 7});
    uint8_t slot = 0x55;
    EXPECT_EQ(Vond_get_blade_slot_num(&slot), -1);
    EXPECT_EQ(slot, 0x55);
    EXPECT_EQ(Vond_get_blade_slot_num(nullptr), -1);  // the platform check comes first
    EXPECT_EQ(test::count(1, "Vond_get_blade_slot_num", "platform is not modular\n"), 2);
    put(4, {2});
    EXPECT_EQ(Vond_get_blade_slot_num(&slot), 0);
    EXPECT_EQ(slot, 7);
    EXPECT_EQ(Vond_get_blade_slot_num(nullptr), -1);
    EXPECT_EQ(test::count(1, "Vond_get_blade_slot_num", "slot NULL pointer\n"), 1);

    EXPECT_EQ(Vond_get_bios_livescan_stagger_time(&slot), 0);
    EXPECT_EQ(slot, 6);
    EXPECT_EQ(Vond_get_bios_livescan_stagger_time(nullptr), -1);
    EXPECT_EQ(test::count(1, "Vond_get_bios_livescan_stagger_time", "time NULL pointer\n"), 1);

    EXPECT_EQ(Vond_get_product_type(), 0u);  // the marker's existence decides, a dangling link counts
    ASSERT_EQ(symlink("/tmp/nowhere", "/tmp/ec"), 0);
    EXPECT_EQ(Vond_get_product_type(), 1u);
}

}  // namespace
