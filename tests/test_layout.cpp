// The section table check: which findings a modified table produces.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness.h"

namespace {

struct Case {
    const char* name;
    std::vector<std::pair<int, int>> sizes;  // section, new size
    std::vector<std::string> findings;       // message tails, in order
};

TEST(Layout, SanityCheckFindings) {
    const Case cases[] = {
        {"as built", {}, {}},
        {"zero size", {{12, 0}}, {"The size of section 12 is zero.\n"}},
        {"section 0 not empty", {{0, 5}}, {"The size of section 0 is not zero. v=5\n"}},
        {"pinned size", {{21, 40850}}, {"The size of section 21 should be 40849 but is 40850\n"}},
        {"total too large", {{32, 681428 + 2263386}}, {"total_size=4035720 is greater than SHM_SIZE=4035719\n"}},
        {"negative hides oversize",
         {{3, -10}, {32, 681428 + 2263386}},
         {"The size of section 3 is less than zero. v=-10\n"}},
        {"several pins",
         {{1, 57}, {19, 0}},
         {"The size of section 19 is zero.\n", "The size of section 1 should be 56 but is 57\n",
          "The size of section 19 should be 327 but is 0\n"}},
    };
    test::install_hook();
    std::vector<int32_t> original(gShmSecSize, gShmSecSize + 34);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::copy(original.begin(), original.end(), gShmSecSize);
        for (auto [section, size] : c.sizes) gShmSecSize[section] = size;
        test::clear_messages();
        SHML_sanity_check();
        const auto got = test::messages();
        ASSERT_EQ(got.size(), c.findings.size());
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].level, 1);
            EXPECT_NE(got[i].text.find(".SHML_sanity_check: " + c.findings[i]), std::string::npos) << got[i].text;
        }
    }
}

TEST(Layout, ZeroSizeIsReportedOnEveryAttachAttemptAndAttachGoesOn) {
    test::install_hook();
    gShmSecSize[12] = 0;
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    EXPECT_EQ(test::count(1, "SHML_sanity_check", "The size of section 12 is zero.\n"), 1);
    EXPECT_EQ(static_cast<char*>(gShmData[13]) - static_cast<char*>(gShmData[12]), 0);
}

}  // namespace
