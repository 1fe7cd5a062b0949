// Semaphore sets and explicit section locks, across processes.
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <csignal>
#include <cstring>
#include <vector>

#include "harness.h"

namespace {

constexpr int32_t kTestKey = 424242;

TEST(Sem, CreatorInitialisesEveryMemberOpenerLeavesValues) {
    const int32_t id = Vond_shm_init_sem(kTestKey, 34);
    ASSERT_GE(id, 0);
    for (int member = 0; member < 34; ++member) EXPECT_EQ(semctl(id, member, GETVAL), 1) << member;
    ASSERT_EQ(semctl(id, 3, SETVAL, 5), 0);
    test::ChildResult opener = test::run_child([id] { return Vond_shm_init_sem(kTestKey, 34) == id ? 0 : 1; });
    EXPECT_TRUE(opener.exited && opener.code == 0);
    EXPECT_EQ(semctl(id, 3, GETVAL), 5);
    EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
}

TEST(Sem, FailuresLogTheMemberAsSectionNumber) {
    test::install_hook();
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    EXPECT_EQ(Vond_shm_sem_get(gShmSecSemId, -1), -1);  // member field 65535
    EXPECT_EQ(test::count(1, "Vond_shm_sem_get", "SHMLIB: sec_id = 0 4096\n"), 1);
    EXPECT_EQ(Vond_shm_sem_put(gShmSecSemId, 40), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_sem_put", "SHMLIB: Error putting semaphore\n: 27 invalid error number\n"), 1);
    EXPECT_EQ(test::count(1, "Vond_shm_sem_put", "SHMLIB: sec_id = 41\n"), 1);
    EXPECT_EQ(Vond_shm_init_sem(kTestKey, -3), -1);
    EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
    EXPECT_EQ(Vond_shm_lock_shm(0), -1);
}

TEST(Sem, SignalDuringBlockedTakeIsRetried) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    ASSERT_EQ(Vond_shm_lock_shm(3), 0);
    const pid_t waiter = test::start_child([] {
        struct sigaction action{};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);  // no SA_RESTART: semop sees EINTR
        return Vond_shm_lock_shm(3) == 0 && Vond_shm_unlock_shm(3) == 0 ? 0 : 1;
    });
    while (semctl(gShmSecSemId, 2, GETNCNT) < 1) usleep(1000);
    for (int i = 0; i < 5; ++i) {
        kill(waiter, SIGUSR1);
        usleep(20000);
    }
    ASSERT_EQ(semctl(gShmSecSemId, 2, GETNCNT), 1);  // still waiting, not failed
    ASSERT_EQ(Vond_shm_unlock_shm(3), 0);
    const test::ChildResult result = test::wait_child(waiter);
    EXPECT_TRUE(result.exited && result.code == 0);
}

TEST(Locks, NeedAnAttachedProcess) {
    test::install_hook();
    EXPECT_EQ(Vond_shm_lock_shm(5), -1);
    EXPECT_EQ(Vond_shm_unlock_shm(5), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_lock_shm", "gShmLibSemId < 0!  sec_id = 5\n"), 1);
    EXPECT_EQ(test::count(1, "Vond_shm_unlock_shm", "gShmLibSemId < 0!  sec_id = 5\n"), 1);
    char byte;
    ASSERT_EQ(Vond_shm_memread(5, &byte, 0, 1), 0);
    EXPECT_EQ(Vond_shm_lock_shm(5), 0);
    EXPECT_EQ(semctl(gShmSecSemId, 4, GETVAL), 0);
    EXPECT_EQ(Vond_shm_unlock_shm(5), 0);
    EXPECT_EQ(Vond_shm_lock_shm(-65535), -1);  // would wrap onto section 1's lock
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));
}

TEST(Locks, ExplicitLockHoldsOffAWriterInAnotherProcess) {
    ASSERT_EQ(Vond_shm_memwrite(9, "AAAAAAAA", 0, 8), 0);
    ASSERT_EQ(Vond_shm_lock_shm(9), 0);
    const pid_t writer = test::start_child([] { return Vond_shm_memwrite(9, "BBBBBBBB", 0, 8); });
    while (semctl(gShmSecSemId, 8, GETNCNT) < 1) usleep(1000);
    char first[8], second[8];
    ASSERT_EQ(Vond_shm_memread_unlocked(9, first, 0, 8), 0);
    usleep(100000);
    ASSERT_EQ(Vond_shm_memread_unlocked(9, second, 0, 8), 0);
    EXPECT_EQ(std::memcmp(first, "AAAAAAAA", 8), 0);
    EXPECT_EQ(std::memcmp(second, "AAAAAAAA", 8), 0);
    ASSERT_EQ(Vond_shm_unlock_shm(9), 0);
    const test::ChildResult result = test::wait_child(writer);
    ASSERT_TRUE(result.exited && result.code == 0);
    ASSERT_EQ(Vond_shm_memread(9, first, 0, 8), 0);
    EXPECT_EQ(std::memcmp(first, "BBBBBBBB", 8), 0);
}

// A holder killed with SIGKILL, idle or in the middle of a large locked
// write: the kernel's undo gives the lock back and the next taker proceeds.
TEST(Locks, KilledHolderDoesNotBlockTheNextTaker) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    static std::vector<char> big(681428, 'x');
    const std::function<int()> holders[] = {
        [] { Vond_shm_lock_shm(32); pause(); return 0; },
        []() -> int { for (;;) Vond_shm_memwrite(32, big.data(), 0, static_cast<int32_t>(big.size())); },
    };
    for (const auto& holder : holders) {
        const pid_t pid = test::start_child(holder);
        while (semctl(gShmSecSemId, 31, GETVAL) != 0 || semctl(gShmSecSemId, 31, GETPID) != pid) usleep(500);
        kill(pid, SIGKILL);
        test::wait_child(pid);
        const test::ChildResult next = test::run_child([] {
            return Vond_shm_lock_shm(32) == 0 && Vond_shm_unlock_shm(32) == 0 ? 0 : 1;
        }, 5);
        EXPECT_FALSE(next.timed_out);
        EXPECT_TRUE(next.exited && next.code == 0);
    }
}

}  // namespace
