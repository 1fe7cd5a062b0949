// One section's lock held for a scope, with the section's bytes in place: for
// the tool's read-compare-write steps (freeing a slot only while it still
// holds the name that was found, resetting the SDC header together with every
// read position), which the library's one-copy reads and writes cannot make
// atomic.
#pragma once

#include <cstdint>

#include "libshm.hpp"

namespace shmtool {

class SectionLock {
public:
    // Attaches (creating nothing a read-only command would not), takes the
    // section's lock through the library (so --timeout limits the wait) and
    // finds the section's base; failure ends the command with status 1.
    // The lock itself is the C++ binding's (libshm.hpp), released when this
    // object goes.
    explicit SectionLock(int section);
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;

    uint8_t* bytes() const { return reinterpret_cast<uint8_t*>(lock_.bytes().data()); }

private:
    libshm::SectionLock lock_;
};

// A failure of the binding's SectionLock::take, or of a call of the binding
// that takes a lock, as the tool says it: status 1.
[[noreturn]] void lock_failure(const libshm::Result& result, int section);

// Marks a library call that changes the store (lock_wait.cpp): --timeout
// limits its first take of a section lock only; once the call holds a lock it
// runs to its end, its later takes waiting as long as they must.
class WholeCall {
public:
    WholeCall();
    ~WholeCall();
    WholeCall(const WholeCall&) = delete;
    WholeCall& operator=(const WholeCall&) = delete;
};

}  // namespace shmtool
