// shmtool facing bytes it did not write: process names, stored strings and
// file names that are not text, files that are not snapshots, and a store
// whose locks are stuck.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "tool_run.h"

namespace {

using namespace tool;

const char* const kTitleName = "\x1b]0;pwn\x07";  // sets a terminal's title
const char* const kNotUtf8 = "\xc0\xaf";           // an overlong "/"

// A child named `name` that takes `section`'s lock and keeps it; returns
// once the lock is held (the child creates the store if there is none).
pid_t start_holder(const char* name, int section) {
    const pid_t pid = test::start_child([=] {
        prctl(PR_SET_NAME, name);
        return Vond_shm_init_shm() == 0 && Vond_shm_lock_shm(section) == 0 ? pause() : 1;
    });
    for (int ms = 0; ms < 30000; ++ms, usleep(1000))
        if (const int set = semget(77777812, 0, 0); set >= 0 && semctl(set, section - 1, GETVAL) == 0) break;
    return pid;
}

void stop(pid_t pid) {
    kill(pid, SIGKILL);
    test::wait_child(pid);
}

TEST(ToolUntrusted, InfoShowsTheLastAttachBeforeItsOwn) {
    const pid_t holder = start_holder("holder", SHM_SEC_LAST);  // this process never attaches
    const Result r = run({"--json", "info"});
    stop(holder);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["segment"]["last_attach_pid"], holder) << r.out;
}

// Names chosen by any process or local writer reach the terminal escaped: a
// lock holder's (info), an application's (sdc status), a file's (snapshot
// diff). snapshot save - writes no binary to a terminal.
TEST(ToolUntrusted, HostileNamesReachTheTerminalEscaped) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    test::put_bytes(SHM_SEC_SDC, SDC_HEADER_OFFSET + 12, {0x1b, '[', '2', 'J', 'x'});  // application slot 0
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    const std::string hostile_file = std::string("/tmp/") + kTitleName + ".snap";
    std::filesystem::copy_file("/tmp/a.snap", hostile_file);
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const Result binary = run({"snapshot", "save", "-"}, ptsname(terminal));
    close(terminal);
    EXPECT_EQ(binary.status, 2);
    EXPECT_NE(binary.err.find("refusing to write binary to a terminal (redirect it, or give --force)"),
              std::string::npos) << binary.err;

    const pid_t holder = start_holder(kTitleName, SHM_SEC_LAST);
    const struct { Args args; std::string shown; } rows[] = {
        {{"info"}, "section 33: held by pid " + std::to_string(holder) + " (\\x1b]0;pwn\\x07)"},
        {{"sdc", "status"}, " \\x1b[2Jx "},
        {{"snapshot", "diff", "/tmp/a.snap", hostile_file}, "b: /tmp/\\x1b]0;pwn\\x07.snap ("},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find(row.shown), std::string::npos) << r.out;
        for (const unsigned char c : r.out + r.err) ASSERT_TRUE(c >= 0x20 || c == '\n') << int(c) << " in " << r.out;
    }
    stop(holder);
}

// A holder named with bytes that are not UTF-8, a Latin-1 file name: each
// command still prints one JSON document, the bytes as "\xNN".
TEST(ToolUntrusted, JsonSurvivesNamesThatAreNotUtf8) {
    ASSERT_EQ(run({"poke", "6", "0", "01"}).status, 0);
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    const std::string latin1 = "/tmp/caf\xe9.snap";
    std::filesystem::copy_file("/tmp/a.snap", latin1);
    const pid_t holder = start_holder(kNotUtf8, SHM_SEC_LAST);
    const struct { Args args; int status; const char* escaped; } rows[] = {
        {{"info"}, 0, R"("name": "\\xc0\\xaf")"},
        {{"doctor"}, 1, R"(\\xc0\\xaf)"},
        {{"snapshot", "diff", "/tmp/a.snap", latin1}, 0, R"("file": "/tmp/caf\\xe9.snap")"},
    };
    for (const auto& row : rows) {
        Args args = row.args;
        args.push_back("--json");
        const Result r = run(args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(args) << r.err;
        EXPECT_NO_THROW(json::parse(r.out)) << r.out << r.err;
        EXPECT_NE(r.out.find(row.escaped), std::string::npos) << r.out;
    }
    stop(holder);
}

// A FIFO, a device, a sparse file of 1 GiB or a header claiming 4 GiB: each
// is refused at once (status 2), having read no more than the header.
TEST(ToolUntrusted, SnapshotFilesAreCheckedBeforeTheyAreRead) {
    ASSERT_EQ(run({"poke", "6", "0", "01"}).status, 0);
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
    Bytes header(164);
    std::memcpy(header.data(), slurp("/tmp/a.snap").data(), header.size());
    test::write_file("/tmp/sparse.snap", header);
    ASSERT_EQ(truncate("/tmp/sparse.snap", 1 << 30), 0);
    std::memset(&header[20], 0xff, 4);  // shm_size
    test::write_file("/tmp/huge.snap", header);
    const struct { Args args; const char* reason; } rows[] = {
        {{"--snapshot", "/tmp/fifo", "dump", "6"}, "/tmp/fifo is not a regular file (a FIFO)"},
        {{"snapshot", "diff", "/tmp/a.snap", "/tmp/fifo"}, "/tmp/fifo is not a regular file (a FIFO)"},
        {{"--snapshot", "/dev/zero", "dump", "6"}, "/dev/zero is not a regular file (a character device)"},
        {{"--snapshot", "/tmp/sparse.snap", "platform"},
         "/tmp/sparse.snap is not a usable snapshot: the file is 1073741824 bytes, the header says 164 + 4035719"},
        {{"snapshot", "diff", "/tmp/huge.snap", "/tmp/a.snap"},
         "/tmp/huge.snap is not a usable snapshot: the header gives a segment of 4294967295 bytes"},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(row.args) << r.err;
        EXPECT_NE(r.err.find(row.reason), std::string::npos) << r.err;
    }
    rusage children{};
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &children), 0);
    EXPECT_LT(children.ru_maxrss, 256 * 1024) << "kB at most in one run of the tool";
}

// snapshot diff exits as diff does and decodes the SDC header; sdc status
// shows a corrupt ring, then exits 1; dump names the sections it accepts.
TEST(ToolUntrusted, DiffDecodesTheSdcHeaderAndStatusesFollowTheirModels) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    ASSERT_EQ(Vond_set_quorx_progress(1, 1) | Vond_set_quorx_progress(5, 1), 0);
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("reader", &id), 0);
    sdc_write("records\n");
    ASSERT_EQ(run({"snapshot", "save", "/tmp/b.snap"}).status, 0);

    const Result text = run({"snapshot", "diff", "/tmp/a.snap", "/tmp/b.snap"});
    EXPECT_EQ(text.status, 1) << text.err;
    EXPECT_NE(text.out.find("field progress               0x00000000 -> 0x00000022\n"), std::string::npos) << text.out;
    const Result r = run({"--json", "snapshot", "diff", "/tmp/a.snap", "/tmp/b.snap"});
    EXPECT_EQ(r.status, 1) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_TRUE(std::regex_match(doc["b"]["time"].get<std::string>(), std::regex("....-..-..T..:..:..Z")));
    json fields;
    for (const json& s : doc["sections"])
        for (const json& f : s.value("fields", json::array())) fields[f["field"].get<std::string>()] = f["new"];
    EXPECT_EQ(fields, json({{"progress", 0x22}, {"tail", 8}, {"written", 1},
                            {"applications[0].name", "reader"}})) << r.out;

    test::set_sdc_indexes(SDC_RING_SIZE, 0, 0);
    const struct { Args args; int status; const char* out; } rows[] = {
        {{"snapshot", "diff", "/tmp/b.snap", "/tmp/b.snap"}, 0, "no section changed\n"},
        {{"snapshot", "diff", "/tmp/b.snap", "/tmp/none"}, 2, ""},
        {{"sdc", "status"}, 1, "SDC ring (section 26): invalid\n"},
        {{"dump", "34"}, 2, ""},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_NE(r.out.find(row.out), std::string::npos) << r.out;
    }
    EXPECT_EQ(run({"dump", "34"}).err, "shmtool: bad section '34': expected 1 to 33\n");
}

// A lock held for good: --unlocked still reads the bytes behind it, takes
// no semaphore, and says (stderr, JSON, snapshot header) they may be torn.
TEST(ToolUntrusted, UnlockedReadsReachBytesBehindAStuckLock) {
    test::put(SHM_SEC_PLATFORM_ID, 5, 61);
    ASSERT_EQ(Vond_shm_lock_shm(SHM_SEC_PLATFORM_ID), 0);
    const auto semaphores = [] {  // values, then last pids, then the library lock's last pid
        std::vector<int> state = test::section_semaphore_values();
        for (int member = 0; member < SHM_SECTION_COUNT; ++member) state.push_back(semctl(gShmSecSemId, member, GETPID));
        state.push_back(semctl(gShmLibSemId, 0, GETPID));
        return state;
    };
    const std::vector<int> before = semaphores();
    const Result dump = run({"--json", "dump", "platform", "5", "1", "--unlocked"});
    EXPECT_EQ(run({"snapshot", "save", "--unlocked", "/tmp/u.snap"}).err,
              "shmtool: unlocked read: no lock was taken, so bytes written meanwhile may be torn\n");
    const Result diff = run({"--json", "snapshot", "diff", "/tmp/u.snap", "/tmp/u.snap"});
    EXPECT_EQ(semaphores(), before);
    ASSERT_EQ(dump.status, 0) << dump.err;
    EXPECT_EQ(json::parse(dump.out)["hex"], "3d");
    EXPECT_EQ(json::parse(dump.out)["unlocked"], true);
    ASSERT_EQ(diff.status, 0) << diff.err;
    EXPECT_EQ(json::parse(diff.out)["b"]["unlocked"], true) << diff.out;
}

}  // namespace
