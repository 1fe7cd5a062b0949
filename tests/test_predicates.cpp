// The platform family predicates: the system id sets, the generation and CPU rules, the POST status, serial PECI
// presence, and their messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "harness.h"

namespace {

using test::put;
void platform(uint8_t generation, uint8_t cpu, uint8_t system_id) {
    put(6, 8, generation);
    put(6, 11, cpu);
    put(6, 5, system_id);
}

// Every family over every system id, with its message: `in` when the id belongs, `out` when not (none: silent).
TEST(Predicates, FamiliesOverEverySystemId) {
    const struct { int32_t (*call)(); const char* name; std::vector<int> ids; int level; const char *in, *out; }
    families[] = {
        {isQV, "isQV", {28, 29, 30, 50, 51, 52, 53, 56}, 5, "isQV: System Id = [#]", "isQV: System Id = [#]"},
        {isVarduna, "isVarduna", {6, 7, 10, 11, 40}, 9, "Varduna system Id = [#]", nullptr},
        {isTesk, "isTesk", {106, 107, 108, 109, 110}, 9, "Tesk system Id = [#]", "System Id = [#] is not Tesk"},
        {isMorvast, "isMorvast", {37}, 5, "isMorvast: System Id = [#]", "isMorvast: System Id = [#]"},
        {isQillan, "isQillan", {39}, 5, "isQillan: System Id = [#]", "isQillan: System Id = [#]"},
        {isDunmarch, "isDunmarch", {61}, 5, "isDunmarch: System Id = [#]", "isDunmarch: System Id = [#]"},
    };
    test::install_hook();
    for (int id = 0; id < 256; ++id) {
        put(6, 5, static_cast<uint8_t>(id));
        for (const auto& f : families) {
            const int member = static_cast<int>(std::count(f.ids.begin(), f.ids.end(), id));
            test::clear_messages();
            EXPECT_EQ(f.call(), member) << f.name << " id " << id;
            const char* format = member ? f.in : f.out;
            std::string want = format ? format : "";
            if (format != nullptr) want.replace(want.find('#'), 1, std::to_string(id));
            EXPECT_EQ(test::messages().size(), format ? 1u : 0u) << f.name << " id " << id;
            EXPECT_EQ(test::count(f.level, f.name, want), format ? 1 : 0) << f.name << " id " << id;
        }
    }
}

// Columns: isAMD, is14GAMD, is15GAMD, is16G, boot first policy, power-on hook, DIMM polling, CPU CUPS. The last
// two log the system id at level 5; CPU CUPS only on AMD.
TEST(Predicates, GenerationAndCpuRules) {
    test::install_hook();
    const struct { uint8_t gen, cpu, id; std::vector<int> want; } cases[] = {
        {0, 0, 0, {0, 0, 0, 0, 0, 0, 1, 0}},  {3, 1, 20, {1, 1, 0, 0, 0, 0, 1, 1}}, {4, 1, 20, {1, 0, 1, 0, 1, 1, 1, 1}},
        {5, 1, 20, {1, 0, 1, 1, 1, 1, 0, 1}}, {4, 2, 28, {0, 0, 0, 0, 1, 1, 1, 0}}, {4, 1, 28, {1, 0, 1, 0, 1, 1, 1, 0}},
        {4, 1, 30, {1, 0, 1, 0, 1, 1, 1, 0}}, {4, 1, 31, {1, 0, 1, 0, 1, 1, 1, 1}}, {4, 1, 27, {1, 0, 1, 0, 1, 1, 1, 1}},
        {3, 0, 50, {0, 0, 0, 0, 0, 0, 0, 0}}, {3, 0, 51, {0, 0, 0, 0, 0, 0, 0, 0}}, {3, 0, 56, {0, 0, 0, 0, 0, 0, 0, 0}},
        {3, 0, 52, {0, 0, 0, 0, 0, 0, 1, 0}}, {255, 1, 0, {1, 0, 1, 1, 1, 1, 0, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "gen " << int(c.gen) << " cpu " << int(c.cpu) << " id " << int(c.id));
        platform(c.gen, c.cpu, c.id);
        test::clear_messages();
        EXPECT_EQ((std::vector<int>{isAMD(), is14GAMD(), is15GAMD(), is16G(), IsBootFirstPolicyEnabled(),
                                    isPowerOnHookAvailable(), IsCPDimmPollingSupported(), IsCPCpuCupsSupported()}),
                  c.want);
        const std::string id = "System Id = [" + std::to_string(c.id) + "]";
        EXPECT_EQ(test::count(9, "IsBootFirstPolicyEnabled", "Entering: IsBootFirstPolicyEnabled  \n"), 1);
        EXPECT_EQ(test::count(9, "isPowerOnHookAvailable", "Entering: isPowerOnHookAvailable  \n"), 1);
        EXPECT_EQ(test::count(5, "IsCPDimmPollingSupported", "IsCPDimmPollingSupported: " + id), 1);
        EXPECT_EQ(test::count(5, "IsCPCpuCupsSupported", "IsCPCpuCupsSupported: " + id), c.want[0]);
        EXPECT_EQ(test::messages().size(), 3u + c.want[0]);  // the first four are silent
    }
}

TEST(Predicates, BiosDonePost) {
    for (const auto& [status, want] : {std::pair<uint8_t, int>{0x50, 0}, {0x51, 1}, {0x52, 0}, {0x7D, 0},
                                       {0x7E, 1}, {0x7F, 1}, {0x80, 0}, {0xD1, 0}, {0xFE, 0}}) {
        put(14, 2676, status);
        EXPECT_EQ(isBiosDonePost(), want) << int(status);
    }
}

// The flag can only force "present"; a zero flag or a failed read (the last rows: byte 12 lies past the section,
// logged at level 2, the stored flag unused) defers to the platform rule, which asks isTesk only on a non-AMD
// 15G or later.
TEST(Predicates, SerialPeciPresence) {
    test::install_hook();
    const struct { uint8_t gen, cpu, id, flag; int want, tesk_asked; int32_t size; } cases[] = {
        {3, 1, 0, 1, 1, 0, 13},  {3, 0, 61, 0, 0, 0, 13},   {4, 0, 107, 0, 0, 1, 13}, {4, 0, 61, 0, 1, 1, 13},
        {4, 1, 61, 0, 0, 0, 13}, {5, 0, 0, 0, 1, 1, 13},    {5, 0, 110, 0xFF, 1, 0, 13},
        {0, 0, 0, 0, 0, 0, 13},  {4, 0, 61, 1, 1, 1, 12},  {3, 0, 61, 1, 0, 0, 12},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "gen " << int(c.gen) << " cpu " << int(c.cpu) << " id " << int(c.id)
                                          << " flag " << int(c.flag) << " size " << c.size);
        platform(c.gen, c.cpu, c.id);
        put(6, 12, c.flag);
        gShmSecSize[6] = c.size;
        test::clear_messages();
        EXPECT_EQ(serialPECIPresent(), c.want);
        gShmSecSize[6] = 13;
        EXPECT_EQ(test::count(9, "serialPECIPresent", c.want ? "serialPECIPresent: Return Serial PECI as present"
                                                             : "serialPECIPresent: Return Serial PECI as not present"),
                  1);
        EXPECT_EQ(test::count(2, "serialPECIPresent", "serialPECIPresent: Error reading serial peci presence from SHM"),
                  c.size == 12 ? 1 : 0);
        int tesk = 0;
        for (const test::Message& m : test::messages()) tesk += m.text.find(".isTesk: ") != std::string::npos;
        EXPECT_EQ(tesk, c.tesk_asked);
    }
}

// Under a held lock the level-2 read failure still reaches the system log, as an error, and the level-9 answer
// is dropped: the only check of a level above 1 taking that path.
TEST(Predicates, SerialPeciReadFailureUnderALock) {
    test::install_hook();
    platform(4, 0, 61);
    gShmSecSize[6] = 12;  // byte 12 lies past the section now
    test::SyslogCapture syslog_socket;
    test::clear_messages();
    ASSERT_EQ(Vond_shm_lock_shm(1), 0);
    EXPECT_EQ(serialPECIPresent(), 1);
    ASSERT_EQ(Vond_shm_unlock_shm(1), 0);
    EXPECT_TRUE(test::messages().empty());
    int found = 0;
    for (const std::string& line : syslog_socket.drain()) {
        EXPECT_EQ(line.find("Return Serial PECI"), std::string::npos) << line;
        found += line.rfind("<147>", 0) == 0 && line.find("Error reading serial peci presence") != std::string::npos;
    }
    EXPECT_EQ(found, 1);
}

}  // namespace
