// The C++ binding, built as its users build it: without exceptions and RTTI. The consumer's stream across a
// wrap, an overrun, a clear and a moved position; the lock's ownership.
#undef NDEBUG  // the lock's same-thread check is a debug-build assert
#include "libshm.hpp"

#include <gtest/gtest.h>
#include <sys/sem.h>

#include <functional>
#include <thread>
#include <vector>

#include "harness.h"

namespace {

using Bytes = std::vector<uint8_t>;
using libshm::sdc::Consumer;

void sdc_write(const Bytes& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const uint32_t n = uint32_t(std::min<size_t>(bytes.size() - done, SDC_RING_SIZE));
        ASSERT_EQ(Vond_shm_write_sdc(&n, bytes.data() + done), 0);
        done += n;
    }
}
Bytes text(const char* s) { return Bytes(s, s + std::strlen(s)); }
Bytes data_of(const libshm::sdc::Poll& p) {
    const auto* b = reinterpret_cast<const uint8_t*>(p.data.data());
    return Bytes(b, b + p.data.size());
}

// Each row starts from an emptied ring holding one byte ("#": a one-byte first write keeps Tail exact) and a
// consumer registered after it; `run` writes, polls or clears, and returns what the checked poll must give.
TEST(LibshmHpp, ConsumerDeliversExactlyTheNewBytes) {
    const Bytes pattern = test::pattern(600000, 7);
    const struct { const char* what; std::function<Bytes(Consumer&)> run; bool cleared; uint64_t overrun;
                   bool moved; uint64_t offset; } rows[] = {
        {"a poll after the writer went round the ring's end",
         [&](Consumer& c) {
             sdc_write(Bytes(pattern.begin(), pattern.begin() + SDC_RING_SIZE - 100));
             EXPECT_EQ(c.poll()->data.size(), SDC_RING_SIZE - 100u);
             const Bytes across(pattern.begin() + 1000, pattern.begin() + 1300);
             sdc_write(across);
             return across;
         },
         false, 0, false, 1 + SDC_RING_SIZE - 100},
        {"a writer that lapped the consumer",  // 600000 bytes: Tail at index 75712, ahead of the position 0
         [&](Consumer&) {
             sdc_write(pattern);
             return Bytes(pattern.end() - (600000 & (SDC_RING_SIZE - 1)), pattern.end());
         },
         false, SDC_RING_SIZE, false, 1 + 600000 - (600000 & (SDC_RING_SIZE - 1))},
        {"a clear and new records between two polls",
         [&](Consumer& c) {
             sdc_write(text("before\n"));
             EXPECT_EQ(data_of(*c.poll()), text("before\n"));
             EXPECT_EQ(Vond_shm_clear_sdc(), 0);
             sdc_write(text("#"));
             sdc_write(text("after\n"));
             return text("#after\n");
         },
         true, 0, false, 0},
        {"another poller of the same slot",
         [&](Consumer& c) {
             sdc_write(text("taken\n"));
             uint32_t n = 0;
             Bytes elsewhere(SDC_POLL_BUFFER_SIZE);
             EXPECT_EQ(Vond_shm_periodic_get_sdc(&n, elsewhere.data(), uint32_t(c.id())), 0);
             sdc_write(text("left\n"));
             return text("#taken\nleft\n");  // the whole ring again, from its oldest byte
         },
         false, 0, true, 0},
    };
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(Vond_shm_memset(SHM_SEC_SDC, 0, SDC_HEADER_OFFSET, SDC_HEADER_SIZE - 8), 0);  // signature kept
        sdc_write(text("#"));
        auto consumer = Consumer::open("reader");
        ASSERT_TRUE(consumer) << consumer.result().meaning();
        const Bytes expected = row.run(*consumer);
        const auto p = consumer->poll();
        ASSERT_TRUE(p) << p.result().call() << ": " << p.result().meaning();
        EXPECT_TRUE(data_of(*p) == expected) << p->data.size() << " bytes, " << expected.size() << " expected";
        EXPECT_EQ(p->cleared, row.cleared);
        EXPECT_EQ(p->overrun, row.overrun);
        EXPECT_EQ(p->moved, row.moved);
        EXPECT_EQ(p->offset, row.offset);
        const auto after = consumer->poll();  // caught up: nothing new, nothing happened
        ASSERT_TRUE(after);
        EXPECT_TRUE(after->data.empty() && !after->cleared && !after->moved && after->overrun == 0);
    }
}

// close() frees the slot only while it holds the consumer's name.
TEST(LibshmHpp, ConsumerClosesOnlyItsOwnSlot) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    auto mine = Consumer::open("mine");
    ASSERT_TRUE(mine);
    auto freed = mine->close();
    ASSERT_TRUE(freed && *freed);
    EXPECT_EQ(test::sdc_header().SDCAppTable[mine->id()].Name[0], 0);
    auto stale = Consumer::open("mine");
    ASSERT_TRUE(stale && stale->id() == mine->id());  // takes the freed slot
    test::put(SHM_SEC_SDC, SDC_HEADER_OFFSET + 12 + 25 * stale->id(), 'x');  // renamed under it: "xine"
    freed = stale->close();
    ASSERT_TRUE(freed);
    EXPECT_FALSE(*freed);
    EXPECT_STREQ(test::sdc_header().SDCAppTable[stale->id()].Name, "xine");
    EXPECT_FALSE(stale->poll());  // closed
}

// Exactly one owner releases a lock: a moved-from lock releases nothing, a lock assigned over releases what it
// held. A release on another thread is caught in a debug build.
TEST(LibshmHpp, SectionLockHasOneOwner) {
    const auto member = [](int section) { return semctl(gShmSecSemId, section - 1, GETVAL); };
    {
        auto taken = libshm::SectionLock::take(SHM_SEC_PLATFORM_ID);
        ASSERT_TRUE(taken);
        libshm::SectionLock held = std::move(*taken);
        EXPECT_FALSE(taken->held());
        EXPECT_TRUE(taken->release());  // nothing to release
        EXPECT_EQ(member(SHM_SEC_PLATFORM_ID), 0);
        auto other = libshm::SectionLock::take(SHM_SEC_TIME);
        ASSERT_TRUE(other);
        EXPECT_EQ(other->bytes().size(), size_t(gShmSecSize[SHM_SEC_TIME]));
        held = std::move(*other);
        EXPECT_EQ(member(SHM_SEC_PLATFORM_ID), 1);
        EXPECT_EQ(member(SHM_SEC_TIME), 0);
    }
    EXPECT_EQ(test::locks_left_taken(), "");
    EXPECT_DEATH(
        {
            auto lock = libshm::SectionLock::take(SHM_SEC_PLATFORM_ID);
            std::thread([&] { (void)lock->release(); }).join();
        },
        "released on the thread that took it");
}

}  // namespace
