#include "workload.h"

#include <sched.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <random>

namespace faults {
namespace {

uint32_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return static_cast<uint32_t>(x ^ (x >> 31));
}

// Byte p of the producer's numbered stream.
uint8_t stream_byte(uint64_t p) { return static_cast<uint8_t>(mix(p)); }

uint32_t checksum(const uint8_t* bytes, size_t n) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; ++i) h = (h ^ bytes[i]) * 16777619u;
    return h;
}

// A 40-byte record: writer, sequence, 28 bytes derived from both, checksum.
void make_record(uint8_t (&r)[kRecordSize], uint32_t writer, uint32_t seq) {
    std::memcpy(r, &writer, 4);
    std::memcpy(r + 4, &seq, 4);
    for (int i = 0; i < 28; ++i) r[8 + i] = static_cast<uint8_t>(mix((uint64_t{writer} << 32 | seq) + i));
    const uint32_t sum = checksum(r, 36);
    std::memcpy(r + 36, &sum, 4);
}

bool record_whole(const uint8_t (&r)[kRecordSize]) {
    if (std::all_of(r, r + kRecordSize, [](uint8_t b) { return b == 0; })) return true;  // never written
    uint32_t writer, seq;
    std::memcpy(&writer, r, 4);
    std::memcpy(&seq, r + 4, 4);
    uint8_t expected[kRecordSize];
    make_record(expected, writer, seq);
    return std::memcmp(expected, r, kRecordSize) == 0;
}

bool uniform(const uint8_t* bytes, size_t n) {
    return std::all_of(bytes, bytes + n, [&](uint8_t b) { return b == bytes[0]; });
}

int32_t wear_offset(int record) { return SHM_DIMM_WEAR_OFFSET + SHM_DIMM_WEAR_RECORD_SIZE * record; }

// Wear record as the workload leaves it: zero except the float at byte 28.
bool wear_record_is(const uint8_t* r, int wear) {
    float stored;
    std::memcpy(&stored, r + 28, 4);
    for (int i = 0; i < SHM_DIMM_WEAR_RECORD_SIZE; ++i)
        if ((i < 28 || i >= 32) && r[i] != 0) return false;
    return wear < 0 ? stored == 0.0f : stored == static_cast<float>(wear);
}

class Worker {
public:
    Worker(Board& board, const Plan& plan)
        : board_(board), plan_(plan), result_(board.results[plan.worker]), random_(plan.seed) {
        for (int bit = 1; bit <= 31; ++bit)
            if (owns_bit(plan.worker, plan.workers, bit)) bits_.push_back(bit);
        for (int n = 0; n < SHM_DIMM_WEAR_RECORDS; ++n)
            if (owns_record(plan.worker, plan.workers, n)) records_.push_back(n);
        if (plan.role == Role::kConsumer) poll_buffer_.resize(SDC_POLL_BUFFER_SIZE);
    }

    int run() {
        // The explicit lock does not attach; every other call would.
        if (Vond_shm_init_shm() != 0) return fail("attach failed"), 1;
        bool ok = true;
        while (ok && board_.stop.load(std::memory_order_acquire) == 0) {
            ok = step();
            result_.ops.fetch_add(1, std::memory_order_relaxed);
        }
        // Also after a failure, so that the consumers' final reads end.
        if (plan_.role == Role::kProducer) board_.producer_done.store(1, std::memory_order_release);
        if (ok && plan_.role == Role::kConsumer) ok = drain();
        return ok ? 0 : 1;
    }

private:
    bool fail(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (result_.failure[0] == '\0') {
            va_list args;
            va_start(args, format);
            std::vsnprintf(result_.failure, sizeof result_.failure, format, args);
            va_end(args);
        }
        return false;
    }

    bool counter_is(int expected, const char* where) {
        const SHML_per_thread_data* record = SHML_get_per_thread_data();
        if (record == nullptr || record->recursion != expected)
            return fail("recursion counter %d %s, expected %d", record ? record->recursion : -99, where,
                        expected);
        return true;
    }

    int32_t block_offset() {
        return (plan_.area * kBlocksPerArea + static_cast<int>(random_() % kBlocksPerArea)) * kBlockSize;
    }

    bool step() {
        switch (random_() % 9) {
            case 0: return write_block();
            case 1: return read_block();
            case 2: return read_block_twice_under_explicit_lock();
            case 3: return write_record();
            case 4: return read_record();
            case 5: return set_progress();
            case 6: return update_wear();
            case 7: return private_slice();
            default: return sdc();
        }
    }

    bool write_block() {
        std::memset(block_, static_cast<int>(random_()), kBlockSize);
        if (Vond_shm_memwrite(kBlockSection, block_, block_offset(), kBlockSize) != 0)
            return fail("block write failed");
        return true;
    }

    bool read_block() {
        if (Vond_shm_memread(kBlockSection, block_, block_offset(), kBlockSize) != 0)
            return fail("block read failed");
        if (plan_.verify && !uniform(block_, kBlockSize)) return fail("locked read saw a torn block");
        return true;
    }

    bool read_block_twice_under_explicit_lock() {
        const int32_t offset = block_offset();
        if (Vond_shm_lock_shm(kBlockSection) != 0) return fail("explicit lock failed");
        bool ok = counter_is(1, "while holding a lock");
        Vond_shm_memread_unlocked(kBlockSection, block_, offset, kBlockSize);
        sched_yield();
        Vond_shm_memread_unlocked(kBlockSection, second_, offset, kBlockSize);
        if (Vond_shm_unlock_shm(kBlockSection) != 0) return fail("explicit unlock failed");
        ok = ok && counter_is(0, "after the unlock");
        if (ok && plan_.verify && (std::memcmp(block_, second_, kBlockSize) != 0 || !uniform(block_, kBlockSize)))
            return fail("a write got in while the explicit lock was held");
        return ok;
    }

    int32_t record_offset() {
        return kRecordOffset +
               kRecordSize * (plan_.area * kRecordsPerArea + static_cast<int>(random_() % kRecordsPerArea));
    }

    bool write_record() {
        uint8_t r[kRecordSize];
        make_record(r, static_cast<uint32_t>(plan_.worker), ++sequence_);
        if (Vond_shm_memwrite(kRecordSection, r, record_offset(), kRecordSize) != 0)
            return fail("record write failed");
        return true;
    }

    bool read_record() {
        uint8_t r[kRecordSize];
        const int32_t offset = record_offset();
        if (Vond_shm_memread(kRecordSection, r, offset, kRecordSize) != 0) return fail("record read failed");
        if (plan_.verify && !record_whole(r)) return fail("torn record at offset %d", static_cast<int>(offset));
        return true;
    }

    bool set_progress() {
        if (bits_.empty()) return true;
        const int bit = bits_[random_() % bits_.size()];
        const int set = random_() % 4 != 0;  // mostly set, so the summary bit comes and goes
        if (Vond_set_quorx_progress(bit, set) != 0) return fail("progress bit %d not stored", bit);
        result_.progress[bit] = static_cast<int8_t>(set);
        uint32_t word = 0;
        if (Vond_shm_memread(SHM_SEC_PLATFORM_ID, &word, 0, 4) != 0) return fail("progress read failed");
        if (!plan_.verify) return true;
        if (((word & 1u) != 0) != ((word & kRequiredProgress) == kRequiredProgress))
            return fail("summary bit disagrees with the word 0x%08x", word);
        for (int b : bits_)
            if (result_.progress[b] >= 0 && ((word >> b) & 1u) != static_cast<uint32_t>(result_.progress[b]))
                return fail("own progress bit %d lost (word 0x%08x)", b, word);
        return true;
    }

    bool update_wear() {
        if (records_.empty()) return true;
        const int n = records_[random_() % records_.size()];
        const int wear = static_cast<int>(random_() % 256);
        const uint8_t list[6] = {1, static_cast<uint8_t>(n / 48), static_cast<uint8_t>(n % 48 / 6),
                                 static_cast<uint8_t>(n % 6), 0x0E, static_cast<uint8_t>(wear)};
        if (updateDIMMWearLevel(list) != 0) return fail("wear update of record %d failed", n);
        result_.wear[n] = static_cast<int16_t>(wear);
        uint8_t r[SHM_DIMM_WEAR_RECORD_SIZE];
        if (Vond_shm_memread(SHM_SEC_DIMM_WEAR, r, wear_offset(n), sizeof r) != 0)
            return fail("wear read failed");
        if (plan_.verify && !wear_record_is(r, wear)) return fail("wear record %d not as stored", n);
        return true;
    }

    bool private_slice() {
        const int32_t offset = plan_.worker * kSliceSize + static_cast<int32_t>(random_() % 16) * 1024;
        const uint32_t seq = ++sequence_;
        for (int i = 0; i < 1024; ++i) block_[i] = static_cast<uint8_t>(mix(uint64_t{seq} << 16 | i));
        if (Vond_shm_memwrite(kPrivateSection, block_, offset, 1024) != 0) return fail("slice write failed");
        if (Vond_shm_memread(kPrivateSection, second_, offset, 1024) != 0) return fail("slice read failed");
        if (plan_.verify && std::memcmp(block_, second_, 1024) != 0) return fail("private slice changed by another");
        return true;
    }

    bool sdc() {
        if (plan_.role == Role::kProducer) return produce();
        if (plan_.role == Role::kConsumer) return poll();
        return true;
    }

    // Appends the next piece of the stream unless a consumer is half a ring
    // behind: consumers that keep up are the case whose stream is checked.
    bool produce() {
        const uint64_t produced = board_.produced.load(std::memory_order_relaxed);
        for (int c = 0; c < kConsumers; ++c)
            if (produced - board_.consumed[c].load(std::memory_order_acquire) > kRing / 2) return true;
        // One byte first, so that the ring has no skipped index.
        const uint32_t n = produced == 0 ? 1 : 1 + random_() % 4096;
        for (uint32_t i = 0; i < n; ++i) block_[i] = stream_byte(produced + i);
        if (Vond_shm_write_sdc(&n, block_) != 0) return fail("SDC write failed");
        board_.produced.store(produced + n, std::memory_order_release);
        result_.sdc_bytes.fetch_add(n, std::memory_order_relaxed);
        return true;
    }

    uint32_t own_read_position() {
        uint32_t last = 0xFFFFFFFF;
        const int32_t id = board_.consumer_id[plan_.consumer];
        Vond_shm_memread(SHM_SEC_SDC, &last, SDC_HEADER_OFFSET + 12 + 25 * id + 21, 4);
        return last;
    }

    // One poll; the bytes must continue the stream where this consumer left
    // it. After a wrap the poll's count covers only the bytes from the ring's
    // start, so the real count is taken from the read positions.
    bool poll() {
        const int c = plan_.consumer;
        const uint32_t before = last_;
        uint32_t length = 0xFFFFFFFF;
        if (Vond_shm_periodic_get_sdc(&length, poll_buffer_.data(), board_.consumer_id[c]) != 0)
            return fail("poll failed");
        const uint32_t after = own_read_position();
        uint64_t real;
        if (after == before)
            real = length == 0 ? 0 : UINT64_MAX;
        else if (after > before)
            real = length == after - before ? length : UINT64_MAX;
        else
            real = length != after + 1 ? UINT64_MAX : before == kRing - 1 ? length : kRing - 1 - before + length;
        if (real == UINT64_MAX)
            return fail("poll length %u does not match positions %u -> %u", length, before, after);
        for (uint64_t i = 0; i < real; ++i)
            if (poll_buffer_[i] != stream_byte(position_ + 1 + i))
                return fail("consumer %d: byte %llu of a poll is not stream byte %llu", c,
                            static_cast<unsigned long long>(i), static_cast<unsigned long long>(position_ + 1 + i));
        position_ += real;
        last_ = after;
        board_.consumed[c].store(position_, std::memory_order_release);
        result_.sdc_bytes.fetch_add(real, std::memory_order_relaxed);
        return true;
    }

    // After the stop: read until everything the producer appended is here.
    bool drain() {
        while (board_.producer_done.load(std::memory_order_acquire) == 0) usleep(1000);
        const uint64_t produced = board_.produced.load(std::memory_order_acquire);
        for (int idle = 0; position_ + 1 < produced;) {
            const uint64_t before = position_;
            if (idle > 20000) return fail("consumer %d stuck at %llu of %llu", plan_.consumer,
                                          static_cast<unsigned long long>(position_),
                                          static_cast<unsigned long long>(produced));
            if (!poll()) return false;
            idle = position_ == before ? idle + 1 : 0;
            if (position_ == before) usleep(100);
        }
        return true;
    }

public:
    void start_consumer() {
        last_ = board_.consumer_start[plan_.consumer];
        position_ = last_;  // the stream starts at ring index 0 and has not wrapped yet
    }

private:
    Board& board_;
    const Plan plan_;
    WorkerResult& result_;
    std::minstd_rand random_;
    std::vector<int> bits_, records_;
    std::vector<uint8_t> poll_buffer_;
    uint8_t block_[kBlockSize];
    uint8_t second_[kBlockSize];
    uint32_t sequence_ = 0;
    uint32_t last_ = 0;       // consumer: ring index of the last byte received
    uint64_t position_ = 0;   // consumer: stream position of that byte
};

}  // namespace

bool owns_bit(int worker, int workers, int bit) { return (bit - 1) % workers == worker; }
bool owns_record(int worker, int workers, int record) { return record % workers == worker; }

Board* map_board() {
    void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    Board* board = new (memory) Board();
    for (WorkerResult& r : board->results) {
        std::memset(r.progress, -1, sizeof r.progress);
        std::fill(std::begin(r.wear), std::end(r.wear), int16_t{-1});
    }
    return board;
}

void unmap_board(Board* board) { munmap(board, sizeof(Board)); }

bool prepare_sdc(Board& board) {
    if (Vond_shm_init_sdc() != 0) return false;
    for (int c = 0; c < kConsumers; ++c) {
        const char name[] = {'c', 'o', 'n', 's', 'u', 'm', 'e', 'r', static_cast<char>('0' + c), '\0'};
        if (Vond_shm_periodic_register_sdc(name, &board.consumer_id[c]) != 0) return false;
        SdcHeader header;
        if (Vond_shm_memread(SHM_SEC_SDC, &header, SDC_HEADER_OFFSET, sizeof header) != 0) return false;
        board.consumer_start[c] = header.SDCAppTable[board.consumer_id[c]].iLast;
    }
    return true;
}

int run_worker(Board& board, const Plan& plan) {
    auto* worker = new Worker(board, plan);  // large buffers: off the (thread) stack
    if (plan.role == Role::kConsumer) worker->start_consumer();
    board.ready.fetch_add(1, std::memory_order_acq_rel);
    const int result = worker->run();
    delete worker;
    return result;
}

std::vector<std::string> check_store(const Board& board, int workers, const std::vector<int>& owners,
                                     int area) {
    std::vector<std::string> problems;
    auto problem = [&](std::string text) { problems.push_back(std::move(text)); };

    uint8_t block[kBlockSize];
    for (int b = 0; b < kBlocksPerArea; ++b) {
        const int32_t offset = (area * kBlocksPerArea + b) * kBlockSize;
        if (Vond_shm_memread(kBlockSection, block, offset, kBlockSize) != 0 || !uniform(block, kBlockSize))
            problem("block at " + std::to_string(offset) + " not uniform");
    }
    for (int i = 0; i < kRecordsPerArea; ++i) {
        uint8_t r[kRecordSize];
        const int32_t offset = kRecordOffset + kRecordSize * (area * kRecordsPerArea + i);
        if (Vond_shm_memread(kRecordSection, r, offset, kRecordSize) != 0 || !record_whole(r))
            problem("record at " + std::to_string(offset) + " torn");
    }

    uint32_t word = 0;
    if (Vond_shm_memread(SHM_SEC_PLATFORM_ID, &word, 0, 4) != 0) problem("progress word unreadable");
    if (((word & 1u) != 0) != ((word & kRequiredProgress) == kRequiredProgress))
        problem("summary bit disagrees with the word " + std::to_string(word));
    for (int w : owners) {
        const WorkerResult& r = board.results[w];
        for (int bit = 1; bit <= 31; ++bit) {
            if (!owns_bit(w, workers, bit)) continue;
            const uint32_t expected = r.progress[bit] > 0 ? 1 : 0;
            if (((word >> bit) & 1u) != expected)
                problem("progress bit " + std::to_string(bit) + " of worker " + std::to_string(w) +
                        " is not as last set");
        }
        for (int n = 0; n < SHM_DIMM_WEAR_RECORDS; ++n) {
            if (!owns_record(w, workers, n)) continue;
            uint8_t rec[SHM_DIMM_WEAR_RECORD_SIZE];
            if (Vond_shm_memread(SHM_SEC_DIMM_WEAR, rec, wear_offset(n), sizeof rec) != 0 ||
                !wear_record_is(rec, r.wear[n]))
                problem("wear record " + std::to_string(n) + " of worker " + std::to_string(w) +
                        " is not as last stored");
        }
    }
    const std::string taken = locks_left_taken();
    if (!taken.empty()) problem(taken);
    return problems;
}

std::string locks_left_taken() {
    const struct { int32_t key, count; const char* name; } sets[] = {
        {77777777, 1, "library"}, {77777812, 34, "section"}};
    for (const auto& set : sets) {
        const int id = semget(set.key, set.count, 0);
        if (id < 0) return std::string(set.name) + " semaphore set missing";
        for (int member = 0; member < set.count; ++member) {
            const int value = semctl(id, member, GETVAL);
            if (value != 1)
                return std::string(set.name) + " semaphore " + std::to_string(member) + " left at " +
                       std::to_string(value);
        }
    }
    return {};
}

}  // namespace faults
