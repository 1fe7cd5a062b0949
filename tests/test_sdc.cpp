// The SDC ring: start-up from the recovery file, the append/export/size
// arithmetic with its stored-format quirks, consumers, and untrusted headers.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "harness.h"

namespace {

constexpr int kSec = SHM_SEC_SDC;
constexpr uint32_t kRing = SDC_RING_SIZE;
using Bytes = std::vector<uint8_t>;

Bytes section() {
    Bytes b(SDC_RECOVERY_FILE_SIZE);
    EXPECT_EQ(Vond_shm_memread(kSec, b.data(), 0, int32_t(b.size())), 0);
    return b;
}
Bytes export_all() {
    Bytes b(kRing);
    uint32_t n = 99;
    EXPECT_EQ(Vond_shm_export_sdc(&n, b.data()), 0);
    b.resize(n);
    return b;
}
uint32_t size() {
    uint32_t n = 99;
    EXPECT_EQ(Vond_shm_get_size_sdc(&n), 0);
    return n;
}

TEST(SdcInit, WithoutFileSignsAFreshSectionOnce) {
    test::install_hook();
    EXPECT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "SDC recovery file doesn't exist"), 1);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Signature not valid.  Update it.\n"), 1);
    EXPECT_EQ(test::count(5, "Vond_shm_init_sdc", "Write Clean SDC Header success.\n"), 1);
    EXPECT_EQ(memcmp(test::sdc_header().Signature, "VondSDC", 8), 0);
    EXPECT_EQ(size(), 0u);

    test::set_sdc_indexes(0, 7, 1);
    test::clear_messages();
    EXPECT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(test::count(2, "Vond_shm_init_sdc", "SDC header Signature valid.\n"), 1);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Update it.\n"), 0);
    EXPECT_EQ(test::sdc_header().Tail, 7u);
}

TEST(SdcInit, RecoveryFileChecks) {
    test::install_hook();
    const struct {
        size_t size;
        const char* signature;  // 8 bytes
        const char* message;    // nullptr: restored
    } cases[] = {
        {524507, "VondSDC", "stat failed or size invalid\n"},
        {524509, "VondSDC", "stat failed or size invalid\n"},
        {524508, "VondSDCX", "sig compare failed\n"},
        {524508, "VondSDC", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        ASSERT_EQ(Vond_shm_memset(kSec, 0, 0, SDC_RECOVERY_FILE_SIZE), 0);
        Bytes file = test::pattern(c.size, uint32_t(c.size));
        memset(file.data() + SDC_HEADER_OFFSET, 0, 12);
        memcpy(file.data() + 524500, c.signature, std::min<size_t>(8, c.size - 524500));
        test::write_file(SDC_RECOVERY_FILE, file);
        test::clear_messages();
        EXPECT_EQ(Vond_shm_init_sdc(), 0);
        const bool restored = c.message == nullptr;
        if (!restored) {
            EXPECT_EQ(test::count(2, "Vond_shm_init_sdc", c.message), 1);
        }
        EXPECT_EQ(test::count(5, "RestoreSdcShm", "loopcnt=32 rem=220 \n"), restored ? 1 : 0);
        EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Update it.\n"), restored ? 0 : 1);
        file.resize(SDC_RECOVERY_FILE_SIZE);
        EXPECT_EQ(section() == file, restored);
    }
}

// Whatever else sits at the recovery path, or behind a link there, is skipped
// at once with its own message; the header check then runs as without a file.
TEST(SdcInit, RecoveryPathThatIsNoRegularFile) {
    test::install_hook();
    const Bytes ring = test::pattern(kRing, 11);
    ASSERT_EQ(Vond_shm_memwrite(kSec, ring.data(), 0, kRing), 0);
    const char* path = SDC_RECOVERY_FILE;
    const char* fifo = "/flash/data0/fifo";
    const struct {
        const char* type;
        std::function<bool()> make;
    } cases[] = {
        {"fifo", [&] { return mkfifo(path, 0600) == 0; }},  // without a writer
        {"directory", [&] { return mkdir(path, 0700) == 0; }},
        {"character device", [&] {
             test::touch(path);
             return mount("/dev/null", path, "none", MS_BIND, nullptr) == 0;  // type ignored for a bind
         }},
        {"fifo", [&] { return mkfifo(fifo, 0600) == 0 && symlink(fifo, path) == 0; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        ASSERT_TRUE(c.make()) << strerror(errno);
        ASSERT_EQ(Vond_shm_memset(kSec, 0, SDC_HEADER_OFFSET, SDC_HEADER_SIZE), 0);
        test::clear_messages();
        const test::ChildResult child = test::run_child([&] {
            EXPECT_EQ(Vond_shm_init_sdc(), 0);
            const std::string why = "SDC recovery file is not a regular file (" + std::string(c.type) + ")\n";
            EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", why), 1);
            EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Signature not valid.  Update it.\n"), 1);
            EXPECT_EQ(test::count(5, "Vond_shm_init_sdc", "Write Clean SDC Header success.\n"), 1);
            EXPECT_EQ(test::messages().size(), 3u);
            fflush(stdout);
            return ::testing::Test::HasFailure() ? 1 : 0;
        }, 5);
        EXPECT_FALSE(child.timed_out);
        EXPECT_EQ(child.code, 0);
        EXPECT_EQ(memcmp(test::sdc_header().Signature, "VondSDC", 8), 0);
        EXPECT_TRUE(std::equal(ring.begin(), ring.end(), section().begin()));
        umount2(path, MNT_DETACH);
        remove(path);
        remove(fifo);
    }
}

TEST(SdcInit, RestoredOutOfRangeHeadFailsEveryCall) {
    test::install_hook();
    Bytes file(SDC_RECOVERY_FILE_SIZE);
    const uint32_t head = kRing;
    memcpy(file.data() + SDC_HEADER_OFFSET, &head, 4);
    memcpy(file.data() + 524300, "app", 3);
    memcpy(file.data() + 524500, "VondSDC", 8);
    test::write_file(SDC_RECOVERY_FILE, file);
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(section(), file);
    test::clear_messages();
    Bytes buffer(kRing);
    uint32_t n = 1;
    int32_t id = 5;
    EXPECT_EQ(Vond_shm_write_sdc(&n, buffer.data()), -1);
    EXPECT_EQ(Vond_shm_get_size_sdc(&n), -1);
    EXPECT_EQ(Vond_shm_export_sdc(&n, buffer.data()), -1);
    EXPECT_EQ(Vond_shm_clear_sdc(), -1);
    EXPECT_EQ(Vond_shm_periodic_register_sdc("app", &id), -1);
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, buffer.data(), 0), -1);
    EXPECT_EQ(test::count(2, "GetSdcHeader", "out of range H=0x80000 T=x0\n"), 6);
    int failed = 0;
    for (const char* f : {"Vond_shm_get_size_sdc", "Vond_shm_write_sdc", "Vond_shm_export_sdc",
                          "Vond_shm_clear_sdc", "Vond_shm_periodic_register_sdc", "Vond_shm_periodic_get_sdc"})
        failed += test::count(2, f, "Read SDC header section failed.\n");
    EXPECT_EQ(failed, 6);
    EXPECT_EQ(Vond_shm_init_sdc(), 0);  // the file is restored again
    remove(SDC_RECOVERY_FILE);
    EXPECT_EQ(Vond_shm_init_sdc(), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_init_sdc", "Read SDC header section failed.\n"), 1);
}

// The ring arithmetic, registration and polling are the reference model's
// (test_sdc_model.cpp); what it does not see is here: messages, refusals of
// counts and read positions, and what a clear keeps.
TEST(SdcRing, MessagesRefusalsAndClear) {
    test::install_hook();
    Bytes data(kRing + 1), out(SDC_EXPORT_BUFFER_SIZE);
    for (uint32_t n : {0u, kRing + 1}) EXPECT_EQ(Vond_shm_write_sdc(&n, data.data()), -1);
    uint32_t n = 1;
    EXPECT_EQ(Vond_shm_write_sdc(&n, nullptr), -1);
    EXPECT_TRUE(test::messages().empty());
    EXPECT_EQ(size(), 0u);

    test::set_sdc_indexes(3, 41, 1);
    EXPECT_EQ(export_all().size(), 42u);
    EXPECT_EQ(test::count(2, "Vond_shm_export_sdc", "SHM not full. Read 0x2a (42) bytes from 0 \n"), 1);
    EXPECT_EQ(Vond_shm_export_sdc(nullptr, out.data()), -1);
    EXPECT_EQ(Vond_shm_export_sdc(&n, nullptr), -1);
    int32_t id = -5;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("alpha", &id), 0);
    EXPECT_EQ(test::count(5, "Vond_shm_periodic_register_sdc", "App alpha is registering id 0.\n"), 1);
    EXPECT_EQ(test::sdc_header().SDCAppTable[id].iLast, 3u);  // starts at Head
    ASSERT_EQ(Vond_shm_periodic_register_sdc("alpha", &id), 0);
    EXPECT_EQ(test::count(5, "Vond_shm_periodic_register_sdc", "App alpha already using id 0.\n"), 1);

    const struct {
        uint32_t id, last;
        const char* tail;
    } refused[] = {
        {8, 0, "Id 8 out of range\n"},
        {1, 0, "Id 1 not registered \n"},
        {0, kRing, "L=0x80000 out of range\n"},  // a read position that is no ring index
    };
    for (const auto& r : refused) {
        if (r.last != 0) test::put_le32(kSec, test::sdc_last_offset(0), r.last);
        n = 7;
        EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), r.id), -1) << r.tail;
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(test::count(2, "Vond_shm_periodic_get_sdc", r.tail), 1);
    }
    EXPECT_EQ(test::sdc_header().SDCAppTable[0].iLast, kRing);  // left alone

    const Bytes before = section();
    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    const Bytes after = section();
    EXPECT_EQ(size(), 0u);
    EXPECT_TRUE(std::equal(after.begin() + 524300, after.end(), before.begin() + 524300));
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + kRing, before.begin()));
}

}  // namespace
