// The platform family predicates: the system id sets over every id, the
// generation and CPU rules, the POST status, serial PECI presence, and the
// messages with their levels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using test::put;
// generation, cpu type and system id of the identity record.
void platform(uint8_t generation, uint8_t cpu, uint8_t system_id) {
    put(6, 8, generation);
    put(6, 11, cpu);
    put(6, 5, system_id);
}

struct Family {
    int32_t (*call)();
    const char* name;
    std::vector<int> ids;
};

TEST(Predicates, FamilySetsOverEverySystemId) {
    test::install_hook();
    const Family families[] = {
        {isQV, "isQV", {28, 29, 30, 50, 51, 52, 53, 56}}, {isVarduna, "isVarduna", {6, 7, 10, 11, 40}},
        {isTesk, "isTesk", {106, 107, 108, 109, 110}},    {isMorvast, "isMorvast", {37}},
        {isQillan, "isQillan", {39}},                     {isDunmarch, "isDunmarch", {61}},
    };
    for (int id = 0; id < 256; ++id) {
        put(6, 5, static_cast<uint8_t>(id));
        for (const Family& f : families) {
            const bool member = std::find(f.ids.begin(), f.ids.end(), id) != f.ids.end();
            EXPECT_EQ(f.call(), member ? 1 : 0) << f.name << " id " << id;
        }
    }
}

TEST(Predicates, FamilyMessagesAndLevels) {
    test::install_hook();
    const struct { int id; int32_t (*call)(); int level; const char* function; std::string tail; } cases[] = {
        {31, isQV, 5, "isQV", "isQV: System Id = [31]"},
        {37, isMorvast, 5, "isMorvast", "isMorvast: System Id = [37]"},
        {1, isQillan, 5, "isQillan", "isQillan: System Id = [1]"},
        {200, isDunmarch, 5, "isDunmarch", "isDunmarch: System Id = [200]"},
        {40, isVarduna, 9, "isVarduna", "Varduna system Id = [40]"},
        {41, isVarduna, 0, "isVarduna", ""},  // silent outside the set
        {106, isTesk, 9, "isTesk", "Tesk system Id = [106]"},
        {111, isTesk, 9, "isTesk", "System Id = [111] is not Tesk"},
    };
    for (const auto& c : cases) {
        put(6, 5, static_cast<uint8_t>(c.id));
        test::clear_messages();
        c.call();
        ASSERT_EQ(test::messages().size(), c.level == 0 ? 0u : 1u) << c.function << " " << c.id;
        if (c.level != 0) {
            EXPECT_EQ(test::count(c.level, c.function, c.tail), 1) << c.function << " " << c.id;
        }
    }
}

TEST(Predicates, GenerationAndCpuRules) {
    test::install_hook();
    const struct {
        uint8_t gen, cpu, id;
        int amd, g14amd, g15amd, g16, boot_first, power_hook, dimm_polling, cpu_cups;
    } cases[] = {
        {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0},    {3, 1, 20, 1, 1, 0, 0, 0, 0, 1, 1},
        {4, 1, 20, 1, 0, 1, 0, 1, 1, 1, 1},   {5, 1, 20, 1, 0, 1, 1, 1, 1, 0, 1},
        {4, 0, 20, 0, 0, 0, 0, 1, 1, 1, 0},   {4, 2, 28, 0, 0, 0, 0, 1, 1, 1, 0},
        {4, 1, 28, 1, 0, 1, 0, 1, 1, 1, 0},   {4, 1, 30, 1, 0, 1, 0, 1, 1, 1, 0},
        {4, 1, 31, 1, 0, 1, 0, 1, 1, 1, 1},   {4, 1, 27, 1, 0, 1, 0, 1, 1, 1, 1},
        {3, 0, 50, 0, 0, 0, 0, 0, 0, 0, 0},   {3, 0, 51, 0, 0, 0, 0, 0, 0, 0, 0},
        {3, 0, 56, 0, 0, 0, 0, 0, 0, 0, 0},   {3, 0, 52, 0, 0, 0, 0, 0, 0, 1, 0},
        {255, 1, 0, 1, 0, 1, 1, 1, 1, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "gen " << int(c.gen) << " cpu " << int(c.cpu) << " id " << int(c.id));
        platform(c.gen, c.cpu, c.id);
        test::clear_messages();
        EXPECT_EQ(isAMD(), c.amd);
        EXPECT_EQ(is14GAMD(), c.g14amd);
        EXPECT_EQ(is15GAMD(), c.g15amd);
        EXPECT_EQ(is16G(), c.g16);
        EXPECT_EQ(test::messages().size(), 0u);
        EXPECT_EQ(IsBootFirstPolicyEnabled(), c.boot_first);
        EXPECT_EQ(isPowerOnHookAvailable(), c.power_hook);
        EXPECT_EQ(IsCPDimmPollingSupported(), c.dimm_polling);
        EXPECT_EQ(IsCPCpuCupsSupported(), c.cpu_cups);
        const std::string id = "System Id = [" + std::to_string(c.id) + "]";
        EXPECT_EQ(test::count(9, "IsBootFirstPolicyEnabled", "Entering: IsBootFirstPolicyEnabled  \n"), 1);
        EXPECT_EQ(test::count(9, "isPowerOnHookAvailable", "Entering: isPowerOnHookAvailable  \n"), 1);
        EXPECT_EQ(test::count(5, "IsCPDimmPollingSupported", "IsCPDimmPollingSupported: " + id), 1);
        EXPECT_EQ(test::count(5, "IsCPCpuCupsSupported", "IsCPCpuCupsSupported: " + id), c.amd);
        EXPECT_EQ(test::messages().size(), 3u + c.amd);
    }
}

TEST(Predicates, BiosDonePost) {
    const struct { uint8_t status; int want; } cases[] = {
        {0, 0}, {0x50, 0}, {0x51, 1}, {0x52, 0}, {0x7D, 0}, {0x7E, 1}, {0x7F, 1}, {0x80, 0}, {0xD1, 0}, {0xFE, 0}};
    for (const auto& c : cases) {
        put(14, 2676, c.status);
        EXPECT_EQ(isBiosDonePost(), c.want) << int(c.status);
    }
}

TEST(Predicates, SerialPeciPresence) {
    test::install_hook();
    const struct { uint8_t gen, cpu, id, flag; int want, tesk_asked; } cases[] = {
        {3, 1, 0, 1, 1, 0},   {3, 0, 61, 0, 0, 0}, {4, 0, 107, 0, 0, 1}, {4, 0, 61, 0, 1, 1},
        {4, 1, 61, 0, 0, 0},  {5, 0, 0, 0, 1, 1},  {5, 0, 110, 0xFF, 1, 0}, {0, 0, 0, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "gen " << int(c.gen) << " cpu " << int(c.cpu) << " id "
                                          << int(c.id) << " flag " << int(c.flag));
        platform(c.gen, c.cpu, c.id);
        put(6, 12, c.flag);
        test::clear_messages();
        EXPECT_EQ(serialPECIPresent(), c.want);
        const char* tail = c.want ? "serialPECIPresent: Return Serial PECI as present"
                                  : "serialPECIPresent: Return Serial PECI as not present";
        EXPECT_EQ(test::count(9, "serialPECIPresent", tail), 1);
        int tesk = 0;
        for (const test::Message& m : test::messages()) tesk += m.text.find(".isTesk: ") != std::string::npos;
        EXPECT_EQ(tesk, c.tesk_asked);
    }
}

// A failed flag read logs at level 2 (no line end) and falls back to the
// platform rule; under a held lock that message goes to the system log and
// the level-9 answer is dropped.
TEST(Predicates, SerialPeciReadFailure) {
    test::install_hook();
    platform(4, 0, 61);
    gShmSecSize[6] = 12;  // byte 12 lies past the section now
    test::clear_messages();
    EXPECT_EQ(serialPECIPresent(), 1);
    const char* error = "serialPECIPresent: Error reading serial peci presence from SHM";
    EXPECT_EQ(test::count(2, "serialPECIPresent", error), 1);
    for (const test::Message& m : test::messages())
        if (m.level == 2) {
            EXPECT_EQ(m.text.rfind("serial_peci.cpp.", 0), 0u) << m.text;
        }

    test::SyslogCapture syslog_socket;
    test::clear_messages();
    ASSERT_EQ(Vond_shm_lock_shm(1), 0);
    EXPECT_EQ(serialPECIPresent(), 1);
    ASSERT_EQ(Vond_shm_unlock_shm(1), 0);
    EXPECT_TRUE(test::messages().empty());
    int found = 0;
    for (const std::string& line : syslog_socket.drain()) {
        EXPECT_EQ(line.find("Return Serial PECI"), std::string::npos) << line;
        if (line.find(error) != std::string::npos && line.rfind("<147>", 0) == 0) ++found;
    }
    EXPECT_EQ(found, 1);
}

}  // namespace
