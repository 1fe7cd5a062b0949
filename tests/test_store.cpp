// Creating and attaching the store: layout, IPC objects, sharing between
// processes, and the attach failures.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "harness.h"

// The library's semget and shmget calls, interposed (the program's own
// definitions come first in the lookup scope). While a test arms
// g_files_made, each call waits inside until another thread has created two
// more files: the library is then between whatever it does before and after
// the system call.
static std::atomic<int>* g_files_made = nullptr;
static void wait_for_files() {
    if (g_files_made == nullptr) return;
    const int start = g_files_made->load();
    while (g_files_made->load() < start + 2) sched_yield();
}
extern "C" int semget(key_t key, int count, int flags) {
    wait_for_files();
    return static_cast<int>(syscall(SYS_semget, key, count, flags));
}
extern "C" int shmget(key_t key, size_t size, int flags) {
    wait_for_files();
    return static_cast<int>(syscall(SYS_shmget, key, size, flags));
}

namespace {

// Offsets other programs of the controller are built against.
constexpr long kOffsets[34] = {
    0,      0,      56,     25531,  30391,  46769,  63147,  63160,  79544,  108216, 108224, 109248,
    109448, 110472, 111496, 115376, 115632, 117436, 117692, 117948, 118275, 256622, 297471, 540028,
    540262, 540265, 540267, 1064775, 1065463, 1065466, 1065469, 1065834, 1090901, 1772329};

TEST(Store, FirstAttachCreatesSegmentSetsAndLayout) {
    umask(077);  // creation must not depend on the caller's umask
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    ASSERT_NE(gShmData[0], nullptr);
    for (int i = 0; i < 34; ++i)
        EXPECT_EQ(static_cast<char*>(gShmData[i]) - static_cast<char*>(gShmData[0]), kOffsets[i]) << i;

    shmid_ds seg{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_segsz, 4035719u);
    EXPECT_EQ(seg.shm_perm.mode & 0777, 0666u);
    EXPECT_EQ(seg.shm_perm.__key, 77777779);
    EXPECT_EQ(seg.shm_nattch, 1u);

    EXPECT_EQ(semget(77777777, 1, 0), gShmLibSemId);
    EXPECT_EQ(semget(77777812, 34, 0), gShmSecSemId);
    for (int id : {gShmLibSemId, gShmSecSemId}) {
        semid_ds set{};
        ASSERT_EQ(semctl(id, 0, IPC_STAT, &set), 0);
        EXPECT_EQ(set.sem_perm.mode & 0777, 0666u);
    }
    EXPECT_EQ(test::section_semaphore_values(), std::vector<int>(34, 1));
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);

    void* before = gShmData[0];
    EXPECT_EQ(Vond_shm_init_shm(), 0);  // idempotent, no second attach
    EXPECT_EQ(gShmData[0], before);
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_nattch, 1u);
}

// Creating the store leaves the process's umask alone: files that other
// threads create meanwhile get the modes their umask gives, while the IPC
// objects still get 0666.
TEST(Store, CreationLeavesTheUmaskToOtherThreads) {
    umask(022);
    std::atomic<int> made{0};
    std::atomic<bool> stop{false};
    int writable = 0;  // files created with group or other write bits
    std::thread files([&] {
        for (int i = 0; !stop; ++i) {
            const std::string path = "/tmp/umask-" + std::to_string(i);
            const int fd = open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666);
            struct stat st {};
            if (fd < 0 || fstat(fd, &st) != 0 || (st.st_mode & 022) != 0) ++writable;
            close(fd);
            unlink(path.c_str());
            ++made;
        }
    });
    g_files_made = &made;
    const int32_t result = Vond_shm_init_shm();
    g_files_made = nullptr;
    stop = true;
    files.join();
    ASSERT_EQ(result, 0);
    EXPECT_EQ(writable, 0) << "of " << made << " files";
    EXPECT_GE(made.load(), 6);  // two during each of the three creations
    shmid_ds seg{};
    semid_ds lib{}, sec{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    ASSERT_EQ(semctl(gShmLibSemId, 0, IPC_STAT, &lib), 0);
    ASSERT_EQ(semctl(gShmSecSemId, 0, IPC_STAT, &sec), 0);
    EXPECT_EQ(std::vector<unsigned>({seg.shm_perm.mode & 0777u, lib.sem_perm.mode & 0777u, sec.sem_perm.mode & 0777u}),
              std::vector<unsigned>({0666, 0666, 0666}));
}

TEST(Store, GetShmAttachesAndReturnsSectionBase) {
    void* base = nullptr;
    ASSERT_EQ(Vond_shm_get_shm(26, &base), 0);
    EXPECT_EQ(static_cast<char*>(base) - static_cast<char*>(gShmData[0]), 540267);
    ASSERT_EQ(Vond_shm_get_shm(33, &base), 0);  // the last section
    EXPECT_EQ(base, gShmData[33]);
    test::install_hook();
    EXPECT_EQ(Vond_shm_get_shm(34, &base), -1);
    EXPECT_EQ(Vond_shm_get_shm(-1, &base), -1);
    EXPECT_EQ(test::count(1, "Vond_shm_get_shm", "Invalid sec_id=34.\n"), 1);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
}

TEST(Store, ConcurrentFirstAttachLogsRaceAvoided) {
    test::install_hook();
    // Hold the library lock so both threads pass the unlocked test and queue.
    gShmLibSemId = Vond_shm_init_sem(77777777, 1);
    ASSERT_GE(gShmLibSemId, 0);
    ASSERT_EQ(Vond_shm_sem_get(gShmLibSemId, 0), 0);
    int results[2] = {-9, -9};
    std::thread a([&] { results[0] = Vond_shm_init_shm(); });
    std::thread b([&] { results[1] = Vond_shm_init_shm(); });
    while (semctl(gShmLibSemId, 0, GETNCNT) < 2) usleep(1000);
    ASSERT_EQ(Vond_shm_sem_put(gShmLibSemId, 0), 0);
    a.join();
    b.join();
    EXPECT_EQ(results[0], 0);
    EXPECT_EQ(results[1], 0);
    EXPECT_EQ(test::count(9, "Vond_shm_init_shm", "race condition avoided\n"), 1);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
}

TEST(Store, OlderSmallerSegmentFailsEveryCall) {
    ASSERT_GE(shmget(77777779, 1000, IPC_CREAT | 0666), 0);
    test::install_hook();
    char byte;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(Vond_shm_init_shm(), -1);
        EXPECT_EQ(Vond_shm_memread(1, &byte, 0, 1), -1);
        EXPECT_EQ(Vond_shm_memwrite(1, &byte, 0, 1), -4);
    }
    EXPECT_EQ(test::count(1, "Vond_shm_init_shm", "SHMLIB: Error creating shared memory\n"), 6);
    EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad share memory init \n"), 2);
    EXPECT_EQ(gShmData[0], nullptr);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);  // released on every failure
}

TEST(Store, SectionsBeyondSegmentRefuseAttach) {
    test::install_hook();
    gShmSecSize[32] += 2263386;  // sections 1..33 now end one byte past the segment
    EXPECT_EQ(Vond_shm_init_shm(), -1);
    EXPECT_EQ(test::count(1, "SHML_sanity_check", "total_size=4035720 is greater than SHM_SIZE=4035719\n"), 1);
    EXPECT_EQ(test::count(1, "Vond_shm_init_shm", "The size of the sections is greater than SHM_SIZE\n"), 1);
    EXPECT_EQ(gShmData[0], nullptr);
    EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
    shmid_ds seg{};
    ASSERT_EQ(shmctl(gShmId, IPC_STAT, &seg), 0);
    EXPECT_EQ(seg.shm_nattch, 0u);  // detached again
}

// A creator killed between creating a set and setting its members leaves
// members at 0 that nobody holds. Such a set, never operated, is healed by
// the next attach; a member a live process holds is waited for as always.
TEST(Store, HalfInitialisedSetsHealAtAttach) {
    struct Case {
        const char* what;
        int32_t key;
        int count;
        int first_at_one;  // members first_at_one.. are 1, as a creator counting down left them
        bool held_by_live_process;
        bool heals;
        const char* message;
    };
    const Case cases[] = {
        {"section set, creator died", 77777812, 34, 20, false, true,
         "was never initialised (its creator died): set every member to 1\n"},
        {"library set, creator died", 77777777, 1, 1, false, true,
         "was never initialised (its creator died): set it to 1\n"},
        {"library set held by a live process", 77777777, 1, 1, true, false, nullptr},
        {"section set complete, never operated", 77777812, 34, 0, false, true, nullptr},  // left alone
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const test::ChildResult result = test::run_child([&c] {
            if (unshare(CLONE_NEWIPC) != 0) return 10;
            const int id = semget(c.key, c.count, IPC_CREAT | IPC_EXCL | 0666);
            for (int member = c.first_at_one; member < c.count; ++member) semctl(id, member, SETVAL, 1);
            int holder = -1;
            if (c.held_by_live_process) {
                if (semctl(id, 0, SETVAL, 1) != 0) return 11;
                holder = test::start_child([id] {
                    sembuf take{0, -1, SEM_UNDO};
                    semop(id, &take, 1);
                    pause();
                    return 0;
                });
                while (semctl(id, 0, GETVAL) != 0) usleep(1000);
            }
            const test::ChildResult attach = test::run_child([&c] {
                test::install_hook();
                const char* repair = c.message != nullptr ? c.message : "\n";  // none at all when complete
                return Vond_shm_init_shm() == 0 && test::count(1, "Vond_shm_init_shm", repair) == (c.message ? 1 : 0)
                           ? 0 : 1;
            }, c.heals ? 10 : 3);  // a repair takes its 1 s bound; a live holder is still waited for after 3 s
            if (holder > 0) {
                kill(holder, SIGKILL);
                test::wait_child(holder);
            }
            if (!c.heals) return attach.timed_out ? 0 : 12;  // still waiting for the holder
            if (attach.timed_out || attach.code != 0) return 13;
            for (int member = 0; member < c.count; ++member)
                if (semctl(id, member, GETVAL) != 1) return 14;
            return 0;
        }, 30);
        EXPECT_TRUE(result.exited && result.code == 0) << result.code;
    }
}

}  // namespace
