// One store workload under load and faults. Workers (processes, or threads of
// the test process) run mixed store operations and verify what they read;
// victims run the same operations without verifying and are killed at random
// moments. Every survivor must finish without a violation, its progress bits
// must be as it last set them, every lock must be free and each consumer must
// have received the producer's SDC stream without a gap. Operation rates and
// where the kills landed are figures, never checked.
//
// How the workload is laid out:
// - Blocks: survivors use blocks 0-2 of section 8, victims blocks 3-5. Both
//   take the same lock, but a victim killed in the middle of a write leaves a
//   torn block that nobody must verify.
// - Progress bit b belongs to worker (b - 1) % workers. A worker compares its
//   own bits with what it last set each time it reads the word, so a setter
//   that loses another writer's bits shows up at the owner of those bits.
// - Worker 0 produces the SDC stream (stream byte p is test::pattern's byte
//   p), surviving workers 1 and 2 consume it. A run lasts until the stream has
//   gone round the ring twice, so every run crosses the ring's end.
// - Two consumers are registered by a child, so that the test process is not
//   attached when the workers start: every process attaches by itself, and in
//   the threads scenario the threads queue on the library lock the test holds,
//   so that all but the first must report "race condition avoided".
// - The hook counts each thread's messages: a level-9 message must reach it
//   exactly when the calling thread holds no lock, whatever the other threads
//   hold (where serious levels go while a lock is held is test_log's).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

namespace {

constexpr int kMaxWorkers = 8, kConsumers = 2;
constexpr int32_t kBlockSection = 8, kBlockSize = 4096, kBlocksPerArea = 3;
constexpr uint32_t kRequiredProgress = 0x00402062, kRing = SDC_RING_SIZE;

struct Scenario {
    const char* name;
    int workers;  // processes, or threads of the test process
    bool threads;
    int victims;  // the last `victims` workers, killed and replaced over and over
    bool storm;   // SIGUSR1 to every worker all along, handled without SA_RESTART
};

const Scenario kScenarios[] = {
    {"ProcessesUnderSignalStorm", 8, false, 0, true},
    {"ThreadsOfOneProcess", 8, true, 0, false},
    {"VictimsKilledBesideSurvivors", 5, false, 3, false},
};

void PrintTo(const Scenario& s, std::ostream* out) { *out << s.name; }

// Shared by the workers: MAP_SHARED memory for processes, simply shared by
// threads. Never unmapped: each test case is a process of its own.
struct Board {
    std::atomic<int> stop, producer_done, races;
    std::atomic<uint64_t> produced, consumed[kConsumers];  // stream bytes appended; received through
    int32_t consumer_id[kConsumers];
    struct {
        std::atomic<uint64_t> ops;
        char failure[160];  // the first violation seen
    } results[kMaxWorkers];
};
Board* g_board = nullptr;

thread_local int t_messages = 0;
int counting_hook(int32_t, int32_t, const char* format, ...) {
    ++t_messages;
    if (std::strstr(format, "race condition avoided") != nullptr) ++g_board->races;
    return 0;
}

class Worker {
public:
    Worker(const Scenario& s, int worker, uint32_t seed)
        : w_(worker), workers_(s.workers), verify_(worker < s.workers - s.victims),
          consumers_(std::min(kConsumers, s.workers - s.victims - 1)),
          consumer_(verify_ && worker >= 1 && worker <= consumers_ ? worker - 1 : -1), random_(seed),
          a_(kBlockSize), b_(kBlockSize), poll_(consumer_ >= 0 ? SDC_POLL_BUFFER_SIZE : 0) {}

    int run() {
        bool ok = step(w_ % 3);  // the first call attaches: a write, a read or a progress update
        for (; ok && g_board->stop == 0; ++g_board->results[w_].ops) ok = step(static_cast<int>(random_() % 6));
        if (!ok && verify_) g_board->stop = 1;    // a survivor's failure ends the run
        if (w_ == 0) g_board->producer_done = 1;  // also after a failure, so that the consumers finish
        // A consumer then takes what is outstanding (one that gets stuck there hangs: the wait reports it).
        while (ok && consumer_ >= 0 && (g_board->producer_done == 0 || position_ + 1 < g_board->produced)) ok = poll();
        return ok ? 0 : 1;
    }

private:
    bool step(int kind) {  // 0 and 1: a block; 2: progress; 3: the explicit lock; 4 and 5: the stream
        if (kind < 2) return block(kind == 0);
        if (kind == 2) return set_progress();
        if (kind == 3) return read_twice_under_explicit_lock();
        return w_ == 0 ? produce() : consumer_ >= 0 ? poll() : true;
    }

    bool fail(const std::string& what) {  // keeps the first violation
        char (&failure)[160] = g_board->results[w_].failure;
        if (failure[0] == '\0') std::snprintf(failure, sizeof failure, "%s", what.c_str());
        return false;
    }

    int32_t block_offset() {
        return ((verify_ ? 0 : kBlocksPerArea) + static_cast<int32_t>(random_() % kBlocksPerArea)) * kBlockSize;
    }
    bool uniform() const { return std::all_of(a_.begin(), a_.end(), [&](uint8_t b) { return b == a_[0]; }); }

    // A block written whole, or read through the locked read and found whole.
    bool block(bool write) {
        std::fill(a_.begin(), a_.end(), static_cast<uint8_t>(random_()));
        const int32_t offset = block_offset();
        if ((write ? Vond_shm_memwrite(kBlockSection, a_.data(), offset, kBlockSize)
                   : Vond_shm_memread(kBlockSection, a_.data(), offset, kBlockSize)) != 0)
            return fail(write ? "block write failed" : "block read failed");
        return write || !verify_ || uniform() || fail("a locked read saw a torn block");
    }

    // Two unlocked reads under one explicit lock see the same uniform block:
    // no writer of any process or thread gets in while the lock is held.
    bool read_twice_under_explicit_lock() {
        const int32_t offset = block_offset();
        if (Vond_shm_lock_shm(kBlockSection) != 0) return fail("explicit lock failed");
        const bool routed_while_held = routed(1);
        Vond_shm_memread_unlocked(kBlockSection, a_.data(), offset, kBlockSize);
        sched_yield();
        Vond_shm_memread_unlocked(kBlockSection, b_.data(), offset, kBlockSize);
        if (Vond_shm_unlock_shm(kBlockSection) != 0) return fail("explicit unlock failed");
        if (verify_ && (a_ != b_ || !uniform())) return fail("a write got in while the explicit lock was held");
        return routed_while_held && routed(0);
    }

    // The thread's recursion counter is `held`, and a level-9 message of the
    // thread reaches the hook exactly when it holds no lock.
    bool routed(int held) {
        const int before = t_messages;
        Vond_shm_memset(kBlockSection, 0, 0, 0);  // logs "enter" at level 9, writes nothing
        const int counter = SHML_get_per_thread_data()->recursion, hooked = t_messages - before;
        return (counter == held && hooked == (held == 0 ? 1 : 0)) ||
               fail("holding " + std::to_string(held) + " locks: counter " + std::to_string(counter) + ", " +
                    std::to_string(hooked) + " messages reached the hook");
    }

    bool set_progress() {
        const int bit = w_ + 1 + workers_ * static_cast<int>(random_() % ((30 - w_) / workers_ + 1));
        const int set = random_() % 4 != 0;  // mostly set, so that the summary bit comes and goes
        if (Vond_set_quorx_progress(bit, set) != 0) return fail("progress bit " + std::to_string(bit) + " not stored");
        progress_[bit] = static_cast<int8_t>(set);
        uint32_t word = 0;
        if (Vond_shm_memread(SHM_SEC_PLATFORM_ID, &word, 0, 4) != 0) return fail("progress read failed");
        if (verify_ && ((word & 1u) != 0) != ((word & kRequiredProgress) == kRequiredProgress))
            return fail("summary bit disagrees with the word " + std::to_string(word));
        for (int own = w_ + 1; verify_ && own <= 31; own += workers_)
            if (progress_[own] >= 0 && ((word >> own) & 1u) != static_cast<uint32_t>(progress_[own]))
                return fail("progress bit " + std::to_string(own) + " lost from the word " + std::to_string(word));
        return true;
    }

    // Appends the next piece unless a consumer is half a ring behind: a
    // consumer that keeps up is the case whose stream is checked. One byte
    // first, so that the ring has no skipped index.
    bool produce() {
        const uint64_t produced = g_board->produced;
        for (int c = 0; c < consumers_; ++c)
            if (produced - g_board->consumed[c] > kRing / 2) return true;
        const uint32_t n = produced == 0 ? 1 : 1 + random_() % 4096;
        if (Vond_shm_write_sdc(&n, test::pattern(n, static_cast<uint32_t>(produced)).data()) != 0)
            return fail("SDC write failed");
        g_board->produced = produced + n;
        return true;
    }

    // The bytes of a poll continue the stream where this consumer left it.
    // After a wrap the poll's count covers only the bytes from the ring's
    // start, so the number received is taken from the read positions.
    bool poll() {
        const int32_t id = g_board->consumer_id[consumer_];
        uint32_t length = 0, after = 0;
        if (Vond_shm_periodic_get_sdc(&length, poll_.data(), static_cast<uint32_t>(id)) != 0 ||
            Vond_shm_memread(SHM_SEC_SDC, &after, test::sdc_last_offset(id), 4) != 0)
            return fail("poll failed");
        const uint32_t received = (after - last_) & (kRing - 1);
        if (length != (after >= last_ ? received : after + 1) ||
            test::pattern(received, static_cast<uint32_t>(position_ + 1)) !=
                std::vector<uint8_t>(poll_.begin(), poll_.begin() + received))
            return fail("a poll of " + std::to_string(length) + " bytes, read positions " + std::to_string(last_) +
                        " -> " + std::to_string(after) + ", is not the stream after byte " + std::to_string(position_));
        position_ += received;
        last_ = after;
        g_board->consumed[consumer_] = position_;
        return true;
    }

    const int w_, workers_;
    const bool verify_;
    const int consumers_, consumer_;  // consumers in the run; this one's number, or -1
    std::minstd_rand random_;
    std::vector<uint8_t> a_, b_, poll_;
    std::vector<int8_t> progress_ = std::vector<int8_t>(32, -1);  // the state last set for each own bit, -1 never
    uint32_t last_ = 0;      // consumer: ring index of the last byte received (0 at registration)
    uint64_t position_ = 0;  // consumer: stream position of that byte
};

// How many of the `count` members of the set `key` the stopped process `pid`
// holds: those at 0 whose last operation was its own.
int held_by(pid_t pid, int32_t key, int count) {
    const int id = semget(key, count, 0);
    int held = 0;
    for (int member = 0; id >= 0 && member < count; ++member)
        held += semctl(id, member, GETVAL) == 0 && semctl(id, member, GETPID) == pid;
    return held;
}

class Workload : public ::testing::TestWithParam<Scenario> {};

TEST_P(Workload, LeavesTheStoreIntactAndEveryLockFree) {
    const Scenario& s = GetParam();
    const int survivors = s.workers - s.victims, consumers = std::min(kConsumers, survivors - 1);
    g_board = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board();
    ASSERT_EQ(test::run_child([] {
        int32_t* id = g_board->consumer_id;
        return Vond_shm_init_sdc() != 0 || Vond_shm_periodic_register_sdc("one", &id[0]) != 0 ||
               Vond_shm_periodic_register_sdc("two", &id[1]) != 0;
    }).code, 0);
    (void)SHML_get_per_thread_data();  // the hook lookup first, so that it cannot overwrite the hook
    SHML_vondprintf = counting_hook;
    struct sigaction action {};  // inherited by the workers before any signal can come
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);

    std::vector<pid_t> pids(s.workers, -1);
    std::vector<int> codes(s.workers, -1);
    std::vector<std::thread> threads;
    auto start = [&](int w, uint32_t seed) {
        if (s.threads)
            threads.emplace_back([&codes, &s, w, seed] { codes[w] = Worker(s, w, seed).run(); });
        else
            pids[w] = test::start_child([&s, w, seed] { return Worker(s, w, seed).run(); });
    };
    // Threads: every thread's first call queues on the library lock until all are waiting.
    gShmLibSemId = s.threads ? Vond_shm_init_sem(77777777, 1) : -1;
    ASSERT_EQ(s.threads ? Vond_shm_sem_get(gShmLibSemId, 0) : 0, 0);
    for (int w = 0; w < s.workers; ++w) start(w, 7919u * static_cast<uint32_t>(w + 1));
    while (s.threads && semctl(gShmLibSemId, 0, GETNCNT) < s.workers) usleep(1000);
    ASSERT_EQ(s.threads ? Vond_shm_sem_put(gShmLibSemId, 0) : 0, 0);

    // Two seconds, and on until the stream has gone round the ring twice
    // (within 30 s), unless a survivor fails.
    std::minstd_rand random(77);
    long signals = 0;
    int kills = 0, in_section = 0, in_library = 0;
    const auto begin = std::chrono::steady_clock::now();
    auto seconds = [begin] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(); };
    while (g_board->stop == 0 && (seconds() < 2 || (g_board->produced < 2 * kRing && seconds() < 30))) {
        usleep(static_cast<useconds_t>(random() % 3000));
        for (int w = 0; s.storm && w < s.workers; ++w) signals += kill(pids[w], SIGUSR1) == 0;
        if (s.victims == 0) continue;
        // A victim stopped at a random moment, the locks it holds counted, killed and replaced.
        const int v = survivors + static_cast<int>(random() % static_cast<unsigned>(s.victims));
        int status = 0;
        kill(pids[v], SIGSTOP);
        waitpid(pids[v], &status, WUNTRACED);
        EXPECT_TRUE(WIFSTOPPED(status) || g_board->stop) << "victim ended by itself: " << g_board->results[v].failure;
        in_section += held_by(pids[v], 77777812, 34);
        in_library += held_by(pids[v], 77777777, 1);
        kill(pids[v], SIGKILL);
        waitpid(pids[v], &status, 0);
        start(v, 1000u + static_cast<uint32_t>(++kills));
    }
    g_board->stop = 1;
    const double elapsed = seconds();
    for (int v = survivors; v < s.workers; ++v) kill(pids[v], SIGKILL);
    for (std::thread& thread : threads) thread.join();  // a deadlock ends in the CTest time limit
    uint64_t ops = 0;
    for (int w = 0; w < s.workers; ++w) {
        if (!s.threads) codes[w] = test::wait_child(pids[w]).code;  // -1: it died, or hung and was killed
        if (w >= survivors) continue;  // a victim, killed above
        EXPECT_EQ(codes[w], 0) << "worker " << w << ": " << g_board->results[w].failure;
        ops += g_board->results[w].ops;
    }
    std::printf("[ figures ] %s: survivors did %llu operations in %.2f s = %.0f ops/s, %llu SDC bytes streamed; "
                "%ld signals; %d kills, %d inside a section lock, %d inside the library lock (attaching)\n",
                s.name, static_cast<unsigned long long>(ops), elapsed, ops / elapsed,
                static_cast<unsigned long long>(g_board->produced.load()), signals, kills, in_section, in_library);

    for (int c = 0; c < consumers; ++c)
        EXPECT_EQ(g_board->consumed[c] + 1, g_board->produced.load()) << "consumer " << c;
    EXPECT_GE(g_board->produced.load(), 2 * kRing);
    EXPECT_EQ(g_board->races.load(), s.threads ? s.workers - 1 : 0);
    EXPECT_TRUE(s.victims == 0 || in_section > 0);  // the kills did land inside locked operations
    EXPECT_EQ(test::locks_left_taken(), "");
}

INSTANTIATE_TEST_SUITE_P(Scenarios, Workload, ::testing::ValuesIn(kScenarios),
                         [](const ::testing::TestParamInfo<Scenario>& info) { return info.param.name; });

}  // namespace
