// A C++ user of the installed library, found through find_package(libshm),
// through the C++ binding libshm.hpp and built as the controller's daemons
// are: without exceptions or RTTI.
#include <libshm.hpp>

#include <cstdio>
#include <cstring>

namespace {

int fail(const libshm::Result& r) {
    std::fprintf(stderr, "C++ consumer: %s returned %lld: %s\n", r.call(), static_cast<long long>(r.code()),
                 r.meaning());
    return 1;
}

}  // namespace

int main() {
    const char text[] = "consumer++";
    char back[sizeof text] = {};
    if (libshm::Result r = libshm::write(SHM_SEC_SDC, 200, std::as_bytes(std::span(text))); !r) return fail(r);
    if (libshm::Result r = libshm::read(SHM_SEC_SDC, 200, std::as_writable_bytes(std::span(back))); !r)
        return fail(r);
    if (std::memcmp(text, back, sizeof text) != 0) return 1;
    {
        const libshm::Expected<libshm::SectionLock> lock = libshm::SectionLock::take(SHM_SEC_SDC);
        if (!lock) return fail(lock.result());
        if (std::memcmp(lock->bytes().data() + 200, text, sizeof text) != 0) return 1;
    }
    // The ring: a consumer registered on it gets exactly what is written after.
    auto consumer = libshm::sdc::Consumer::open("installcheck");
    if (!consumer) return fail(consumer.result());
    const uint32_t one = 1, n = 6;
    if (Vond_shm_write_sdc(&one, "\n") != 0 || Vond_shm_write_sdc(&n, "ring++") != 0) return 1;
    const auto polled = consumer->poll();
    if (!polled) return fail(polled.result());
    const auto freed = consumer->close();
    if (!freed || !*freed) return 1;
    std::printf("C++ consumer: %s, %.*s\n", back, static_cast<int>(polled->data.size()),
                reinterpret_cast<const char*>(polled->data.data()));
    return 0;
}
