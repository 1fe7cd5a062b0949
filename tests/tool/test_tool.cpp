// shmtool as an operator runs it: a separate process on a store this test
// fills through the library. Every case is a fresh sandbox, so a fresh store.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <dirent.h>
#include <signal.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "harness.h"
#include "tool/tool_runner.h"

namespace {

using json = nlohmann::json;
using Bytes = std::vector<uint8_t>;

void put_bytes(int section, int offset, const Bytes& bytes) {
    ASSERT_EQ(Vond_shm_memwrite(section, bytes.data(), offset, int32_t(bytes.size())), 0);
}
Bytes section_bytes(int section) {
    Bytes b(size_t(gShmSecSize[section]));
    if (!b.empty()) {
        EXPECT_EQ(Vond_shm_memread(section, b.data(), 0, int32_t(b.size())), 0);
    }
    return b;
}
std::vector<Bytes> whole_store() {
    std::vector<Bytes> all;
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) all.push_back(section_bytes(s));
    return all;
}
void sdc_write(const std::string& text) {
    const uint32_t n = uint32_t(text.size());
    ASSERT_EQ(Vond_shm_write_sdc(&n, text.data()), 0);
}
std::string hex(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        char pair[3];
        snprintf(pair, sizeof pair, "%02x", c);
        out += pair;
    }
    return out;
}
Bytes file_bytes(const char* path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}
json run_json(const std::vector<std::string>& args) {
    std::vector<std::string> with = {"--json"};
    with.insert(with.end(), args.begin(), args.end());
    const tool::Result r = tool::run(with);
    EXPECT_EQ(r.status, 0) << r.err;
    return json::parse(r.out);  // one document, nothing else on stdout
}

// A sample platform: modular, system id 61, 16G AMD, ngm chassis, summary bit set.
void fill_platform() {
    for (int bit : {1, 5, 6, 13, 22}) ASSERT_EQ(Vond_set_quorx_progress(bit, 1), 0);
    put_bytes(SHM_SEC_PLATFORM_ID, 4, {2, 61, 3, 7, 5, 0x0c, 9, 1, 0});
    test::put(SHM_SEC_BIOS_STATE, 2676, 0x51);
    test::touch("/tmp/ec");
}

TEST(Tool, PlatformViewDecodesTheRecord) {
    fill_platform();
    const tool::Result r = tool::run({"platform"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "platform identity (section 6)\n"
              "  platform type      2 (modular)\n"
              "  system id          61\n"
              "  blade slot         3\n"
              "  controller type    7\n"
              "  generation         5 (16G or later)\n"
              "  chassis type       12 (0x0c, ngm bit)\n"
              "  post update        9\n"
              "  cpu type           1 (AMD)\n"
              "  serial PECI flag   0\n"
              "  product type       1 (/tmp/ec present)\n"
              "\n"
              "progress word 0x00402063\n"
              "  bits set           0 1 5 6 13 22\n"
              "  summary bit 0      set (bits 1 5 6 13 22 all set)\n"
              "\n"
              "predicates\n"
              "  isAMD                      yes\n"
              "  is14GAMD                   no\n"
              "  is15GAMD                   yes\n"
              "  is16G                      yes\n"
              "  isQV                       no\n"
              "  isVarduna                  no\n"
              "  isTesk                     no\n"
              "  isMorvast                  no\n"
              "  isQillan                   no\n"
              "  isDunmarch                 yes\n"
              "  is_ngm                     yes\n"
              "  is_modular_brask_chassis   no\n"
              "  IsBootFirstPolicyEnabled   yes\n"
              "  isPowerOnHookAvailable     yes\n"
              "  IsCPDimmPollingSupported   no\n"
              "  IsCPCpuCupsSupported       yes\n"
              "  isBiosDonePost             yes\n"
              "  serialPECIPresent          no\n");

    ASSERT_EQ(Vond_set_quorx_progress(13, 0), 0);  // the summary bit falls with it
    EXPECT_NE(tool::run({"platform"}).out.find("summary bit 0      clear (missing 13)\n"), std::string::npos);
}

TEST(Tool, InfoShowsAHeldLockItsHolderAndAWaiter) {
    int release[2];
    ASSERT_EQ(pipe(release), 0);
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const pid_t holder = test::start_child([&] {
        if (Vond_shm_lock_shm(SHM_SEC_PLATFORM_ID) != 0) return 1;
        char c;
        return read(release[0], &c, 1) == 1 && Vond_shm_unlock_shm(SHM_SEC_PLATFORM_ID) == 0 ? 0 : 2;
    });
    while (semctl(gShmSecSemId, SHM_SEC_PLATFORM_ID - 1, GETVAL) != 0) usleep(1000);
    const pid_t waiter = test::start_child([] {
        uint8_t b;
        return Vond_shm_memread(SHM_SEC_PLATFORM_ID, &b, 0, 1);
    });
    while (semctl(gShmSecSemId, SHM_SEC_PLATFORM_ID - 1, GETNCNT) != 1) usleep(1000);

    const json doc = run_json({"info"});
    const json& lock = doc["sections"][SHM_SEC_PLATFORM_ID]["lock"];
    EXPECT_EQ(lock["value"], 0);
    EXPECT_EQ(lock["last_pid"], holder);
    EXPECT_EQ(lock["waiting"], 1);
    EXPECT_EQ(doc["sections"][SHM_SEC_TIME]["lock"]["value"], 1);
    const tool::Result text = tool::run({"info"});
    const size_t at = text.out.find("platform identity");
    ASSERT_NE(at, std::string::npos);
    const std::string row = text.out.substr(at, text.out.find('\n', at) - at);
    EXPECT_NE(row.find(" HELD "), std::string::npos) << row;
    EXPECT_NE(row.find(" " + std::to_string(holder) + "       1  <- blocked"), std::string::npos) << row;
    EXPECT_NE(text.out.find("section 6: held by pid " + std::to_string(holder) + ", 1 waiting"), std::string::npos);

    ASSERT_EQ(write(release[1], "x", 1), 1);
    EXPECT_EQ(test::wait_child(holder).code, 0);
    EXPECT_EQ(test::wait_child(waiter).code, 0);
    EXPECT_NE(tool::run({"info"}).out.find("no section lock is held"), std::string::npos);
}

TEST(Tool, JsonOfEveryReadCommand) {
    fill_platform();
    const uint32_t eop = 1700000000, collected = 1;
    put_bytes(SHM_SEC_TIME, 0, Bytes((const uint8_t*)&eop, (const uint8_t*)&eop + 4));
    put_bytes(SHM_SEC_OS_DATA, 153, Bytes((const uint8_t*)&collected, (const uint8_t*)&collected + 4));
    ASSERT_EQ(Set_SHM_feature_capabilities(3, 0x1234), 0);
    test::put(SHM_SEC_PBT, 0, 3);          // table initialised
    test::put(SHM_SEC_PBT, 137091, 0xff);  // CPU VR 0 disabled
    test::put(SHM_SEC_POWER, 451, 7);
    test::put(SHM_SEC_BLADE, 385, 9);
    // FRU 17: initialised, device type 2 at locator 1, five bytes at offset 1000.
    put_bytes(SHM_SEC_FRU_DATA, 6, {1, 0, 1, 17, 0, 0, 0x40, 2, 1, 5, 0, 0xe8, 0x03, 0, 0, 0, 0});
    put_bytes(SHM_SEC_FRU_DATA, 1000, {'A', 'B', 'C', 'D', 'E'});
    test::put(SHM_SEC_OCP_MEZZ, 1, 17);
    // One Apache Pass module (type 7) in slot 4 on CPU 1, channel 1, worn 73 %.
    Bytes record(46);
    record[1] = 4, record[2] = 1, record[14] = 1, record[18] = 1, record[19] = 7;
    std::memcpy(&record[30], "DIMM.Socket.A1", 15);
    put_bytes(SHM_SEC_DIMM_INVENTORY, SHM_DIMM_INVENTORY_OFFSET, record);
    const float wear = 73.0f;
    put_bytes(SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET + 28, Bytes((const uint8_t*)&wear, (const uint8_t*)&wear + 4));
    test::put(SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET + 36, 4);
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("reader", &id), 0);
    sdc_write("first\n");

    json doc = run_json({"info"});
    EXPECT_EQ(doc["segment"]["size"], SHM_SIZE);
    EXPECT_EQ(doc["sections"].size(), 34u);
    EXPECT_EQ(doc["sections"][26]["offset"], 540267);
    EXPECT_EQ(doc["sections"][26]["size"], 524508);
    EXPECT_EQ(run_json({"dump", "platform", "4", "3"})["hex"], "023d03");
    doc = run_json({"platform"});
    EXPECT_EQ(doc["record"]["system_id"], 61);
    EXPECT_EQ(doc["record"]["blade_slot"], 3);
    EXPECT_EQ(doc["progress"]["bits"], json({0, 1, 5, 6, 13, 22}));
    EXPECT_EQ(doc["predicates"]["isDunmarch"], 1);
    doc = run_json({"time"});
    EXPECT_EQ(doc["eop_time"], eop);
    EXPECT_EQ(doc["os_data_collection_date"], "19700101000001.000000+000");
    EXPECT_GT(doc["uptime_seconds"].get<int64_t>(), 0);
    EXPECT_EQ(run_json({"caps"})["capabilities"][3]["value"], 0x1234);
    doc = run_json({"vr"});
    EXPECT_EQ(doc["cpu"][0]["state"], "disabled");
    EXPECT_EQ(doc["cpu"][1]["state"], "enabled");
    EXPECT_EQ(doc["memory"].size(), 8u);
    doc = run_json({"power"});
    EXPECT_EQ(doc["system_power_status"], 7);
    EXPECT_EQ(doc["blade_form_factor"], 9);
    EXPECT_EQ(doc["power_input_map"][7], json({4, 1}));
    doc = run_json({"fru"});
    EXPECT_EQ(doc["device_count"], 1);
    EXPECT_EQ(doc["entries"][0]["fru_id"], 17);
    EXPECT_EQ(doc["entries"][0]["data_offset"], 1000);
    EXPECT_EQ(doc["ocp_mezzanine_fru_id"], 17);
    EXPECT_EQ(run_json({"fru", "17"})["attribute"], 0x40);
    EXPECT_EQ(run_json({"fru", "0x11", "--data"})["hex"], hex("ABCDE"));
    doc = run_json({"dimm"});
    EXPECT_EQ(doc["apache_pass_count"], 1);
    EXPECT_EQ(doc["wear"], json::parse(R"([{"index":4,"wear":73,"fqdd":"DIMM.Socket.A1"}])"));
    doc = run_json({"sdc", "status"});
    EXPECT_EQ(doc["state"], "filling");
    EXPECT_EQ(doc["tail"], 6);
    EXPECT_EQ(doc["signature"]["valid"], true);
    EXPECT_EQ(doc["applications"][0]["name"], "reader");
    EXPECT_EQ(doc["applications"][0]["behind"], 6);
    EXPECT_EQ(doc["applications"][1]["registered"], false);
    EXPECT_EQ(run_json({"sdc", "export"})["hex"], hex("#first\n"));
    EXPECT_EQ(run_json({"sdc", "poll", "reader"})["hex"], hex("first\n"));
    EXPECT_EQ(run_json({"sdc", "poll", "reader"})["length"], 0);
}

TEST(Tool, DumpAndPokeGoThroughTheSection) {
    const tool::Result poke = tool::run({"poke", "sdc", "0x62", "48656c6c6f"});
    ASSERT_EQ(poke.status, 0) << poke.err;
    const tool::Result dump = tool::run({"dump", "26", "96", "16"});
    EXPECT_EQ(dump.out,
              "section 26 (SDC serial record ring), 16 of 524508 bytes from offset 96\n"
              "00000060  00 00 48 65 6c 6c 6f 00  00 00 00 00 00 00 00 00  |..Hello.........|\n");
    const tool::Result tail = tool::run({"dump", "6", "10"});
    EXPECT_EQ(tail.out.substr(tail.out.find('\n') + 1), "0000000a  00 00 00                                          |...|\n");
}

// Bad command lines and bad input: status 2, a message, and the store unchanged.
TEST(Tool, UsageErrorsChangeNothing) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    const auto before = whole_store();
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"bogus"},
        {"dump"},
        {"dump", "6", "0", "14"},
        {"dump", "6", "13"},
        {"dump", "0"},
        {"poke", "nosuch", "0", "00"},
        {"poke", "6", "0", "zz"},
        {"poke", "6", "0", "0"},
        {"poke", "6", "12", "0011"},
        {"poke", "34", "0", "00"},
        {"poke", "6", "-1", "00"},
        {"fru", "70000"},
        {"fru", "--data"},
        {"sdc"},
        {"sdc", "register", ""},
        {"sdc", "register", "a-name-of-21-bytes..."},
        {"sdc", "follow", "x", "--interval", "0"},
        {"sdc", "write", "/no/such/file"},
    };
    for (const auto& args : cases) {
        const tool::Result r = tool::run(args);
        std::string line;
        for (const auto& a : args) line += a + " ";
        EXPECT_EQ(r.status, 2) << line << r.out << r.err;
        EXPECT_FALSE(r.err.empty()) << line;
    }
    EXPECT_EQ(whole_store(), before);
    for (const std::vector<std::string>& help : {std::vector<std::string>{"--help"}, {"sdc", "follow", "--help"}}) {
        const tool::Result r = tool::run(help);
        EXPECT_EQ(r.status, 0);
        EXPECT_NE(r.out.find("Usage: shmtool"), std::string::npos);
    }
}

TEST(Tool, LibraryFailuresExitOneWithTheResultCode) {
    const tool::Result missing = tool::run({"fru", "5"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("Vond_shm_get_fruinfo returned 1: no such FRU"), std::string::npos) << missing.err;
    const tool::Result poll = tool::run({"sdc", "poll", "nobody"});
    EXPECT_EQ(poll.status, 1);
    EXPECT_NE(poll.err.find("'nobody' is not registered"), std::string::npos);
}

// Output that cannot be written is a failure, whether the text was still
// buffered at exit or a large write failed on the way (nothing left to flush).
TEST(Tool, OutputThatCannotBeWrittenExitsOneWithTheReason) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("a ring that is not empty\n");
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"info"}, "shmtool: cannot write output: No space left on device\n"},
        {{"--json", "info"}, "shmtool: cannot write output: No space left on device\n"},
        {{"sdc", "export"}, "shmtool: cannot write output: No space left on device\n"},
        {{"--help"}, "shmtool: cannot write output: No space left on device\n"},
        {{"sdc", "export", "/dev/full"}, "shmtool: cannot write /dev/full: No space left on device\n"},
    };
    for (const auto& c : cases) {
        const tool::Result r = tool::run(c.args, "", 60, "/dev/full");
        EXPECT_EQ(r.status, 1) << c.args.back() << r.err;
        EXPECT_EQ(r.err, c.message) << c.args.back();
    }
}

// A writer flips FRU 7's length between 16 and 60000 while the tool copies
// the block: sized from the length it saw first, the tool's buffer would
// overflow (the sanitized build reports it, the plain one often crashes).
TEST(Tool, FruDataWhileAWriterChangesTheLength) {
    put_bytes(22, 6, {1, 0});
    put_bytes(22, 8, {1, 7, 0, 0, 0, 0, 1, 16, 0, 0x00, 0x10, 0, 0, 0, 0});  // block at 4096
    const pid_t writer = test::start_u16_flipper(22, 8 + 7, 16, 60000);  // entry 0's dataLength
    int failed = 0;
    for (int run = 0; run < 20; ++run) {
        const tool::Result r = tool::run({"fru", "7", "--data"});
        if (r.status != 0) std::fprintf(stderr, "run %d: status %d\n%s", run, r.status, r.err.c_str());
        failed += r.status != 0;
    }
    kill(writer, SIGKILL);
    test::wait_child(writer);
    EXPECT_EQ(failed, 0);
}

TEST(Tool, VerboseShowsTheLibraryMessagesWithLevels) {
    const tool::Result quiet = tool::run({"fru", "5"});
    EXPECT_EQ(quiet.err.find("library L"), std::string::npos);
    const tool::Result verbose = tool::run({"-v", "fru", "5"});
    EXPECT_NE(verbose.err.find("library L9 (module 37): fru.cpp."), std::string::npos) << verbose.err;
}

TEST(Tool, PrivateStoreLeavesTheSharedOneAlone) {
    const tool::Result r = tool::run({"--private", "poke", "6", "4", "02"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Vond_get_platform_type(), 0u);
    ASSERT_EQ(tool::run({"poke", "6", "4", "02"}).status, 0);
    EXPECT_EQ(Vond_get_platform_type(), 2u);
}

TEST(Tool, SdcSaveThenInitRestoresTheSectionByteForByte) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("x");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("keeper", &id), 0);
    for (int i = 0; i < 50; ++i) sdc_write("saved record " + std::to_string(i) + "\n");
    const Bytes saved = section_bytes(SHM_SEC_SDC);
    test::touch(SDC_RECOVERY_FILE);  // an older image is replaced whole
    const tool::Result save = tool::run({"sdc", "save", SDC_RECOVERY_FILE});
    ASSERT_EQ(save.status, 0) << save.err;
    EXPECT_EQ(file_bytes(SDC_RECOVERY_FILE), saved);
    DIR* dir = opendir("/flash/data0");  // no temporary file is left beside it
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> names;
    while (const dirent* e = readdir(dir)) names.push_back(e->d_name);
    closedir(dir);
    EXPECT_EQ(names.size(), 3u);  // ".", ".." and sdc.bin

    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    sdc_write("later bytes that the restore must undo");
    ASSERT_EQ(Vond_shm_periodic_register_sdc("newcomer", &id), 0);
    ASSERT_NE(section_bytes(SHM_SEC_SDC), saved);
    const tool::Result init = tool::run({"sdc", "init"});
    ASSERT_EQ(init.status, 0) << init.err;
    EXPECT_NE(init.out.find("restored from " SDC_RECOVERY_FILE), std::string::npos) << init.out;
    EXPECT_EQ(section_bytes(SHM_SEC_SDC), saved);
}

// A restore that stops part-way leaves the image's first bytes over the
// section's own; init still succeeds, and the tool must say so. The file
// shrinks while the tool waits for the section lock this test holds during
// the restore's first write.
TEST(Tool, SdcInitReportsARestoreThatStoppedPartWay) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write(std::string(1000, 'I'));
    const Bytes image = section_bytes(SHM_SEC_SDC);
    std::ofstream(SDC_RECOVERY_FILE, std::ios::binary).write((const char*)image.data(), std::streamsize(image.size()));
    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    sdc_write(std::string(300000, 'S'));  // past the half that will still be restored

    ASSERT_EQ(Vond_shm_lock_shm(SHM_SEC_SDC), 0);
    tool::Running init = tool::start({"sdc", "init"});
    for (int ms = 0; semctl(gShmSecSemId, SHM_SEC_SDC - 1, GETNCNT) != 1 && ms < 30000; ms += 1) usleep(1000);
    ASSERT_EQ(semctl(gShmSecSemId, SHM_SEC_SDC - 1, GETNCNT), 1);  // the tool waits in the restore
    ASSERT_EQ(truncate(SDC_RECOVERY_FILE, SDC_RECOVERY_FILE_SIZE / 2), 0);
    ASSERT_EQ(Vond_shm_unlock_shm(SHM_SEC_SDC), 0);
    const std::string out = tool::read_until(init, "held\n");
    EXPECT_EQ(tool::stop(init, 0), 0);
    EXPECT_NE(out.find("SDC ready: restoring from " SDC_RECOVERY_FILE
                       " failed part-way: section 26 may now be partly overwritten by the image, header checked"),
              std::string::npos)
        << out;
    const Bytes mixed = section_bytes(SHM_SEC_SDC);
    EXPECT_EQ(mixed[0], 'I');       // from the image
    EXPECT_EQ(mixed[299999], 'S');  // the section's own
}

TEST(Tool, SdcSaveRefusesAnImageInitWouldIgnore) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);  // a fresh section: no signature
    const tool::Result refused = tool::run({"sdc", "save", "/tmp/image.bin"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(file_bytes("/tmp/image.bin").empty());
    EXPECT_EQ(tool::run({"sdc", "save", "--force", "/tmp/image.bin"}).status, 0);
    EXPECT_EQ(file_bytes("/tmp/image.bin").size(), size_t(SDC_RECOVERY_FILE_SIZE));
    EXPECT_EQ(tool::run({"sdc", "save", "--force", "/no/such/dir/image.bin"}).status, 1);
}

TEST(Tool, SdcPollAfterTheWriterWrappedDeliversEveryNewByte) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    ASSERT_EQ(tool::run({"sdc", "register", "late"}).status, 0);
    sdc_write(std::string(SDC_RING_SIZE - 100, '.'));
    ASSERT_EQ(tool::run({"sdc", "poll", "late"}).out.size(), size_t(SDC_RING_SIZE - 100));
    std::string fresh;
    for (int i = 0; fresh.size() < 300; ++i) fresh += "wrapped " + std::to_string(i) + "\n";
    sdc_write(fresh);  // crosses the ring's end
    const tool::Result r = tool::run({"sdc", "poll", "late"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, fresh);
}

TEST(Tool, SdcFollowStreamsWhatAProducerWrites) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("follower", &id), 0);
    tool::Running follow = tool::start({"sdc", "follow", "follower", "--interval", "0.05"});
    std::string expected;
    const pid_t producer = test::start_child([] {
        for (int i = 1; i <= 20; ++i) {
            const std::string record = "line " + std::to_string(i) + "\n";
            const uint32_t n = uint32_t(record.size());
            if (Vond_shm_write_sdc(&n, record.data()) != 0) return 1;
            usleep(20000);
        }
        return 0;
    });
    for (int i = 1; i <= 20; ++i) expected += "line " + std::to_string(i) + "\n";
    EXPECT_EQ(test::wait_child(producer, 30).code, 0);
    EXPECT_EQ(tool::read_until(follow, "line 20\n"), expected);
    EXPECT_EQ(tool::stop(follow, SIGINT), 0);
}

TEST(Tool, DemoRunsTheMainJob) {
    const tool::Result r = tool::run({"demo", "--records", "3", "--interval", "0.05"}, "", 100);
    ASSERT_EQ(r.status, 0) << r.err;
    for (int i = 1; i <= 3; ++i) {
        const std::string record = "record " + std::to_string(i) + " of 3: temperature " + std::to_string(40 + i) + " C";
        EXPECT_NE(r.out.find("consumer | " + record), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("export | " + record), std::string::npos);
    }
    EXPECT_NE(r.out.find("isDunmarch                 yes"), std::string::npos);
    EXPECT_NE(r.out.find("no section lock is held"), std::string::npos);
    EXPECT_EQ(Vond_get_platform_type(), 0u);  // the demo's store was its own
}

}  // namespace
