// Semaphore sets and explicit section locks. (Locks held against other
// processes, and holders killed while they hold one, are the fault
// workload's: tests/faults.)
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

}  // namespace
