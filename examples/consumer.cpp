// consumer: a C++ client written against libshm.hpp, built as a controller
// daemon is (no exceptions, no RTTI). It reads the platform record under its
// section's lock, then follows the SDC ring as a registered consumer through
// a clear and an overrun, and frees its slot.
//
//   c++ -std=c++20 -fno-exceptions -fno-rtti consumer.cpp $(pkg-config --cflags --libs libshm) -o consumer
//
// Every call that can fail returns a libshm::Result or libshm::Expected:
// the C call, its code and what the code means.
#include <cstdio>
#include <string_view>
#include <vector>

#include <libshm.hpp>

namespace {

int fail(const libshm::Result& r) {
    std::fprintf(stderr, "consumer: %s returned %lld: %s\n", r.call(), static_cast<long long>(r.code()),
                 r.meaning());
    return 1;
}

// Appends n bytes to the ring, as a producer does.
bool produce(std::string_view bytes) {
    const auto n = static_cast<uint32_t>(bytes.size());
    return Vond_shm_write_sdc(&n, bytes.data()) == 0;
}

// One poll: what happened to the stream, then the records it delivered.
bool show(libshm::sdc::Consumer& consumer, bool quiet = false) {
    const libshm::Expected<libshm::sdc::Poll> p = consumer.poll();
    if (!p) {
        fail(p.result());
        return false;
    }
    if (p->cleared) std::printf("(the ring was cleared: what it holds now follows)\n");
    if (p->moved) std::printf("(another poller moved this slot's position)\n");
    if (p->overrun > 0)
        std::printf("(overrun: at least %llu bytes were overwritten before they were read)\n",
                    static_cast<unsigned long long>(p->overrun));
    if (quiet) {
        std::printf("%zu bytes\n", p->data.size());
        return true;
    }
    std::string_view text(reinterpret_cast<const char*>(p->data.data()), p->data.size());
    for (size_t end; (end = text.find('\n')) != text.npos; text.remove_prefix(end + 1))
        if (end > 0) std::printf("%.*s\n", static_cast<int>(end), text.data());
    return true;
}

}  // namespace

int main() {
    {
        // Several fields of one record, consistent with each other: one lock
        // around the reads. It is released at the end of the scope, whatever
        // path leaves it.
        const libshm::Expected<libshm::SectionLock> lock = libshm::SectionLock::take(SHM_SEC_PLATFORM_ID);
        if (!lock) return fail(lock.result());
        const std::span<const std::byte> record = lock->bytes();
        std::printf("platform type %d, system id %d, generation %d\n", std::to_integer<int>(record[4]),
                    std::to_integer<int>(record[5]), std::to_integer<int>(record[8]));
        const std::optional<uint32_t> progress = libshm::load_le<uint32_t>(record, 0);  // little-endian, unaligned
        std::printf("progress word 0x%08x\n", progress.value_or(0));
    }

    libshm::Expected<libshm::sdc::Consumer> consumer = libshm::sdc::Consumer::open("cxx-consumer");
    if (!consumer) return fail(consumer.result());
    // A new registration starts at the ring's oldest byte: catch up first.
    if (const auto earlier = consumer->poll(); !earlier) return fail(earlier.result());

    if (!produce("record A\n") || !produce("record B\n") || !show(*consumer)) return 1;

    // Cleared under it: the consumer goes on with the new content, never the
    // old ring's bytes. A producer starts an empty ring with one byte.
    if (Vond_shm_clear_sdc() != 0 || !produce("\n") || !produce("record C\n") || !show(*consumer)) return 1;

    // More than a ring between two polls: the loss is reported (a lower
    // bound), then the newest bytes delivered.
    const std::vector<char> filler(600000, '.');
    if (!produce(std::string_view(filler.data(), 300000)) || !produce(std::string_view(filler.data(), 300000)))
        return 1;
    if (!show(*consumer, true)) return 1;

    const libshm::Expected<bool> freed = consumer->close();
    if (!freed) return fail(freed.result());
    std::printf("slot %s\n", *freed ? "freed" : "already taken by another name");
    return 0;
}
