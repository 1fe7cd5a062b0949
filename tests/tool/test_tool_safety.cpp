// The tool beside live processes: a repair never raises a lock a live thread
// holds, repairs are serialised, a busy lock is no finding, waits say who
// holds the lock, a call that changed the store is never abandoned half-way,
// and a follow or a poll never takes a running consumer's records or leaves
// a slot behind.
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/file.h>

#include <fcntl.h>

#include "tool_run.h"

namespace {

using namespace tool;

constexpr int kMember = SHM_SEC_LAST - 1;  // section 33's lock

void wait_for(const std::function<bool()>& done, int ms = 30000) {
    for (int i = 0; i < ms && !done(); ++i) usleep(1000);
}

// A process holding section 33's lock until it is killed: its main thread
// has ended with pthread_exit (the leader is a zombie), another thread holds
// the lock.
pid_t start_holder_without_leader() {
    const pid_t pid = test::start_child([] {
        pthread_t thread;
        pthread_create(&thread, nullptr, [](void*) -> void* {
            if (Vond_shm_lock_shm(SHM_SEC_LAST) == 0) for (;;) pause();
            return nullptr;
        }, nullptr);
        // The main thread alone ends (the exit system call, not exit_group):
        // its leader becomes a zombie while the other thread runs on.
        return static_cast<int>(syscall(SYS_exit, 0));
    });
    wait_for([] { return semctl(gShmSecSemId, kMember, GETVAL) == 0; });
    return pid;
}

json finding(const Result& r, const std::string& check) {
    const json doc = json::parse(r.out);
    for (const json& f : doc["findings"])
        if (f["check"] == check) return f;
    return nullptr;
}

TEST(ToolSafety, DoctorNeverRaisesALockALiveThreadHolds) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    const pid_t holder = start_holder_without_leader();
    ASSERT_EQ(semctl(gShmSecSemId, kMember, GETVAL), 0);
    const Result repaired = run({"--json", "doctor", "--repair", "--yes"});
    EXPECT_EQ(semctl(gShmSecSemId, kMember, GETVAL), 0) << repaired.out;  // still the holder's alone
    const json held = finding(repaired, "semaphore.held");
    EXPECT_EQ(held["section"], SHM_SEC_LAST) << repaired.out;
    EXPECT_EQ(held["member"], kMember);
    EXPECT_EQ(held["pid"], holder);
    EXPECT_EQ(held["state"], "S");
    kill(holder, SIGSTOP);
    usleep(200000);
    const Result stopped = run({"doctor"});
    EXPECT_EQ(stopped.status, 1);
    EXPECT_NE(stopped.out.find("stopped (send SIGCONT)"), std::string::npos) << stopped.out;
    EXPECT_EQ(stopped.err.find("--repair"), std::string::npos) << stopped.err;  // nothing it may repair
    kill(holder, SIGKILL);
    test::wait_child(holder);
}

// A member left at 0 by a process that took it without undo and died.
void make_stuck_member() {
    ASSERT_EQ(test::run_child([] {
        sembuf take = {static_cast<unsigned short>(kMember), -1, 0};
        return semtimedop(gShmSecSemId, &take, 1, nullptr);
    }).code, 0);
}

// While another doctor holds the repair lock, a repair waits; meanwhile the
// member was raised and a live process took it: the repair finds that
// holder and leaves the member alone.
TEST(ToolSafety, RepairsAreSerialisedAndCheckTheHolderAgain) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    make_stuck_member();
    const int lock = open("/tmp/.shmtool-repair.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    const pid_t doctor = start({"doctor", "--repair", "--yes"});
    wait_for([] { return slurp(kErr).find("waiting for another doctor --repair") != std::string::npos; });
    ASSERT_NE(slurp(kErr).find("waiting for another doctor --repair"), std::string::npos) << slurp(kOut);
    ASSERT_EQ(semctl(gShmSecSemId, kMember, SETVAL, 1), 0);  // the other doctor's repair
    const pid_t taker = test::start_child([] { return Vond_shm_lock_shm(SHM_SEC_LAST) == 0 ? pause() : 1; });
    wait_for([] { return semctl(gShmSecSemId, kMember, GETVAL) == 0; });
    flock(lock, LOCK_UN);  // children share the descriptor: closing ours would not release it
    EXPECT_EQ(test::wait_child(doctor, 60).code, 1);
    EXPECT_EQ(semctl(gShmSecSemId, kMember, GETVAL), 0) << slurp(kOut);
    EXPECT_NE(slurp(kOut).find("it was operated meanwhile"), std::string::npos) << slurp(kOut);
    kill(taker, SIGKILL);
    test::wait_child(taker);
}

// A producer that holds section 26's lock half the time: a single look finds
// it held every other run.
TEST(ToolSafety, ABusyLockIsNoFinding) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    const pid_t producer = test::start_child([] {
        for (;;) {
            Vond_shm_lock_shm(SHM_SEC_SDC);
            usleep(1000);
            Vond_shm_unlock_shm(SHM_SEC_SDC);
            usleep(1000);
        }
        return 0;
    });
    for (int i = 0; i < 4; ++i) {
        const Result r = run({"doctor"});
        EXPECT_EQ(r.status, 0) << r.out;
    }
    kill(producer, SIGKILL);
    test::wait_child(producer);
}

// Without --timeout a wait is not silent: after a second it names the
// section and its holder, stopped or not.
TEST(ToolSafety, AWaitSaysWhoHoldsTheLock) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const pid_t holder = test::start_child([] { return Vond_shm_lock_shm(SHM_SEC_PLATFORM_ID) == 0 ? pause() : 1; });
    wait_for([] { return semctl(gShmSecSemId, SHM_SEC_PLATFORM_ID - 1, GETVAL) == 0; });
    kill(holder, SIGSTOP);
    const pid_t dump = start({"dump", "6"});
    const std::string want = "shmtool: waiting for section 6 (platform), held by pid " + std::to_string(holder) + " (";
    wait_for([&] { return slurp(kErr).find(want) != std::string::npos; }, 10000);
    EXPECT_NE(slurp(kErr).find(want), std::string::npos) << slurp(kErr);
    EXPECT_NE(slurp(kErr).find(", stopped (send SIGCONT))\n"), std::string::npos) << slurp(kErr);
    const Result info = run({"info"});  // and info, beside the held lock
    EXPECT_NE(info.out.find("section 6: held by pid " + std::to_string(holder) + " ("), std::string::npos) << info.out;
    EXPECT_NE(info.out.find(", stopped (send SIGCONT)), 1 waiting"), std::string::npos) << info.out;
    kill(holder, SIGKILL);  // the kernel gives the lock back
    test::wait_child(holder);
    EXPECT_EQ(test::wait_child(dump).code, 0);
}

// One take of a section lock fails inside the tool (through a preloaded
// semtimedop): a take past the first of a call that changes the store waits
// on, and a failed take is never printed as the store's value.
TEST(ToolSafety, TakesThatFail) {
    if (emulated()) GTEST_SKIP() << "a preloaded library would meet the emulator first";
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    test::write_file("/tmp/record", Bytes{'r', 'e', 'c', '\n'});
    const std::string preload = std::string("ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD=") + TAKE_FAULT_LIBRARY;
    const struct { Args args; std::string fault; int status; const char* err; } rows[] = {
        // The third take of the write (its Tail) meets a "holder" past the limit.
        {{"--timeout", "1", "sdc", "write", "/tmp/record"}, "SHM_TEST_FAIL_TAKE=3 SHM_TEST_FAIL_DELAY_MS=1200", 0, ""},
        {{"platform"}, "SHM_TEST_FAIL_TAKE=1 SHM_TEST_FAIL_ERRNO=22", 1,
         "shmtool: cannot take the lock of section 6 (platform): semop: Invalid argument\n"},
    };
    for (const auto& row : rows) {
        const test::ChildResult c = test::wait_child(start_in(row.args, preload + " " + row.fault), 60);
        EXPECT_EQ(c.code, row.status) << testing::PrintToString(row.args) << slurp(kErr);
        if (*row.err != 0) { EXPECT_EQ(slurp(kErr), row.err); }
        if (row.status != 0) { EXPECT_EQ(slurp(kOut), ""); }
    }
    Bytes ring(SDC_EXPORT_BUFFER_SIZE);
    uint32_t length = 0;
    ASSERT_EQ(Vond_shm_export_sdc(&length, ring.data()), 0);
    EXPECT_EQ(std::string(ring.begin(), ring.begin() + length), "#rec\n");  // written whole, header included
}

std::string slot_name(int id) { return test::sdc_header().SDCAppTable[id].Name; }

// A registered name belongs to its consumer: poll and follow refuse it
// unless told they are that consumer, and a refused one changes nothing.
// Ring bytes come from any local writer: to a terminal an escape sequence
// shows as text.
TEST(ToolSafety, PollAndFollowLeaveAConsumersRecords) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("consd", &id), 0);
    sdc_write("record 401 \033]0;owned\007\\ok\n");
    const SdcHeader before = test::sdc_header();
    const struct { Args args; int status; const char* err; } rows[] = {
        {{"sdc", "poll", "consd"}, 2, "is registered (slot 0)"},
        {{"sdc", "follow", "consd"}, 2, "give --as-consumer only if you are that consumer"},
        {{"sdc", "follow", "nobody", "--as-consumer"}, 2, "'nobody' is not registered"},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args);
        EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
    }
    const SdcHeader after = test::sdc_header();
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    const Terminal terminal;
    const Result mine = run({"sdc", "poll", "consd", "--as-consumer"}, terminal.path());
    EXPECT_EQ(mine.status, 0) << mine.err;
    EXPECT_EQ(terminal.read_all(), "record 401 \\x1b]0;owned\\x07\\\\ok\r\n");  // the terminal's line end is CR LF
}

// A follow that registered its own slot frees it however it ends; asked to
// keep it, it keeps it.
TEST(ToolSafety, AFollowFreesTheSlotItRegistered) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    const auto registered = [](const char* name) {
        return [name] { return slot_name(0) == name; };
    };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const pid_t follow = start({"sdc", "follow", "viewer", "-i", "0.05"});
        wait_for(registered("viewer"));
        ASSERT_EQ(slot_name(0), "viewer") << slurp(kErr);
        kill(follow, signal);
        EXPECT_EQ(test::wait_child(follow).code, 0) << signal;
        EXPECT_EQ(slot_name(0), "") << signal << slurp(kErr);
    }
    // Its reader goes away (head ends after the first byte).
    const pid_t piped = start_in({"sdc", "follow", "piped", "-i", "0.05"}, "", "head -c 1");
    wait_for(registered("piped"));
    for (int i = 0; i < 50 && slot_name(0) == "piped"; ++i) {
        sdc_write("more\n");
        usleep(50000);
    }
    test::wait_child(piped);
    EXPECT_EQ(slot_name(0), "") << slurp(kErr);
    const pid_t kept = start({"sdc", "follow", "kept", "--keep-slot", "-i", "0.05"});
    wait_for(registered("kept"));
    kill(kept, SIGINT);
    EXPECT_EQ(test::wait_child(kept).code, 0);
    EXPECT_EQ(slot_name(0), "kept");
}

}  // namespace

namespace {

// Offline, doctor checks what a snapshot holds (the SDC header and slots),
// says what it skipped, and repairs nothing.
TEST(ToolSafety, DoctorReadsASnapshot) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("lost", &id), 0);
    test::put_le32(SHM_SEC_SDC, test::sdc_last_offset(id), 0x90000);  // outside the ring
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    const Result r = run({"--json", "--snapshot", "/tmp/a.snap", "doctor"});
    EXPECT_EQ(r.status, 1) << r.err;
    const json slot = finding(r, "sdc.slot");
    EXPECT_EQ(slot["slot"], id) << r.out;
    EXPECT_EQ(slot["safe_repair"], false);
    EXPECT_NE(run({"--snapshot", "/tmp/a.snap", "doctor"}).out.find("skipped: the semaphore sets"), std::string::npos);
    EXPECT_EQ(run({"--snapshot", "/tmp/a.snap", "doctor", "--repair", "--yes"}).status, 2);
}

}  // namespace
