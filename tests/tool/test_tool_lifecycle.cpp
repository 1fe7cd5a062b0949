// The SDC ring across reboots: the commands the systemd units run (read from
// the units themselves), the periodic save that writes only a changed ring,
// a save that cannot write, and doctor's check of a stale image.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <iterator>
#include <sstream>

#include "tool_run.h"

namespace tool {
namespace {

// The arguments after the tool on the `key`= line of a unit under tools/shmtool/systemd.
Args unit_command(const std::string& unit, const std::string& key) {
    std::ifstream file(TOOL_SOURCE_DIR "/../../tools/shmtool/systemd/" + unit + ".in");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind(key + "=@SHM_UNIT_SHMTOOL@ ", 0) != 0) continue;
        std::istringstream words(line.substr(line.find(' ') + 1));
        return {std::istream_iterator<std::string>(words), {}};
    }
    ADD_FAILURE() << "no " << key << " running shmtool in " << unit;
    return {};
}

std::string records(int from, int to) {
    std::string text;
    for (int i = from; i < to; ++i) text += "record " + std::to_string(i) + "\n";
    return text;
}

struct stat64 image_status() {
    struct stat64 status {};
    EXPECT_EQ(stat64(SDC_RECOVERY_FILE, &status), 0);
    return status;
}

TEST(ToolLifecycle, ARebootKeepsEverySavedRecordInOrder) {
    const Result boot = run(unit_command("shmtool-sdc.service", "ExecStart"));
    ASSERT_EQ(boot.status, 0) << boot.err;
    sdc_write("x");  // a consumer registered on an empty ring would miss the first byte
    ASSERT_EQ(run({"sdc", "register", "console"}).status, 0);
    const auto producer = [](int from, int to) {
        return test::run_child([=] {
            for (int i = from; i < to; ++i) sdc_write(records(i, i + 1));
            return testing::Test::HasFailure() ? 1 : 0;
        }).code;
    };
    ASSERT_EQ(producer(0, 300), 0);
    const Result periodic = run(unit_command("shmtool-sdc-save.service", "ExecStart"));
    ASSERT_EQ(periodic.status, 0) << periodic.err;
    ASSERT_EQ(producer(300, 500), 0);
    const Result shutdown = run(unit_command("shmtool-sdc.service", "ExecStop"));
    ASSERT_EQ(shutdown.status, 0) << shutdown.err;

    ASSERT_EQ(unshare(CLONE_NEWIPC), 0);  // the old store is gone: what the tool sees now is a fresh boot
    ASSERT_NE(run({"sdc", "status"}).err.find("no store"), std::string::npos);
    const Result restored = run(unit_command("shmtool-sdc.service", "ExecStart"));
    ASSERT_EQ(restored.status, 0) << restored.err;
    EXPECT_NE(restored.out.find("restored from " SDC_RECOVERY_FILE), std::string::npos) << restored.out;
    EXPECT_EQ(run({"sdc", "poll", "--as-consumer", "console"}).out, records(0, 500));
    EXPECT_EQ(run({"sdc", "export"}).out, "x" + records(0, 500));
}

// Nothing changed: no write at all (same inode and mtime), and nothing said
// under --quiet. A whole lap of other bytes leaves the header as it was and
// is still a change. A save removes what dead saves left beside the image.
TEST(ToolLifecycle, SaveIfChangedWritesOnlyAChangedRing) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write(std::string(SDC_RING_SIZE / 2, 'a'));
    sdc_write(std::string(SDC_RING_SIZE / 2, 'b'));  // full: Head now moves with Tail
    const Args save = {"sdc", "save", "--if-changed", "--quiet", SDC_RECOVERY_FILE};
    test::touch("/flash/data0/.sdc.bin.partial-Ab12Cd");  // a save killed before its rename left it
    test::touch("/flash/data0/.sdc.bin.partial-kept");     // not a save's name
    ASSERT_EQ(run(save).status, 0);
    EXPECT_FALSE(std::filesystem::exists("/flash/data0/.sdc.bin.partial-Ab12Cd"));
    EXPECT_TRUE(std::filesystem::exists("/flash/data0/.sdc.bin.partial-kept"));
    const Bytes full = section(SHM_SEC_SDC);
    const Bytes header(full.begin() + SDC_HEADER_OFFSET, full.end());
    const struct { const char* change; std::string bytes; int times; bool written; } rows[] = {
        {"nothing", "", 0, false},
        {"a whole lap", std::string(SDC_RING_SIZE / 2, 'c'), 2, true},
        {"a record", "one more record\n", 1, true},
    };
    for (const auto& row : rows) {
        for (int i = 0; i < row.times; ++i) sdc_write(row.bytes);
        const Bytes now = section(SHM_SEC_SDC);
        if (row.times == 2) { ASSERT_TRUE(Bytes(now.begin() + SDC_HEADER_OFFSET, now.end()) == header); }
        const struct stat64 before = image_status();
        usleep(20000);  // a rewrite would show in the mtime
        const Result r = run(save);
        const struct stat64 after = image_status();
        EXPECT_EQ(r.status, 0) << row.change << r.err;
        const bool rewritten = before.st_ino != after.st_ino || before.st_mtim.tv_sec != after.st_mtim.tv_sec ||
                               before.st_mtim.tv_nsec != after.st_mtim.tv_nsec;
        EXPECT_EQ(rewritten, row.written) << row.change;
        EXPECT_EQ(r.out.rfind("saved section 26 ", 0) == 0, row.written) << row.change << r.out;
        EXPECT_EQ(r.out.empty(), !row.written) << row.change << r.out;
        EXPECT_TRUE(slurp(SDC_RECOVERY_FILE) == std::string(now.begin(), now.end())) << row.change;
    }
}

// A flash that is full or read-only: status 1, a message that says the
// image already there is unchanged, that image intact and no partial file.
TEST(ToolLifecycle, ASaveThatCannotWriteLeavesTheOldImage) {
    ASSERT_EQ(mount("flash", "/flash/data0", "tmpfs", 0, "size=600k"), 0);  // one image, not two
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    ASSERT_EQ(run({"sdc", "save", SDC_RECOVERY_FILE}).status, 0);
    const std::string old = slurp(SDC_RECOVERY_FILE);
    sdc_write("never saved\n");
    const struct { unsigned long flags; const char* reason; } rows[] = {
        {0, "cannot write " SDC_RECOVERY_FILE ": No space left on device; the file already there is unchanged"},
        {MS_REMOUNT | MS_RDONLY, "beside " SDC_RECOVERY_FILE ": Read-only file system; the file already there is "
                                 "unchanged"},
    };
    for (const auto& row : rows) {
        if (row.flags != 0) { ASSERT_EQ(mount("flash", "/flash/data0", "tmpfs", row.flags, "size=600k"), 0); }
        const Result r = run({"sdc", "save", "--if-changed", "--quiet", SDC_RECOVERY_FILE});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find(row.reason), std::string::npos) << r.err;
        EXPECT_TRUE(slurp(SDC_RECOVERY_FILE) == old);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/flash/data0"), {}), 1);
    }
}

// doctor: an image older than three save intervals that differs from the
// ring is stale; an equal one is current however old, a recent one is the
// next save's to catch up.
TEST(ToolLifecycle, DoctorReportsAStaleImage) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("saved\n");
    ASSERT_EQ(run({"sdc", "save", SDC_RECOVERY_FILE}).status, 0);
    const struct { const char* record; int age; bool stale; } rows[] = {
        {nullptr, 100000, false},
        {"changed since\n", 100000, true},
        {nullptr, 60, false},
    };
    for (const auto& row : rows) {
        if (row.record != nullptr) sdc_write(row.record);
        const timespec times[2] = {{time(nullptr) - row.age, 0}, {time(nullptr) - row.age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, SDC_RECOVERY_FILE, times, 0), 0);
        const Result r = run({"--json", "doctor"});
        EXPECT_EQ(r.status, row.stale ? 1 : 0) << r.out << r.err;
        EXPECT_EQ(r.out.find("\"recovery_file.stale\"") != std::string::npos, row.stale) << r.out;
    }
}

}  // namespace
}  // namespace tool
