// Test helpers: a capturing log hook, a /dev/log capture socket, and forked
// children with a time limit. Every test binary runs inside tests/sandbox.sh,
// one test case per process, so each case starts with a fresh store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "libshm.h"

namespace test {

struct Message {
    int level;
    int module;
    std::string text;  // fully formatted, "file.line.function: ..."
};

// Runs the library's one-time hook lookup, then installs the capturing hook,
// so the lookup cannot overwrite it.
void install_hook();
std::vector<Message> messages();
void clear_messages();
// Messages from `function` at `level` whose text ends with `tail`.
int count(int level, std::string_view function, std::string_view tail);

// A datagram socket bound at /dev/log, where syslog() sends.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    // Every datagram received within `wait_ms` of the last one.
    std::vector<std::string> drain(int wait_ms = 200);

private:
    int fd_ = -1;
};

struct ChildResult {
    bool timed_out = false;
    bool exited = false;
    int code = -1;
    int signal = 0;
};
// Runs body() in a forked child whose exit code is body's result; a child
// still running after timeout_s seconds is killed and reported as timed out.
ChildResult run_child(const std::function<int()>& body, int timeout_s = 10);
pid_t start_child(const std::function<int()>& body);
ChildResult wait_child(pid_t pid, int timeout_s = 10);

// Semaphore values of the section set (34 members).
std::vector<int> section_semaphore_values();

void touch(const char* path);

// A child that rewrites the little-endian 16-bit field at `offset` of
// `section`, in place and without the lock, alternating `a` and `b` until it
// is killed: a writer that changes a field under a reader's feet.
pid_t start_u16_flipper(int32_t section, int32_t offset, uint16_t a, uint16_t b);

// Writes through the locked write; fails the test if the write does.
void put(int32_t section, int32_t offset, uint8_t byte);
void put_bytes(int32_t section, int32_t offset, const std::vector<uint8_t>& bytes);
void put_le32(int32_t section, int32_t offset, uint32_t value);

// The do-nothing hook, and an attach with it installed (after the lookup).
int quiet_hook(int32_t level, int32_t module, const char* format, ...);
void attach_quietly();

// "" when every member of both store sets is 1 (read by raw IPC, so the
// caller need not be attached), else which member is not.
std::string locks_left_taken();
// Removes the section set: every section lock fails from here on.
void break_section_locks();

// n bytes that differ with the seed, for streams and ring contents.
std::vector<uint8_t> pattern(size_t n, uint32_t seed);
void write_file(const char* path, const std::vector<uint8_t>& bytes);

// The SDC header in section 26, and a consumer's read position in it.
SdcHeader sdc_header();
void set_sdc_indexes(uint32_t head, uint32_t tail, uint32_t written);
constexpr int32_t sdc_last_offset(int32_t id) { return SDC_HEADER_OFFSET + 12 + 25 * id + 21; }

// The number of rounds of a randomised or racing loop: SHM_TEST_ROUNDS
// percent of n (1 to 100; at least one round). Where a round costs 20 times
// more, under the sanitizers (40 by default) and on the emulated ARM system
// (whose init sets 40), the reports come from paths the first rounds already
// reach; the full counts, for the statistics, run in the optimised builds.
int rounds(int n);

}  // namespace test
