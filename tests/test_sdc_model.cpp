// The SDC ring against a reference model of its documented arithmetic: random
// writes, exports, sizes, clears, registrations and polls on both, compared
// after every step (results, sizes, exported and polled bytes, the header).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>

#include "harness.h"

namespace {

constexpr uint32_t kRing = SDC_RING_SIZE;
using Bytes = std::vector<uint8_t>;

// The ring as the stored format defines it, kept as plain state.
struct Model {
    Bytes ring = Bytes(kRing);
    uint32_t head = 0, tail = 0, written = 0;
    std::array<std::array<char, 21>, 8> names{};
    std::array<uint32_t, 8> last{};

    bool full() const { return (tail + 1) % kRing == head; }
    bool empty() const { return head == 0 && tail == 0 && written == 0; }
    uint32_t size() const { return full() ? kRing : empty() ? 0 : tail + 1; }

    void write(const Bytes& data) {
        const uint64_t start = empty() ? 0 : uint64_t(tail) + 1;
        for (size_t i = 0; i < data.size(); ++i) ring[(start + i) % kRing] = data[i];
        const bool wraps = start + data.size() > kRing || full();
        const bool first_single = data.size() == 1 && tail == 0 && written == 0;
        tail = first_single ? 0 : uint32_t((tail + data.size()) % kRing);
        if (wraps)
            head = (tail + 1) % kRing;
        else
            written = 1;
    }
    // n bytes from index `from`, wrapping at the ring's end.
    Bytes span(uint32_t from, uint32_t n) const {
        from %= kRing;
        const uint32_t first = std::min(n, kRing - from);
        Bytes out(ring.begin() + from, ring.begin() + from + first);
        out.insert(out.end(), ring.begin(), ring.begin() + (n - first));
        return out;
    }
    Bytes content() const { return full() ? span(head, kRing) : span(0, empty() ? 0 : tail + 1); }
    // The id a name gets, or -1; registers it when new. Names compare over 21
    // bytes up to the first zero, and are stored as their first 20.
    int32_t enroll(const std::string& name) {
        for (int i = 0; i < 8; ++i)
            if (std::strncmp(name.c_str(), names[i].data(), 21) == 0) return i;
        for (int i = 0; i < 8; ++i) {
            if (names[i][0] != 0) continue;
            std::strncpy(names[i].data(), name.c_str(), 20);
            last[i] = head;
            return i;
        }
        return -1;
    }
    // What a poll of a registered id hands over: the bytes after its read
    // position up to Tail, and the count it reports (Tail + 1 once wrapped).
    std::pair<Bytes, uint32_t> poll(int id) {
        const uint32_t from = last[id], n = (tail + kRing - from) % kRing;
        last[id] = tail;
        return {span(from + 1, n), tail >= from ? n : tail + 1};
    }
};

TEST(SdcModel, RandomOperationsAgreeWithTheModel) {
    Model model;
    std::mt19937 random(20261121);
    const std::string pool[] = {"logger", "exporter", "a", "bb", "", "AAAAAAAAAAAAAAAAAAAAB",
                                "AAAAAAAAAAAAAAAAAAAAC", "twenty-characters-ab", "x", "y", "z"};
    Bytes out(kRing);
    uint32_t sequence = 0;
    int operations = 0, wraps = 0, polls_delivered = 0;
    const int count = test::rounds(12000);
    for (; operations < count; ++operations) {
        SCOPED_TRACE(operations);
        const uint32_t pick = random() % 100;
        if (pick < 45) {
            // Mostly small records, now and then a large one or a whole ring.
            const uint32_t roll = random() % 100;
            const uint32_t n = roll < 15 ? 1
                               : roll < 80 ? 1 + random() % 2000
                               : roll < 97 ? 1 + random() % 60000
                                           : kRing - random() % 3;
            Bytes data(n);
            for (auto& b : data) b = uint8_t(sequence++ * 131 >> 3);
            const bool was_full = model.full();
            ASSERT_EQ(Vond_shm_write_sdc(&n, data.data()), 0);
            model.write(data);
            wraps += !was_full && model.full();
        } else if (pick < 55) {
            uint32_t n = 0;
            ASSERT_EQ(Vond_shm_export_sdc(&n, out.data()), 0);
            const Bytes want = model.content();
            ASSERT_EQ(n, want.size());
            ASSERT_TRUE(n == 0 || std::memcmp(out.data(), want.data(), n) == 0);
        } else if (pick < 62) {
            uint32_t n = 0;
            ASSERT_EQ(Vond_shm_get_size_sdc(&n), 0);
            ASSERT_EQ(n, model.size());
        } else if (pick < 65) {
            ASSERT_EQ(Vond_shm_clear_sdc(), 0);
            model.head = model.tail = model.written = 0;
        } else if (pick < 72) {
            const std::string& name = pool[random() % std::size(pool)];
            int32_t id = 99;
            const int32_t want = model.enroll(name);
            ASSERT_EQ(Vond_shm_periodic_register_sdc(name.c_str(), &id), want < 0 ? -1 : 0);
            ASSERT_EQ(id, want);
        } else {
            const uint32_t id = random() % 9;
            uint32_t n = 77;
            const bool usable = id < 8 && model.names[id][0] != 0;
            ASSERT_EQ(Vond_shm_periodic_get_sdc(&n, out.data(), id), usable ? 0 : -1);
            if (usable) {
                const auto [want, count] = model.poll(int(id));
                ASSERT_EQ(n, count);
                ASSERT_TRUE(want.empty() || std::memcmp(out.data(), want.data(), want.size()) == 0);
                polls_delivered += !want.empty();
            } else {
                ASSERT_EQ(n, 0u);
            }
        }
        SdcHeader h;
        ASSERT_EQ(Vond_shm_memread(SHM_SEC_SDC, &h, SDC_HEADER_OFFSET, sizeof h), 0);
        ASSERT_EQ(std::vector<uint32_t>({h.Head, h.Tail, h.Written}),
                  std::vector({model.head, model.tail, model.written}));
        for (int i = 0; i < 8; ++i) {
            ASSERT_EQ(std::memcmp(h.SDCAppTable[i].Name, model.names[i].data(), 21), 0) << i;
            if (model.names[i][0] != 0) {
                ASSERT_EQ(h.SDCAppTable[i].iLast, model.last[i]) << i;
            }
        }
    }
    // The sequence must actually have exercised the interesting paths.
    EXPECT_GT(wraps, 3);
    EXPECT_GT(polls_delivered, 100);
}

}  // namespace
