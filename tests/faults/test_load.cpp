// Load: many processes, or many threads of one process, run the mixed
// workload against one store for a fixed time. Afterwards every invariant of
// the store must hold, every worker must have stopped within the time limit
// (no deadlock), and each consumer must have received the producer's stream
// without a gap. The operation rate is printed, not checked.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "harness.h"
#include "workload.h"

namespace {

using faults::Board;
using faults::Plan;
using faults::Role;
using Clock = std::chrono::steady_clock;

constexpr auto kRunTime = std::chrono::seconds(2);

// Worker 0 produces, workers 1 to 3 consume, the others only do the common
// operations, which every worker does.
Plan plan_for(int worker, int workers) {
    Plan plan;
    plan.worker = worker;
    plan.workers = workers;
    plan.seed = 7919u * static_cast<uint32_t>(worker + 1);
    if (worker == 0) plan.role = Role::kProducer;
    if (worker >= 1 && worker <= faults::kConsumers) {
        plan.role = Role::kConsumer;
        plan.consumer = worker - 1;
    }
    return plan;
}

std::vector<int> everyone(int workers) {
    std::vector<int> all;
    for (int w = 0; w < workers; ++w) all.push_back(w);
    return all;
}

void report(const char* what, int workers, const Board& board, double seconds, long signals) {
    uint64_t ops = 0;
    for (int w = 0; w < workers; ++w) ops += board.results[w].ops.load();
    std::printf("[ figures ] %s N=%d: %llu operations in %.2f s = %.0f ops/s; SDC %llu bytes streamed, "
                "consumers verified %llu/%llu/%llu; %ld signals delivered\n",
                what, workers, static_cast<unsigned long long>(ops), seconds, ops / seconds,
                static_cast<unsigned long long>(board.results[0].sdc_bytes.load()),
                static_cast<unsigned long long>(board.results[1].sdc_bytes.load()),
                static_cast<unsigned long long>(board.results[2].sdc_bytes.load()),
                static_cast<unsigned long long>(board.results[3].sdc_bytes.load()), signals);
}

void expect_store_intact(const Board& board, int workers) {
    for (int w = 0; w < workers; ++w) EXPECT_STREQ(board.results[w].failure, "") << "worker " << w;
    for (const std::string& problem : faults::check_store(board, workers, everyone(workers), 0))
        ADD_FAILURE() << problem;
    for (int c = 0; c < faults::kConsumers; ++c)
        EXPECT_EQ(board.consumed[c].load() + 1, board.produced.load()) << "consumer " << c;
    EXPECT_GT(board.produced.load(), 1u);
}

class Load : public ::testing::TestWithParam<int> {};

// Each worker is its own process and attaches by itself; the test process
// sends them SIGUSR1 all along (handlers without SA_RESTART), so blocked
// semaphore takes are interrupted over and over.
TEST_P(Load, ProcessesKeepEveryInvariant) {
    const int workers = GetParam();
    Board* board = faults::map_board();
    ASSERT_NE(board, nullptr);
    const test::ChildResult setup = test::run_child([board] { return faults::prepare_sdc(*board) ? 0 : 1; });
    ASSERT_TRUE(setup.exited && setup.code == 0);

    std::vector<pid_t> pids;
    for (int w = 0; w < workers; ++w)
        pids.push_back(test::start_child([board, w, workers] {
            struct sigaction action {};
            action.sa_handler = [](int) {};
            sigaction(SIGUSR1, &action, nullptr);
            return faults::run_worker(*board, plan_for(w, workers));
        }));
    while (board->ready.load() < workers) usleep(1000);

    long signals = 0;
    const auto start = Clock::now();
    while (Clock::now() - start < kRunTime) {
        for (pid_t pid : pids) signals += kill(pid, SIGUSR1) == 0;
        usleep(2000);
    }
    board->stop.store(1);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    for (int w = 0; w < workers; ++w) {
        const test::ChildResult result = test::wait_child(pids[w], 30);
        EXPECT_FALSE(result.timed_out) << "worker " << w << " did not stop";
        EXPECT_TRUE(result.exited && result.code == 0) << "worker " << w << ": " << board->results[w].failure;
    }
    report("processes", workers, *board, seconds, signals);
    expect_store_intact(*board, workers);
    faults::unmap_board(board);
}

INSTANTIATE_TEST_SUITE_P(Workers, Load, ::testing::Values(4, 8, 16),
                         [](const ::testing::TestParamInfo<int>& info) { return std::to_string(info.param); });

// The same workload on threads of one process: the recursion counter and its
// record are per thread (each worker checks its own counter while it holds
// an explicit lock, while other threads hold and release theirs).
TEST(LoadThreads, ThreadsOfOneProcessKeepEveryInvariant) {
    constexpr int kThreads = 8;
    Board* board = faults::map_board();
    ASSERT_NE(board, nullptr);
    ASSERT_TRUE(faults::prepare_sdc(*board));

    std::vector<int> codes(kThreads, -1);
    std::vector<SHML_per_thread_data*> records(kThreads, nullptr);
    std::vector<std::thread> threads;
    for (int w = 0; w < kThreads; ++w)
        threads.emplace_back([&, w] {
            records[w] = SHML_get_per_thread_data();
            codes[w] = faults::run_worker(*board, plan_for(w, kThreads));
            if (SHML_get_per_thread_data() != records[w] || records[w]->recursion != 0) codes[w] = 2;
        });
    while (board->ready.load() < kThreads) usleep(1000);
    const auto start = Clock::now();
    std::this_thread::sleep_for(kRunTime);
    board->stop.store(1);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (std::thread& t : threads) t.join();  // a deadlock ends in the CTest time limit

    for (int w = 0; w < kThreads; ++w) {
        EXPECT_EQ(codes[w], 0) << "thread " << w << ": " << board->results[w].failure;
        for (int other = 0; other < w; ++other) EXPECT_NE(records[w], records[other]);
    }
    report("threads", kThreads, *board, seconds, 0);
    expect_store_intact(*board, kThreads);
    shmid_ds segment{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &segment), 0);
    EXPECT_EQ(segment.shm_nattch, 1u);  // one attachment for all threads
    faults::unmap_board(board);
}

// First store calls of every kind, each of which attaches on its own.
const std::function<int32_t()> kFirstCalls[] = {
    [] { return Vond_shm_init_shm(); },
    [] { char b; return Vond_shm_memread(9, &b, 0, 1); },
    [] { return Vond_shm_memwrite(9, "x", 1, 1); },
    [] { return Vond_shm_memset(9, 0x55, 2, 1); },
    [] { return Vond_set_quorx_progress(3, 1); },
    [] { void* base; return Vond_shm_get_shm(26, &base); },
};
constexpr int kCallKinds = sizeof kFirstCalls / sizeof kFirstCalls[0];

int32_t attachments() {
    shmid_ds segment{};
    return shmctl(gShmId, IPC_STAT, &segment) == 0 ? static_cast<int32_t>(segment.shm_nattch) : -1;
}

// Sixteen threads that all find the process unattached queue on the library
// lock: the first attaches, each of the fifteen others sees the attachment
// under the lock and says so.
TEST(LoadThreads, SixteenQueuedFirstCallsAttachOnce) {
    constexpr int kThreads = 16;
    test::install_hook();
    gShmLibSemId = Vond_shm_init_sem(77777777, 1);
    ASSERT_GE(gShmLibSemId, 0);
    ASSERT_EQ(Vond_shm_sem_get(gShmLibSemId, 0), 0);
    std::vector<int32_t> results(kThreads, -9);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { results[t] = kFirstCalls[t % kCallKinds](); });
    while (semctl(gShmLibSemId, 0, GETNCNT) < kThreads) usleep(1000);
    ASSERT_EQ(Vond_shm_sem_put(gShmLibSemId, 0), 0);
    for (std::thread& t : threads) t.join();

    EXPECT_EQ(results, std::vector<int32_t>(kThreads, 0));
    EXPECT_EQ(test::count(9, "Vond_shm_init_shm", "race condition avoided\n"), kThreads - 1);
    EXPECT_EQ(attachments(), 1);
    EXPECT_EQ(faults::locks_left_taken(), "");
    char byte = 0;
    ASSERT_EQ(Vond_shm_memread(9, &byte, 1, 1), 0);
    EXPECT_EQ(byte, 'x');
}

// Threads log while some of them hold section locks: a message goes to the
// system log exactly when its own thread holds a lock, whatever the others
// hold, and every thread's counter is back at 0 when it ends.
TEST(LoadThreads, EachThreadsCounterRoutesOnlyItsOwnMessages) {
    constexpr int kThreads = 8, kRounds = 150;
    test::install_hook();
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    test::SyslogCapture syslog_socket;
    std::atomic<bool> done{false};
    std::atomic<int> in_syslog{0};
    std::thread reader([&] {
        for (bool last = false; !last;) {
            last = done.load();
            for (const std::string& line : syslog_socket.drain(50))
                if (line.find(".Vond_shm_memwrite: bad sec id=40") != std::string::npos) ++in_syslog;
        }
    });

    std::atomic<int> with_lock{0}, without_lock{0}, bad_counters{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::minstd_rand random(t + 1);
            const char byte = 0;
            for (int round = 0; round < kRounds; ++round) {
                const int32_t section = 10 + static_cast<int32_t>(random() % 3);
                const bool hold = random() % 2;
                if (hold && Vond_shm_lock_shm(section) != 0) ++bad_counters;
                Vond_shm_memwrite(40, &byte, 0, 1);  // a level-1 message
                ++(hold ? with_lock : without_lock);
                if (SHML_get_per_thread_data()->recursion != (hold ? 1 : 0)) ++bad_counters;
                if (hold && Vond_shm_unlock_shm(section) != 0) ++bad_counters;
            }
            if (SHML_get_per_thread_data()->recursion != 0) ++bad_counters;
        });
    for (std::thread& t : threads) t.join();
    for (int wait = 0; wait < 200 && in_syslog.load() < with_lock.load(); ++wait) usleep(10000);
    done.store(true);
    reader.join();

    EXPECT_EQ(bad_counters.load(), 0);
    EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad sec id=40\n"), without_lock.load());
    EXPECT_EQ(in_syslog.load(), with_lock.load());
    EXPECT_EQ(faults::locks_left_taken(), "");
}

}  // namespace
