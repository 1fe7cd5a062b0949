// One section's lock held for a scope, with the section's bytes in place: for
// the tool's read-compare-write steps (freeing a slot only while it still
// holds the name that was found, resetting the SDC header together with every
// read position), which the library's one-copy reads and writes cannot make
// atomic.
#pragma once

#include <cstdint>

namespace shmtool {

class SectionLock {
public:
    // Attaches (creating nothing a read-only command would not), takes the
    // section's lock through the library (so --timeout limits the wait) and
    // finds the section's base; failure ends the command with status 1.
    explicit SectionLock(int section);
    ~SectionLock();
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;

    uint8_t* bytes() const { return base_; }

private:
    int section_;
    uint8_t* base_ = nullptr;
};

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
