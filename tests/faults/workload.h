// A mixed store workload that many processes or threads run at once, and the
// invariants it leaves behind. Workers share a Board in MAP_SHARED memory
// (threads simply share it), each owns some progress bits, some wear records
// and a private slice, and all of them contend on the same section locks.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "libshm.h"

namespace faults {

constexpr int kMaxWorkers = 32;
constexpr int kConsumers = 3;
constexpr uint32_t kRequiredProgress = 0x00402062;  // bits 1, 5, 6, 13, 22
constexpr uint32_t kRing = SDC_RING_SIZE;

// Where the workload writes. Area 0 and area 1 use the same sections (so the
// same locks) but different bytes, which lets processes that are killed in
// the middle of a write work beside processes whose bytes are verified.
constexpr int32_t kBlockSection = 8;    // uniform 4096-byte blocks
constexpr int32_t kBlockSize = 4096;
constexpr int kBlocksPerArea = 3;
constexpr int32_t kRecordSection = SHM_SEC_DIMM_WEAR;
constexpr int32_t kRecordOffset = 8240;  // after the wear table
constexpr int32_t kRecordSize = 40;
constexpr int kRecordsPerArea = 32;
constexpr int32_t kPrivateSection = 32;  // one 16 KiB slice per worker
constexpr int32_t kSliceSize = 16384;

enum class Role : int { kPlain, kProducer, kConsumer };

struct WorkerResult {
    std::atomic<uint64_t> ops;
    std::atomic<uint64_t> sdc_bytes;  // appended (producer) or verified (consumer)
    int8_t progress[32];              // last state set for each owned bit, -1 never set
    int16_t wear[SHM_DIMM_WEAR_RECORDS];  // last wear stored in each owned record, -1 never
    char failure[200];                // first invariant violation, empty if none
};

struct Board {
    std::atomic<int> stop;
    std::atomic<int> ready;
    std::atomic<uint64_t> produced;  // stream bytes appended so far
    std::atomic<int> producer_done;
    std::atomic<uint64_t> consumed[kConsumers];  // stream position verified through
    int32_t consumer_id[kConsumers];
    uint32_t consumer_start[kConsumers];  // iLast given at registration
    WorkerResult results[kMaxWorkers];
};

// A zeroed Board in anonymous shared memory, inherited by forked children.
Board* map_board();
void unmap_board(Board* board);

struct Plan {
    int worker = 0;       // 0 .. workers - 1
    int workers = 1;
    Role role = Role::kPlain;
    int consumer = 0;     // index of a consumer role
    int area = 0;         // which bytes of the shared sections to use
    bool verify = true;   // check what is read back (off for processes that get killed)
    uint32_t seed = 1;
};

// Runs mixed operations until board.stop is set (a consumer then reads what
// is still outstanding). Returns 0, or 1 after writing the first violation
// into its result's failure text.
int run_worker(Board& board, const Plan& plan);

// Registers the consumers and starts the stream; call once in a process that
// then exits or keeps working, before any worker starts.
bool prepare_sdc(Board& board);

// Checks, after every worker has stopped, what the workers of `area` left
// behind: blocks uniform, records whole, each owner's progress bits and wear
// records exactly as it last set them, summary bit consistent, every lock
// free. `owners` are the workers whose bits and records are checked.
// Returns the violations found (empty when all hold).
std::vector<std::string> check_store(const Board& board, int workers, const std::vector<int>& owners,
                                     int area);

// Every semaphore of both sets at 1, by raw IPC (the caller need not be
// attached). Returns a description of the first one that is not.
std::string locks_left_taken();

bool owns_bit(int worker, int workers, int bit);
bool owns_record(int worker, int workers, int record);

}  // namespace faults
