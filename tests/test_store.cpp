// Creating and attaching the store: layout, IPC objects, sharing between
// processes, and the attach failures.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sched.h>
#include <unistd.h>

#include <csignal>

#include "harness.h"

// The library's umask calls, counted (the program's definition comes first
// in the lookup scope): creating the store must not touch the umask, which
// would change the modes of files other threads create meanwhile.
static int g_umask_calls = 0;
extern "C" mode_t umask(mode_t mask) {
    ++g_umask_calls;
    return static_cast<mode_t>(syscall(SYS_umask, mask));
}

namespace {

// Section offsets are the table's running sums (the table itself is pinned by
// header.c_layout); modes by CreationLeavesTheUmaskAloneAndObjectsGet0666.
TEST(Store, FirstAttachCreatesSegmentSetsAndLayout) {
    test::install_hook();
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    ASSERT_NE(gShmData[0], nullptr);
    // The creator set every member up: a fresh set is never operated, so a
    // member left at 0 would be "healed" here, with a level-1 message.
    for (const test::Message& m : test::messages()) EXPECT_NE(m.level, 1) << m.text;
    for (long i = 1, offset = 0; i < 34; offset += gShmSecSize[i++])
        EXPECT_EQ(static_cast<char*>(gShmData[i]) - static_cast<char*>(gShmData[0]), offset) << i;

    shmid_ds seg{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_segsz, 4035719u);
    EXPECT_EQ(seg.shm_perm.__key, 77777779);
    EXPECT_EQ(seg.shm_nattch, 1u);
    EXPECT_EQ(semget(77777777, 1, 0), gShmLibSemId);
    EXPECT_EQ(semget(77777812, 34, 0), gShmSecSemId);

    void* before = gShmData[0];
    EXPECT_EQ(Vond_shm_init_shm(), 0);  // idempotent, no second attach
    EXPECT_EQ(gShmData[0], before);
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_nattch, 1u);
}

// System V objects take the mode given, whatever the umask.
TEST(Store, CreationLeavesTheUmaskAloneAndObjectsGet0666) {
    umask(022);
    g_umask_calls = 0;
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    EXPECT_EQ(g_umask_calls, 0);
    shmid_ds seg{};
    semid_ds lib{}, sec{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg) | semctl(gShmLibSemId, 0, IPC_STAT, &lib) |
                  semctl(gShmSecSemId, 0, IPC_STAT, &sec), 0);
    EXPECT_EQ(std::vector<unsigned>({seg.shm_perm.mode & 0777u, lib.sem_perm.mode & 0777u, sec.sem_perm.mode & 0777u}),
              std::vector<unsigned>({0666, 0666, 0666}));
}

TEST(Store, GetShmAttachesAndReturnsSectionBase) {
    void* base = nullptr;
    ASSERT_EQ(Vond_shm_get_shm(33, &base), 0);  // the last section
    EXPECT_EQ(base, gShmData[33]);
    test::install_hook();
    EXPECT_EQ(Vond_shm_get_shm(34, &base), -1);
    EXPECT_EQ(Vond_shm_get_shm(-1, &base), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_get_shm", "Invalid sec_id=34.\n"), 1);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
}

// (A segment that cannot be created or attached: faults' Refused.* cases.)
TEST(Store, SectionsBeyondSegmentRefuseAttach) {
    test::install_hook();
    gShmSecSize[32] += 2263386;  // sections 1..33 now end one byte past the segment
    EXPECT_EQ(Vond_shm_init_shm(), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_init_shm", "The size of the sections is greater than SHM_SIZE\n"), 1);
    EXPECT_EQ(Vond_shm_memwrite(1, "x", 0, 1), -4);  // attach is tried again, and fails again
    EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad share memory init \n"), 1);
    EXPECT_EQ(gShmData[0], nullptr);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
    shmid_ds seg{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_nattch, 0u);  // detached again
}

// A creator killed before setting its members up leaves members at 0 that
// nobody holds: the next attach heals such a never-operated set (every member,
// after random kills: Crash.KillsDuringCreationLeaveNoMemberStuck; a complete
// set is left alone: FirstAttach...). Here: the messages, and that a member a
// live process holds is still waited for (nor does the opener reset it).
TEST(Store, HalfInitialisedSetsHealAtAttach) {
    const struct {
        const char* what;
        int32_t key;
        int count;
        int first_at_one;  // members first_at_one.. are 1, as a creator counting down left them
        bool held_by_live_process;
        const char* message;
    } cases[] = {
        {"section set, creator died", 77777812, 34, 20, false,
         "was never initialised (its creator died): set every member to 1\n"},
        {"library set, creator died", 77777777, 1, 1, false, "was never initialised (its creator died): set it to 1\n"},
        {"library set held by a live process", 77777777, 1, 1, true, ""},
    };
    for (const auto& c : cases) {
        const test::ChildResult result = test::run_child([&c] {
            if (unshare(CLONE_NEWIPC) != 0) return 10;
            const int id = semget(c.key, c.count, IPC_CREAT | IPC_EXCL | 0666);
            for (int member = c.first_at_one; member < c.count; ++member) semctl(id, member, SETVAL, 1);
            pid_t holder = -1;
            if (c.held_by_live_process) {
                if (semctl(id, 0, SETVAL, 1) != 0) return 11;
                holder = test::start_child([id] {
                    sembuf take{0, -1, SEM_UNDO};
                    semop(id, &take, 1);
                    return pause();
                });
                while (semctl(id, 0, GETVAL) != 0) usleep(1000);
            }
            const test::ChildResult attach = test::run_child([&c] {
                test::install_hook();
                return Vond_shm_init_shm() == 0 && test::count(1, "Vond_shm_init_shm", c.message) == 1 ? 0 : 1;
            }, c.held_by_live_process ? 3 : 10);  // a repair takes 1 s; a live holder is waited for past 3 s
            if (holder > 0) {
                kill(holder, SIGKILL);
                test::wait_child(holder);
            }
            if (c.held_by_live_process) return attach.timed_out ? 0 : 12;  // still waiting for the holder
            return attach.timed_out || attach.code != 0 ? 13 : 0;
        }, 30);
        EXPECT_TRUE(result.exited && result.code == 0) << c.what << ": " << result.code;
    }
}

}  // namespace
