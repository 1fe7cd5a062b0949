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
#include <random>
#include <string>
#include <vector>

#include "harness.h"

namespace {

constexpr int kSec = SHM_SEC_SDC;
constexpr uint32_t kRing = SDC_RING_SIZE;
using Bytes = std::vector<uint8_t>;

SdcHeader header() {
    SdcHeader h;
    EXPECT_EQ(Vond_shm_memread(kSec, &h, SDC_HEADER_OFFSET, sizeof h), 0);
    return h;
}
void set_indexes(uint32_t head, uint32_t tail, uint32_t written) {
    const uint32_t v[3] = {head, tail, written};
    ASSERT_EQ(Vond_shm_memwrite(kSec, v, SDC_HEADER_OFFSET, sizeof v), 0);
}
void set_last(int id, uint32_t last) {
    ASSERT_EQ(Vond_shm_memwrite(kSec, &last, SDC_HEADER_OFFSET + 12 + 25 * id + 21, 4), 0);
}
Bytes section() {
    Bytes b(SDC_RECOVERY_FILE_SIZE);
    EXPECT_EQ(Vond_shm_memread(kSec, b.data(), 0, int32_t(b.size())), 0);
    return b;
}
Bytes pattern(size_t n, uint32_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = uint8_t((i + seed) * 2654435761u >> 13);
    return b;
}
int append(const Bytes& b) {
    const uint32_t n = uint32_t(b.size());
    return Vond_shm_write_sdc(&n, b.data());
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
void write_file(const Bytes& b) {
    FILE* f = fopen(SDC_RECOVERY_FILE, "w");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(fwrite(b.data(), 1, b.size(), f), b.size());
    fclose(f);
}

TEST(SdcInit, WithoutFileSignsAFreshSectionOnce) {
    test::install_hook();
    EXPECT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "SDC recovery file doesn't exist"), 1);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Signature not valid.  Update it.\n"), 1);
    EXPECT_EQ(test::count(5, "Vond_shm_init_sdc", "Write Clean SDC Header success.\n"), 1);
    EXPECT_EQ(memcmp(header().Signature, "VondSDC", 8), 0);
    EXPECT_EQ(size(), 0u);

    set_indexes(0, 7, 1);
    test::clear_messages();
    EXPECT_EQ(Vond_shm_init_sdc(), 0);
    EXPECT_EQ(test::count(2, "Vond_shm_init_sdc", "SDC header Signature valid.\n"), 1);
    EXPECT_EQ(test::count(3, "Vond_shm_init_sdc", "Update it.\n"), 0);
    EXPECT_EQ(header().Tail, 7u);
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
        Bytes file = pattern(c.size, uint32_t(c.size));
        memset(file.data() + SDC_HEADER_OFFSET, 0, 12);
        memcpy(file.data() + 524500, c.signature, std::min<size_t>(8, c.size - 524500));
        write_file(file);
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
    const Bytes ring = pattern(kRing, 11);
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
        EXPECT_EQ(memcmp(header().Signature, "VondSDC", 8), 0);
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
    write_file(file);
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

TEST(SdcRing, AppendArithmetic) {
    const struct {
        uint32_t head, tail, written;  // before
        uint32_t n;
        uint32_t start;                // ring index of the first byte
        uint32_t new_head, new_tail, new_size;
    } cases[] = {
        {0, 0, 0, 1, 0, 0, 0, 1},
        {0, 0, 0, 10, 0, 0, 10, 11},
        {0, 0, 0, kRing, 0, 0, 0, 1},
        {0, 10, 1, 5, 11, 0, 15, 16},
        {0, 0, 1, 1, 1, 0, 1, 2},
        {0, kRing - 10, 1, 20, kRing - 9, 11, 10, kRing},     // wraps
        {0, kRing - 1, 1, 5, 0, 5, 4, kRing},                 // room 0
        {100, 99, 1, 1, 100, 101, 100, kRing},               // already full
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.tail << "+" << c.n);
        set_indexes(c.head, c.tail, c.written);
        const Bytes data = pattern(c.n, c.n);
        ASSERT_EQ(append(data), 0);
        const SdcHeader h = header();
        EXPECT_EQ(h.Head, c.new_head);
        EXPECT_EQ(h.Tail, c.new_tail);
        EXPECT_EQ(h.Written, 1u);
        EXPECT_EQ(size(), c.new_size);
        Bytes ring(kRing);
        ASSERT_EQ(Vond_shm_memread(kSec, ring.data(), 0, kRing), 0);
        for (uint32_t i = 0; i < c.n; ++i) ASSERT_EQ(ring[(c.start + i) % kRing], data[i]) << i;
    }
}

TEST(SdcRing, ExportIsOldestFirstAndClearKeepsTheTable) {
    test::install_hook();
    EXPECT_EQ(size(), 0u);  // attaches
    test::clear_messages();
    EXPECT_TRUE(export_all().empty());
    EXPECT_TRUE(test::messages().empty());
    // A numbered stream, longer than the ring, in uneven records; the first
    // record is one byte, so no index is skipped.
    const Bytes stream = pattern(kRing + 70000, 1);
    size_t at = 0;
    bool checked_before_wrap = false;
    for (size_t n = 1; at < stream.size(); n = n * 7 % 40000 + 1) {
        n = std::min(n, stream.size() - at);
        ASSERT_EQ(append(Bytes(stream.begin() + at, stream.begin() + at + n)), 0);
        at += n;
        if (at > 300000 && at < kRing && !checked_before_wrap) {
            EXPECT_EQ(export_all(), Bytes(stream.begin(), stream.begin() + at));
            checked_before_wrap = true;
        }
    }
    EXPECT_TRUE(checked_before_wrap);
    EXPECT_EQ(export_all(), Bytes(stream.end() - kRing, stream.end()));

    set_indexes(0, 41, 1);
    test::clear_messages();
    EXPECT_EQ(export_all().size(), 42u);
    EXPECT_EQ(test::count(2, "Vond_shm_export_sdc", "SHM not full. Read 0x2a (42) bytes from 0 \n"), 1);

    int32_t id;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("keeper", &id), 0);
    const Bytes before = section();
    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    const Bytes after = section();
    EXPECT_EQ(size(), 0u);
    EXPECT_TRUE(std::equal(after.begin() + 524300, after.end(), before.begin() + 524300));
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + kRing, before.begin()));
}

TEST(SdcRing, RefusedCounts) {
    test::install_hook();
    Bytes data(kRing + 1);
    for (uint32_t n : {0u, kRing + 1}) EXPECT_EQ(Vond_shm_write_sdc(&n, data.data()), -1);
    uint32_t one = 1;
    EXPECT_EQ(Vond_shm_write_sdc(&one, nullptr), -1);
    EXPECT_TRUE(test::messages().empty());
    EXPECT_EQ(size(), 0u);
}

TEST(SdcConsumers, Registration) {
    test::install_hook();
    set_indexes(3, 2, 1);  // full: registration starts at Head
    const char* names[] = {"alpha", "AAAAAAAAAAAAAAAAAAAAX", "c", "d", "e", "f", "g", "h"};
    for (int i = 0; i < 8; ++i) {
        int32_t id = -5;
        ASSERT_EQ(Vond_shm_periodic_register_sdc(names[i], &id), 0);
        EXPECT_EQ(id, i);
    }
    const SdcHeader h = header();
    EXPECT_EQ(h.SDCAppTable[0].iLast, 3u);
    EXPECT_EQ(memcmp(h.SDCAppTable[1].Name, "AAAAAAAAAAAAAAAAAAAA\0", 21), 0);
    const struct { const char* name; int32_t id; int result; } again[] = {
        {"alpha", 0, 0},
        {"AAAAAAAAAAAAAAAAAAAA", 1, 0},    // the 20 stored bytes and byte 20
        {"AAAAAAAAAAAAAAAAAAAAY", -1, -1}, // differs in byte 20: a ninth name
        {"i", -1, -1},
    };
    const Bytes before = section();
    for (const auto& c : again) {
        int32_t id = -5;
        EXPECT_EQ(Vond_shm_periodic_register_sdc(c.name, &id), c.result) << c.name;
        EXPECT_EQ(id, c.id) << c.name;
    }
    EXPECT_EQ(section(), before);
    EXPECT_EQ(test::count(5, "Vond_shm_periodic_register_sdc", "App alpha already using id 0.\n"), 1);
}

TEST(SdcConsumers, Polls) {
    test::install_hook();
    int32_t id;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("reader", &id), 0);
    Bytes out(SDC_POLL_BUFFER_SIZE);
    uint32_t n = 7;
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), 8), -1);
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), 1), -1);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(test::count(2, "Vond_shm_periodic_get_sdc", "Id 8 out of range\n"), 1);
    EXPECT_EQ(test::count(2, "Vond_shm_periodic_get_sdc", "Id 1 not registered \n"), 1);

    const Bytes first = pattern(1, 1), more = pattern(500, 2);
    ASSERT_EQ(append(first), 0);
    ASSERT_EQ(append(more), 0);
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), 0);
    ASSERT_EQ(n, 500u);  // index 0 is never delivered to a new consumer
    EXPECT_TRUE(std::equal(more.begin(), more.end(), out.begin()));
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), 0);
    EXPECT_EQ(n, 0u);

    // Wrapped since the last poll: the tail end of the ring, then the start;
    // the count covers the start only.
    const Bytes ring = pattern(kRing, 3);
    ASSERT_EQ(Vond_shm_memwrite(kSec, ring.data(), 0, kRing), 0);
    set_indexes(100, 99, 1);
    set_last(id, 524200);
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), 0);
    EXPECT_EQ(n, 100u);
    EXPECT_TRUE(std::equal(ring.begin() + 524201, ring.end(), out.begin()));
    EXPECT_TRUE(std::equal(ring.begin(), ring.begin() + 100, out.begin() + 87));
    EXPECT_EQ(header().SDCAppTable[id].iLast, 99u);

    // A read position that is no ring index is refused and left alone.
    set_last(id, kRing);
    EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), -1);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(header().SDCAppTable[id].iLast, kRing);
    EXPECT_EQ(test::count(2, "Vond_shm_periodic_get_sdc", "L=0x80000 out of range\n"), 1);
}

TEST(SdcConsumers, ConsumerProcessReceivesTheProducersStream) {
    int32_t id;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("follower", &id), 0);
    const Bytes stream = pattern(400000, 9);
    const pid_t producer = test::start_child([&] {
        // One byte first, so the ring has no skipped index.
        size_t at = 0;
        for (size_t n = 1; at < stream.size(); n = 1000) {
            n = std::min(n, stream.size() - at);
            if (append(Bytes(stream.begin() + at, stream.begin() + at + n)) != 0) return 1;
            at += n;
            usleep(50);
        }
        return 0;
    });
    Bytes got, out(SDC_POLL_BUFFER_SIZE);
    for (int polls = 0; got.size() < stream.size() - 1 && polls < 200000; ++polls) {
        uint32_t n = 0;
        ASSERT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), 0);
        got.insert(got.end(), out.begin(), out.begin() + n);
        if (n == 0) usleep(100);
    }
    EXPECT_EQ(test::wait_child(producer, 30).code, 0);
    EXPECT_EQ(got, Bytes(stream.begin() + 1, stream.end()));
}

// Whatever the header and the read positions hold, no call touches memory
// outside section 26 or the caller's buffers (the sanitized build checks the
// buffers, which have exactly their documented sizes).
TEST(SdcUntrusted, RandomHeadersStayInBounds) {
    std::mt19937 random(2024);
    const Bytes guard = pattern(gShmSecSize[25], 5), guard_after = pattern(gShmSecSize[27], 6);
    ASSERT_EQ(Vond_shm_memwrite(25, guard.data(), 0, int32_t(guard.size())), 0);
    ASSERT_EQ(Vond_shm_memwrite(27, guard_after.data(), 0, int32_t(guard_after.size())), 0);
    std::vector<uint8_t> poll(SDC_POLL_BUFFER_SIZE), all(SDC_EXPORT_BUFFER_SIZE);
    const Bytes data = pattern(kRing, 7);
    auto index = [&] {
        const uint32_t picks[] = {0, 1, kRing - 2, kRing - 1, kRing, 0xFFFFFFFF};
        return random() % 2 ? picks[random() % 6] : uint32_t(random() % kRing);
    };
    for (int round = 0; round < 300; ++round) {
        Bytes head(SDC_HEADER_SIZE);
        for (auto& b : head) b = uint8_t(random());
        for (int field = 0; field < 3; ++field) {
            const uint32_t v = field == 2 ? random() % 2 : index();
            memcpy(head.data() + 4 * field, &v, 4);
        }
        for (int app = 0; app < 8; ++app) {
            const uint32_t v = index();
            memcpy(head.data() + 12 + 25 * app + 21, &v, 4);
        }
        ASSERT_EQ(Vond_shm_memwrite(kSec, head.data(), SDC_HEADER_OFFSET, SDC_HEADER_SIZE), 0);
        for (int call = 0; call < 4; ++call) {
            uint32_t n = 1 + random() % kRing;
            int32_t id;
            int results[] = {
                Vond_shm_write_sdc(&n, data.data()),
                Vond_shm_export_sdc(&n, all.data()),
                Vond_shm_periodic_get_sdc(&n, poll.data(), random() % 9),
                Vond_shm_periodic_register_sdc(round % 2 ? "x" : "", &id),
            };
            for (int r : results) ASSERT_TRUE(r == 0 || r == -1);
            ASSERT_LE(n, kRing);
        }
    }
    Bytes check(guard.size());
    ASSERT_EQ(Vond_shm_memread(25, check.data(), 0, int32_t(check.size())), 0);
    EXPECT_EQ(check, guard);
    check.resize(guard_after.size());
    ASSERT_EQ(Vond_shm_memread(27, check.data(), 0, int32_t(check.size())), 0);
    EXPECT_EQ(check, guard_after);
}

}  // namespace
