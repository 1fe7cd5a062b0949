// Semaphore sets and explicit section locks. (Locks held against other
// processes, and holders killed holding one: tests/faults.)
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <csignal>

#include "harness.h"

namespace {

constexpr int32_t kTestKey = 424242;

// (A creator sets every member to 1: Store.FirstAttach...; an opener leaves
// the values alone: Store.HalfInitialisedSetsHealAtAttach's live holder.)

// The member is logged as its section number; the error text is the
// strerror_r buffer, not its return value.
TEST(Sem, FailuresLogTheMemberAsSectionNumberAndTheErrorText) {
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
    for (int i = 0; i < 5; ++i, usleep(20000)) kill(waiter, SIGUSR1);
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
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    EXPECT_EQ(Vond_shm_lock_shm(5), 0);
    EXPECT_EQ(semctl(gShmSecSemId, 4, GETVAL), 0);
    EXPECT_EQ(Vond_shm_unlock_shm(5), 0);
    EXPECT_EQ(Vond_shm_lock_shm(-65535), -1);  // would wrap onto section 1's lock
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));
}

}  // namespace
