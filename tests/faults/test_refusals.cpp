// The kernel refuses a resource: IPC limits too small for the store, and
// semaphore sets removed under attached processes. Every call gives its
// documented result and message each time it is made, nothing hangs or
// crashes, and what does not need the missing resource goes on working.
// The limits belong to the test's private IPC namespace.
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <ostream>
#include <fstream>
#include <string>
#include <vector>

#include "harness.h"
#include "workload.h"

namespace {

std::string read_file(const char* path) {
    std::ifstream in(path);
    std::string text;
    std::getline(in, text);
    return text;
}

bool write_file(const char* path, const std::string& text) {
    std::ofstream out(path);
    out << text << "\n";
    out.flush();
    return static_cast<bool>(out);
}

struct Limit {
    const char* name;
    const char* file;
    std::string value;
    const char* attach_message;  // what each attach attempt logs
};

// 4035719 bytes are 986 pages of 4096.
const std::string kPages = std::to_string((SHM_SIZE + sysconf(_SC_PAGESIZE) - 1) / sysconf(_SC_PAGESIZE) - 1);

const Limit kLimits[] = {
    {"SegmentAboveShmmax", "/proc/sys/kernel/shmmax", "4035718", "SHMLIB: Error creating shared memory\n"},
    {"SegmentAboveShmall", "/proc/sys/kernel/shmall", kPages, "SHMLIB: Error creating shared memory\n"},
    {"NoSegmentIds", "/proc/sys/kernel/shmmni", "0", "SHMLIB: Error creating shared memory\n"},
    {"NoSemaphoreSetIds", "/proc/sys/kernel/sem", "32000 1024000000 500 0",
     "SHMLIB: Error creating shm lib semaphore\n"},
    {"SetOfThirtyFourAboveSemmsl", "/proc/sys/kernel/sem", "33 1024000000 500 32000",
     "SHMLIB: Error creating section semaphore\n"},
    {"ThirtyFiveSemaphoresAboveSemmns", "/proc/sys/kernel/sem", "32000 34 500 32000",
     "SHMLIB: Error creating section semaphore\n"},
};

void PrintTo(const Limit& limit, std::ostream* out) { *out << limit.name; }

class Refused : public ::testing::TestWithParam<Limit> {};

// While the limit stands every store call fails the same way, attach being
// tried anew each time, with the library lock free after each attempt; once
// the limit is lifted the next call attaches and the store works.
TEST_P(Refused, EveryCallFailsAlikeUntilTheLimitIsLifted) {
    const Limit& limit = GetParam();
    const std::string original = read_file(limit.file);
    ASSERT_TRUE(write_file(limit.file, limit.value));
    ASSERT_EQ(read_file(limit.file).substr(0, 2), limit.value.substr(0, 2));
    test::install_hook();

    constexpr int kRounds = 3;
    for (int round = 0; round < kRounds; ++round) {
        uint8_t byte = 7;
        const uint32_t one = 1;
        EXPECT_EQ(Vond_shm_init_shm(), -1);
        EXPECT_EQ(Vond_shm_memread(5, &byte, 0, 1), -1);
        EXPECT_EQ(Vond_shm_memwrite(5, &byte, 0, 1), -4);
        EXPECT_EQ(Vond_set_quorx_progress(3, 1), -1);
        EXPECT_EQ(Vond_shm_write_sdc(&one, &byte), -1);
        EXPECT_EQ(Vond_shm_lock_shm(5), -1);
        EXPECT_EQ(Vond_get_modular_chassis_type(), 247u);
        EXPECT_EQ(gShmData[0], nullptr);
        if (gShmLibSemId >= 0) {
            EXPECT_EQ(semctl(gShmLibSemId, 0, GETVAL), 1);
        }
        EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
    }
    // Attach attempts per round: init, memread, memwrite, progress, SDC
    // write, chassis getter.
    EXPECT_EQ(test::count(1, "Vond_shm_init_shm", limit.attach_message), 6 * kRounds);
    EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad share memory init \n"), kRounds);
    EXPECT_EQ(test::count(2, "Vond_shm_write_sdc", "Read SDC header section failed.\n"), kRounds);
    if (gShmId >= 0) {  // refused after the segment: it was detached again each time
        shmid_ds segment{};
        ASSERT_EQ(shmctl(gShmId, IPC_STAT, &segment), 0);
        EXPECT_EQ(segment.shm_nattch, 0u);
    }

    ASSERT_TRUE(write_file(limit.file, original));
    ASSERT_EQ(Vond_shm_memwrite(5, "ok", 0, 2), 0);
    char back[2];
    ASSERT_EQ(Vond_shm_memread(5, back, 0, 2), 0);
    EXPECT_EQ(std::string(back, 2), "ok");
    EXPECT_EQ(Vond_set_quorx_progress(3, 1), 0);
    EXPECT_EQ(Vond_get_quorx_progress(3), 1u);
    EXPECT_EQ(faults::locks_left_taken(), "");
}

INSTANTIATE_TEST_SUITE_P(Limits, Refused, ::testing::ValuesIn(kLimits),
                         [](const ::testing::TestParamInfo<Limit>& info) { return info.param.name; });

// A semaphore set removed (IPC_RMID) while processes are attached. A process
// blocked on a lock of the removed set wakes with a failure; the attached
// processes get the documented failure on every call that needs the set and
// keep working on everything else; they never open the set again. A process
// that attaches afterwards makes a new set and works.
struct Removal {
    const char* name;
    int32_t* set_id;
    std::function<int32_t()> take;     // held by one child while another waits
    std::function<int32_t()> release;
    std::function<int32_t()> wait;     // blocks while take is held
    int32_t locked_calls_result;       // memread, memwrite, set_bit, progress, lock
    int32_t base_lookup_result;        // Vond_shm_get_shm
};

int32_t get_base() {
    void* base = nullptr;
    return Vond_shm_get_shm(9, &base);
}

const Removal kRemovals[] = {
    {"SectionSet", &gShmSecSemId, [] { return Vond_shm_lock_shm(9); }, [] { return Vond_shm_unlock_shm(9); },
     [] { char b; return Vond_shm_memread(9, &b, 0, 1); }, -1, 0},
    {"LibrarySet", &gShmLibSemId, [] { return Vond_shm_sem_get(gShmLibSemId, 0); },
     [] { return Vond_shm_sem_put(gShmLibSemId, 0); }, get_base, 0, -1},
};

void PrintTo(const Removal& removal, std::ostream* out) { *out << removal.name; }

class Removed : public ::testing::TestWithParam<Removal> {};

TEST_P(Removed, AttachedProcessesFailCleanlyANewcomerWorks) {
    const Removal& removal = GetParam();
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    // Forked before this process attaches, so it attaches by itself later.
    const pid_t newcomer = test::start_child([&] {
        char go;
        if (read(gate[0], &go, 1) != 1) return 9;
        if (Vond_shm_memwrite(9, "new", 0, 3) != 0 || get_base() != 0) return 1;
        char back[3];
        if (Vond_shm_memread(9, back, 0, 3) != 0 || std::string(back, 3) != "new") return 2;
        const int32_t current = removal.set_id == &gShmLibSemId ? semget(77777777, 1, 0) : semget(77777812, 34, 0);
        return current >= 0 && current == *removal.set_id ? 0 : 3;  // it made the set it uses
    });
    test::install_hook();
    ASSERT_EQ(Vond_shm_memwrite(9, "old", 0, 3), 0);

    int held[2];
    ASSERT_EQ(pipe(held), 0);
    const pid_t holder = test::start_child([&] {
        if (removal.take() != 0) return 1;
        (void)!write(held[1], "h", 1);
        usleep(300000);  // the set is gone by then
        return removal.release() == -1 ? 0 : 2;
    });
    char h;
    ASSERT_EQ(read(held[0], &h, 1), 1);
    const pid_t waiter = test::start_child([&] { return removal.wait() == -1 ? 0 : 1; });
    const int32_t member = removal.set_id == &gShmSecSemId ? 8 : 0;
    while (semctl(*removal.set_id, member, GETNCNT) < 1) usleep(1000);

    const int32_t removed_id = *removal.set_id;
    ASSERT_EQ(semctl(removed_id, 0, IPC_RMID), 0);
    const test::ChildResult woken = test::wait_child(waiter, 10);
    EXPECT_FALSE(woken.timed_out) << "a waiter on the removed set hangs";
    EXPECT_TRUE(woken.exited && woken.code == 0);
    const test::ChildResult released = test::wait_child(holder, 10);
    EXPECT_TRUE(released.exited && released.code == 0);

    test::clear_messages();
    for (int round = 0; round < 2; ++round) {
        char bytes[3] = {};
        EXPECT_EQ(Vond_shm_memread(9, bytes, 0, 3), removal.locked_calls_result);
        EXPECT_EQ(Vond_shm_memwrite(9, "old", 0, 3), removal.locked_calls_result);
        EXPECT_EQ(Vond_shm_mem_set_bit_on_uint(9, 0, 1, 0), removal.locked_calls_result);
        EXPECT_EQ(Vond_set_quorx_progress(4, 1), removal.locked_calls_result);
        const int32_t locked = Vond_shm_lock_shm(10);
        EXPECT_EQ(locked, removal.locked_calls_result);
        if (locked == 0) {
            EXPECT_EQ(Vond_shm_unlock_shm(10), 0);
        }
        EXPECT_EQ(get_base(), removal.base_lookup_result);
        EXPECT_EQ(Vond_shm_memread_unlocked(9, bytes, 0, 3), 0);  // needs no lock at all
        EXPECT_EQ(std::string(bytes, 3), "old");
        EXPECT_EQ(*removal.set_id, removed_id);  // never opened again
        EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
    }
    if (removal.locked_calls_result == -1) {
        EXPECT_EQ(test::count(1, "Vond_shm_memread", "Unable to get the section semaphore.\n"), 2);
        EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad shared memory section semiphore get\n"), 2);
        EXPECT_EQ(test::count(1, "Vond_shm_mem_set_bit_on_uint", "bad shared memory section semiphore get\n"), 2);
        EXPECT_EQ(test::count(1, "Vond_shm_sem_get", "SHMLIB: Error getting semaphore\n: 22 invalid error number\n"),
                  10);
    } else {
        EXPECT_EQ(test::count(1, "Vond_shm_get_shm", "Unable to get the lib semaphore.\n"), 2);
    }

    ASSERT_EQ(write(gate[1], "g", 1), 1);
    const test::ChildResult joined = test::wait_child(newcomer, 10);
    EXPECT_TRUE(joined.exited && joined.code == 0) << joined.code;
    char bytes[3];
    ASSERT_EQ(Vond_shm_memread_unlocked(9, bytes, 0, 3), 0);
    EXPECT_EQ(std::string(bytes, 3), "new");  // both still share the segment
}

INSTANTIATE_TEST_SUITE_P(Sets, Removed, ::testing::ValuesIn(kRemovals),
                         [](const ::testing::TestParamInfo<Removal>& info) { return info.param.name; });

}  // namespace
