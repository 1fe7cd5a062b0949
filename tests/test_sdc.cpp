// The SDC ring: start-up from the recovery file, untrusted headers, and the
// messages and refusals that the reference model does not see.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

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

// What start-up makes of what it finds at the recovery path: a valid image is
// restored; a wrong size or signature, no file, or whatever else sits there or
// behind a link there (a FIFO without a writer must not hold start-up) is
// reported, and then only the signature is written: indexes and ring stay.
TEST(SdcInit, RecoveryPath) {
    test::install_hook();
    const char* path = SDC_RECOVERY_FILE;
    const char* fifo = "/flash/data0/fifo";
    const auto image = [](size_t size, const char* signature) {
        Bytes file = test::pattern(size, uint32_t(size));
        memset(file.data() + SDC_HEADER_OFFSET, 0, 12);
        memcpy(file.data() + 524500, signature, std::min<size_t>(8, size - 524500));
        return file;
    };
    const auto file = [&](size_t size, const char* signature) {
        return [=] { return test::write_file(path, image(size, signature)), true; };
    };
    const struct {
        const char* name;
        std::function<bool()> make;
        int level;
        std::string message;  // about the file; level 5: restored
    } cases[] = {
        {"valid image", file(524508, "VondSDC"), 5, "loopcnt=32 rem=220 \n"},
        {"one byte short", file(524507, "VondSDC"), 2, "stat failed or size invalid\n"},
        {"one byte long", file(524509, "VondSDC"), 2, "stat failed or size invalid\n"},
        {"signature", file(524508, "VondSDCX"), 2, "sig compare failed\n"},
        {"no file", [] { return true; }, 3, "SDC recovery file doesn't exist"},
        {"fifo", [&] { return mkfifo(path, 0600) == 0; }, 3, "SDC recovery file is not a regular file (fifo)\n"},
        {"directory", [&] { return mkdir(path, 0700) == 0; }, 3,
         "SDC recovery file is not a regular file (directory)\n"},
        {"character device", [&] {  // the type is ignored for a bind mount
             return test::touch(path), mount("/dev/null", path, "none", MS_BIND, nullptr) == 0;
         }, 3, "SDC recovery file is not a regular file (character device)\n"},
        {"link to a fifo", [&] { return mkfifo(fifo, 0600) == 0 && symlink(fifo, path) == 0; }, 3,
         "SDC recovery file is not a regular file (fifo)\n"},
    };
    const Bytes ring = test::pattern(kRing, 11);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(Vond_shm_memwrite(kSec, ring.data(), 0, kRing), 0);
        ASSERT_EQ(Vond_shm_memset(kSec, 0, SDC_HEADER_OFFSET, SDC_HEADER_SIZE), 0);
        test::set_sdc_indexes(0, 7, 1);
        ASSERT_TRUE(c.make()) << strerror(errno);
        const bool restored = c.level == 5;
        const test::ChildResult child = test::run_child([&] {
            test::clear_messages();
            EXPECT_EQ(Vond_shm_init_sdc(), 0);
            EXPECT_EQ(test::count(c.level, restored ? "RestoreSdcShm" : "Vond_shm_init_sdc", c.message), 1);
            EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Signature not valid.  Update it.\n"), restored ? 0 : 1);
            EXPECT_EQ(test::count(5, "Vond_shm_init_sdc", "Write Clean SDC Header success.\n"), restored ? 0 : 1);
            fflush(stdout);
            return ::testing::Test::HasFailure() ? 1 : 0;
        }, 5);
        EXPECT_TRUE(!child.timed_out && child.code == 0) << child.code;
        const Bytes now = section();
        if (restored) {
            EXPECT_TRUE(now == image(524508, "VondSDC"));
        } else {
            EXPECT_EQ(memcmp(test::sdc_header().Signature, "VondSDC", 8), 0);
            EXPECT_EQ(test::sdc_header().Tail, 7u);
            EXPECT_TRUE(std::equal(ring.begin(), ring.end(), now.begin()));
        }
        umount2(path, MNT_DETACH);
        remove(path);
        remove(fifo);
    }
    test::clear_messages();  // a valid signature: nothing written
    test::set_sdc_indexes(0, 9, 1);
    EXPECT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(test::count(2, "Vond_shm_init_sdc", "SDC header Signature valid.\n"), 1);
    EXPECT_EQ(test::messages().size(), 2u);  // with the missing file's
    EXPECT_EQ(test::sdc_header().Tail, 9u);
}

TEST(SdcInit, RestoredOutOfRangeHeadFailsEveryCall) {
    test::install_hook();
    Bytes file(SDC_RECOVERY_FILE_SIZE);
    const uint32_t head = kRing;
    memcpy(file.data() + SDC_HEADER_OFFSET, &head, 4);
    memcpy(file.data() + 524300, "app", 3);
    memcpy(file.data() + 524500, "VondSDC", 8);
    test::write_file(SDC_RECOVERY_FILE, file);
    ASSERT_EQ(Vond_shm_init_sdc(), 0);  // a restore takes the header as it is
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

// What the reference model (test_sdc_model.cpp) does not see: messages,
// refused counts and read positions, and what a clear keeps.
TEST(SdcRing, MessagesRefusalsAndClear) {
    test::install_hook();
    Bytes data(kRing + 1), out(SDC_EXPORT_BUFFER_SIZE);
    for (uint32_t n : {0u, kRing + 1}) EXPECT_EQ(Vond_shm_write_sdc(&n, data.data()), -1) << n;
    uint32_t n = 1;
    EXPECT_EQ(Vond_shm_write_sdc(&n, nullptr), -1);
    EXPECT_TRUE(test::messages().empty());
    const SdcHeader untouched = test::sdc_header();
    EXPECT_EQ(untouched.Head | untouched.Tail | untouched.Written, 0u);

    test::set_sdc_indexes(3, 41, 1);
    EXPECT_EQ(Vond_shm_export_sdc(&n, out.data()), 0);
    EXPECT_EQ(test::count(2, "Vond_shm_export_sdc", "SHM not full. Read 0x2a (42) bytes from 0 \n"), 1);
    EXPECT_EQ(Vond_shm_export_sdc(nullptr, out.data()), -1);
    EXPECT_EQ(Vond_shm_export_sdc(&n, nullptr), -1);
    int32_t id = -5;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("alpha", &id), 0);
    EXPECT_EQ(test::count(5, "Vond_shm_periodic_register_sdc", "App alpha is registering id 0.\n"), 1);
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
    EXPECT_TRUE(std::equal(after.begin() + 524300, after.end(), before.begin() + 524300));
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + kRing, before.begin()));
}

}  // namespace
