// shmtool as an operator runs it: its own process (through the cross build's
// emulator where there is one) on a store this test fills through the
// library. Every case is a fresh sandbox, so a fresh store. The library's
// answers are its own tests' business; these check what the tool makes of
// them: decoding, JSON, exit statuses, output errors and the SDC commands.
#include "tool_run.h"

namespace {

using namespace tool;

// The platform view against its golden text, and each read command's JSON
// document: JSON pointer -> value (null: present, any value).
TEST(Tool, ReadCommandsShowTheStore) {
    // Modular, system id 61, 16G AMD, ngm chassis, summary bit set; the record goes in through poke.
    for (int bit : {1, 5, 6, 13, 22}) ASSERT_EQ(Vond_set_quorx_progress(bit, 1), 0);
    ASSERT_EQ(run({"poke", "platform", "4", "023d0307050c090100"}).status, 0);
    test::put(SHM_SEC_BIOS_STATE, 2676, 0x51);
    test::touch("/tmp/ec");
    const Result platform = run({"platform"});
    ASSERT_EQ(platform.status, 0) << platform.err;
    EXPECT_EQ(platform.out, slurp(TOOL_SOURCE_DIR "/platform.expected"));

    test::put_le32(SHM_SEC_TIME, 0, 1700000000);
    test::put_le32(SHM_SEC_OS_DATA, 153, 1);
    ASSERT_EQ(Set_SHM_feature_capabilities(3, 0x1234), 0);
    test::put(SHM_SEC_PBT, 0, 3);          // table initialised
    test::put(SHM_SEC_PBT, 137091, 0xff);  // CPU VR 0 disabled
    test::put(SHM_SEC_POWER, 451, 7);
    test::put(SHM_SEC_BLADE, 385, 9);
    // FRU 17: device type 2 at locator 1, five bytes at offset 1000; also the OCP mezzanine.
    test::put_bytes(SHM_SEC_FRU_DATA, 6, {1, 0, 1, 17, 0, 0, 0x40, 2, 1, 5, 0, 0xe8, 0x03, 0, 0, 0, 0});
    test::put_bytes(SHM_SEC_FRU_DATA, 1000, {'A', 'B', 'C', 'D', 'E'});
    test::put(SHM_SEC_OCP_MEZZ, 1, 17);
    // One Apache Pass module (type 7) in slot 4 on CPU 1, channel 1, worn 73 %.
    Bytes record(SHM_DIMM_INVENTORY_RECORD_SIZE);
    record[1] = 4, record[2] = 1, record[14] = 1, record[18] = 1, record[19] = 7;
    std::memcpy(&record[30], "DIMM.Socket.A1", 15);
    test::put_bytes(SHM_SEC_DIMM_INVENTORY, SHM_DIMM_INVENTORY_OFFSET, record);
    test::put_le32(SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET + 28, 0x42920000);  // 73.0f
    test::put(SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET + 36, 4);
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("reader", &id), 0);
    sdc_write("first\n");
    ASSERT_EQ(Vond_shm_lock_shm(SHM_SEC_LAST), 0);  // a held lock, which no read command takes

    const struct { Args args; json fields; } rows[] = {
        {{"info"}, {{"/segment/size", SHM_SIZE}, {"/sections/26/offset", 540267}, {"/sections/26/size", 524508},
                    {"/sections/33/lock/value", 0}, {"/sections/33/lock/last_pid", getpid()},
                    {"/sections/6/lock/value", 1}}},
        {{"dump", "platform", "4", "3"}, {{"/hex", "023d03"}}},
        {{"platform"}, {{"/record/system_id", 61}, {"/record/blade_slot", 3}, {"/predicates/is_dunmarch", true},
                        {"/progress/bits", {0, 1, 5, 6, 13, 22}}}},
        {{"time"}, {{"/eop_time", "2023-11-14T22:13:20Z"}, {"/eop_time_seconds", 1700000000}, {"/os_data_collection_date_text", "19700101000001.000000+000"},
                    {"/uptime_seconds", nullptr}, {"/boot_time", nullptr}}},
        {{"caps"}, {{"/capabilities/3/value", 0x1234}}},
        {{"vr"}, {{"/cpu/0/state", "disabled"}, {"/cpu/1/state", "enabled"}, {"/memory/7/state", "enabled"}}},
        {{"power"}, {{"/system_power_status", 7}, {"/blade_form_factor", 9}, {"/power_input_map/7", {4, 1}}}},
        {{"fru"}, {{"/device_count", 1}, {"/entries/0/fru_id", 17}, {"/entries/0/data_offset", 1000},
                   {"/ocp_mezzanine_fru_id", 17}}},
        {{"fru", "17"}, {{"/attribute", 0x40}}},
        {{"fru", "0x11", "--data"}, {{"/hex", "4142434445"}}},
        {{"dimm"}, {{"/apache_pass_count", 1}, {"/wear/0/index", 4}, {"/wear/0/wear", 73},
                    {"/wear/0/fqdd", "DIMM.Socket.A1"}}},
        {{"sdc", "status"}, {{"/state", "filling"}, {"/tail", 6}, {"/signature/valid", true},
                             {"/applications/0/name", "reader"}, {"/applications/0/behind", 6},
                             {"/applications/1/registered", false}}},
        {{"sdc", "export"}, {{"/hex", "2366697273740a"}}},
        {{"sdc", "poll", "reader", "--as-consumer"}, {{"/hex", "66697273740a"}, {"/length", 6}}},
        {{"poke", "blade", "0", "0102"}, {{"/section", 16}, {"/offset", 0}, {"/written", 2}}},
    };
    for (const auto& row : rows) {
        Args args = row.args;
        args.push_back("--json");
        const Result r = run(args);
        ASSERT_EQ(r.status, 0) << testing::PrintToString(args) << r.err;
        const json doc = json::parse(r.out);  // one document, nothing else on stdout
        EXPECT_EQ(nlohmann::ordered_json::parse(r.out).begin().key() + doc["schema"].dump(), "schema1") << r.out;
        for (const auto& [pointer, want] : row.fields.items())
            EXPECT_TRUE(doc.contains(json::json_pointer(pointer)) &&
                        (want.is_null() || doc[json::json_pointer(pointer)] == want))
                << testing::PrintToString(args) << " " << pointer << " in " << r.out;
    }
    ASSERT_EQ(Vond_set_quorx_progress(13, 0), 0);  // the summary bit falls with it
    EXPECT_NE(run({"platform"}).out.find("summary bit 0      clear (missing 13)\n"), std::string::npos);
}

// Bad command lines and bad input: status 2, a message, and the store unchanged.
TEST(Tool, UsageErrorsChangeNothing) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    const Bytes before(static_cast<uint8_t*>(gShmData[0]), static_cast<uint8_t*>(gShmData[0]) + SHM_SIZE);
    const Args rows[] = {
        {}, {"bogus"}, {"dump"}, {"dump", "6", "0", "14"}, {"dump", "6", "13"}, {"dump", "0"},
        {"poke", "nosuch", "0", "00"}, {"poke", "6", "0", "zz"}, {"poke", "6", "0", "0"},
        {"poke", "6", "12", "0011"}, {"poke", "34", "0", "00"}, {"poke", "6", "-1", "00"},
        {"fru", "70000"}, {"fru", "--data"}, {"sdc"}, {"sdc", "register", ""},
        {"sdc", "register", "a-name-of-21-bytes..."}, {"sdc", "follow", "x", "--interval", "0"},
        {"sdc", "write", "/no/such/file"},
    };
    for (const Args& args : rows) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(args) << r.out << r.err;
        EXPECT_FALSE(r.err.empty()) << testing::PrintToString(args);
    }
    EXPECT_TRUE(Bytes(static_cast<uint8_t*>(gShmData[0]), static_cast<uint8_t*>(gShmData[0]) + SHM_SIZE) == before);
}

// Failures of the library (its call, result code and meaning) or of the
// system, and output that cannot be written, whether still buffered at exit
// or refused on the way: status 1 and the reason. Only -v adds the library's
// own messages, with their levels.
TEST(Tool, FailuresExitOneWithTheReason) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("a ring that is not empty\n");
    test::put(SHM_SEC_SDC, SDC_HEADER_OFFSET + offsetof(SdcHeader, Signature), '?');  // init would ignore an image
    const std::string full = ": No space left on device\n";
    const struct { Args args; const char* out; std::string reason; } rows[] = {
        {{"fru", "5"}, kOut, "Vond_shm_get_fruinfo returned 1: no such FRU"},
        {{"-v", "fru", "5"}, kOut, "library L9 (module 37): fru.cpp."},
        {{"sdc", "poll", "nobody"}, kOut, "'nobody' is not registered"},
        {{"sdc", "save", "/tmp/image.bin"}, kOut, "no valid signature, so init would ignore the image"},
        {{"sdc", "save", "--force", "/no/dir/image.bin"}, kOut, "cannot create a temporary file beside /no/dir/"},
        {{"info"}, "/dev/full", "shmtool: cannot write output" + full},
        {{"--json", "info"}, "/dev/full", "shmtool: cannot write output" + full},
        {{"sdc", "export"}, "/dev/full", "shmtool: cannot write output" + full},
        {{"--help"}, "/dev/full", "shmtool: cannot write output" + full},
        {{"sdc", "export", "/dev/full"}, "/dev/full", "shmtool: cannot write /dev/full" + full},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args, row.out);
        EXPECT_EQ(r.status, 1) << testing::PrintToString(row.args);
        EXPECT_TRUE(row.out == kOut ? r.err.find(row.reason) != std::string::npos : r.err == row.reason) << r.err;
        EXPECT_EQ(r.err.find("library L") != std::string::npos, row.args[0] == "-v") << r.err;
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/image.bin"));
}

// A writer flips FRU 7's length between 16 and 60000 while the tool copies
// the block: sized from the length it saw first, the tool's buffer would
// overflow (the sanitized build reports it, the plain one often crashes).
TEST(Tool, FruDataWhileAWriterChangesTheLength) {
    test::put_bytes(SHM_SEC_FRU_DATA, 6, {1, 0});
    test::put_bytes(SHM_SEC_FRU_DATA, 8, {1, 7, 0, 0, 0, 0, 1, 16, 0, 0x00, 0x10, 0, 0, 0, 0});  // block at 4096
    const pid_t writer = test::start_u16_flipper(SHM_SEC_FRU_DATA, 8 + 7, 16, 60000);  // entry 0's dataLength
    for (int i = 0; i < 20; ++i) {
        const Result r = run({"fru", "7", "--data"});
        EXPECT_EQ(r.status, 0) << "run " << i << "\n" << r.err;
    }
    kill(writer, SIGKILL);
    test::wait_child(writer);
}

// A restore that stops part-way leaves the image's first bytes over the
// section's own; init still succeeds, and the tool must say so. The file
// shrinks while the tool waits for the section lock this test holds during
// the restore's first write.
TEST(Tool, SdcInitReportsARestoreThatStoppedPartWay) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write(std::string(1000, 'I'));
    test::write_file(SDC_RECOVERY_FILE, section(SHM_SEC_SDC));
    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    sdc_write(std::string(300000, 'S'));  // past the half that will still be restored

    ASSERT_EQ(Vond_shm_lock_shm(SHM_SEC_SDC), 0);
    const pid_t init = start({"sdc", "init", "--force"});
    for (int ms = 0; semctl(gShmSecSemId, SHM_SEC_SDC - 1, GETNCNT) != 1 && ms < 30000; ++ms) usleep(1000);
    ASSERT_EQ(semctl(gShmSecSemId, SHM_SEC_SDC - 1, GETNCNT), 1);  // the tool waits in the restore
    ASSERT_EQ(truncate(SDC_RECOVERY_FILE, SDC_RECOVERY_FILE_SIZE / 2), 0);
    ASSERT_EQ(Vond_shm_unlock_shm(SHM_SEC_SDC), 0);
    EXPECT_EQ(test::wait_child(init, 100).code, 0);
    EXPECT_NE(slurp(kOut).find("SDC ready: restoring from " SDC_RECOVERY_FILE " failed part-way: section 26 may now "
                               "be partly overwritten by the image, header checked"), std::string::npos) << slurp(kOut);
    const Bytes mixed = section(SHM_SEC_SDC);
    EXPECT_EQ(mixed[0], 'I');       // from the image
    EXPECT_EQ(mixed[299999], 'S');  // the section's own
}

// The producer's records cross the ring's end: the poll that spans it must
// deliver the bytes before the end and those after it, in order.
TEST(Tool, SdcFollowStreamsWhatAProducerWrites) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    int32_t id = -1;
    ASSERT_EQ(Vond_shm_periodic_register_sdc("follower", &id), 0);
    std::string expected(SDC_RING_SIZE - 100, '.');
    sdc_write(expected);
    const pid_t follow = start({"sdc", "follow", "follower", "--as-consumer", "--interval", "0.05"});
    ASSERT_EQ(output_of_size(expected.size()).size(), expected.size());  // caught up before the producer starts
    for (int i = 1; i <= 20; ++i) {  // this test is the producer
        const std::string record = "line " + std::to_string(i) + "\n";
        sdc_write(record);
        expected += record;
        usleep(20000);
    }
    const std::string out = output_of_size(expected.size());
    EXPECT_TRUE(out == expected) << out.size() << " bytes, ending " << out.substr(SDC_RING_SIZE - 200);
    kill(follow, SIGINT);
    EXPECT_EQ(test::wait_child(follow).code, 0);
}

TEST(Tool, DemoRunsTheMainJob) {
    const Result r = run({"demo", "--records", "3", "--interval", "0.05"});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const char* line : {"consumer | record 1 of 3: temperature 41 C", "consumer | record 3 of 3: temperature 43 C",
                             "export | record 1 of 3", "export | record 3 of 3", "isDunmarch                 yes",
                             "no section lock is held"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    EXPECT_EQ(Vond_get_platform_type(), 0u);  // the demo's store was its own
}

// wts: waiting for a lock with a limit, snapshots.
TEST(Tool, TimeoutGivesUpOnAHeldLockAndChangesNoMember) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const pid_t holder = test::start_child([] { return Vond_shm_lock_shm(SHM_SEC_PLATFORM_ID) == 0 ? pause() : 1; });
    for (int i = 0; i < 10000 && semctl(gShmSecSemId, SHM_SEC_PLATFORM_ID - 1, GETVAL) != 0; ++i) usleep(1000);
    std::string name = slurp(("/proc/" + std::to_string(holder) + "/comm").c_str());
    name = name.substr(0, name.find('\n'));
    std::vector<unsigned short> before(SHM_SECTION_COUNT), after(SHM_SECTION_COUNT);
    ASSERT_EQ(semctl(gShmSecSemId, 0, GETALL, before.data()), 0);
    ASSERT_EQ(before[SHM_SEC_PLATFORM_ID - 1], 0) << "the holder never took the lock";
    const Result r = run({"--timeout", "2", "platform"});
    ASSERT_EQ(semctl(gShmSecSemId, 0, GETALL, after.data()), 0);
    kill(holder, SIGKILL);
    test::wait_child(holder);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.err.find("shmtool: timed out after 2 s waiting for section 6 (platform), held by pid " +
                         std::to_string(holder) + " (" + name + ")"), std::string::npos) << r.err;
    EXPECT_EQ(before, after);
}

TEST(Tool, SnapshotDiffNamesThePokedByteAndReadCommandsReadTheFile) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);  // snapshot save saves a store, never creates one
    ASSERT_EQ(run({"snapshot", "save", "/tmp/a.snap"}).status, 0);
    test::put(SHM_SEC_PLATFORM_ID, 5, 61);
    ASSERT_EQ(run({"snapshot", "save", "/tmp/b.snap"}).status, 0);
    const Result diff = run({"--json", "snapshot", "diff", "/tmp/a.snap", "/tmp/b.snap"});
    ASSERT_EQ(diff.status, 1) << diff.err;  // as diff: 1 when they differ
    const json d = json::parse(diff.out);
    ASSERT_EQ(d["sections"].size(), 1u) << diff.out;
    EXPECT_EQ(d["sections"][0]["section"], SHM_SEC_PLATFORM_ID);
    EXPECT_EQ(d["sections"][0]["runs"], json::parse(R"([{"offset": 5, "length": 1, "old": "00", "new": "3d"}])"));
    EXPECT_EQ(d["sections"][0]["fields"][0]["field"], "system_id");
    const Result old = run({"--json", "--snapshot", "/tmp/a.snap", "platform"});
    ASSERT_EQ(old.status, 0) << old.err;
    EXPECT_EQ(json::parse(old.out)["record"]["system_id"], 0) << old.out;
    EXPECT_EQ(json::parse(old.out)["product_type_from_this_host"], true) << old.out;  // /tmp/ec is not in a snapshot
    EXPECT_EQ(run({"--snapshot", "/tmp/a.snap", "poke", "platform", "5", "00"}).status, 2);
    EXPECT_EQ(Vond_get_system_id(), 61u);
}

// sdc: init/restore over a ring holding data only with --force; follow --no-register takes no slot.
TEST(Tool, SdcRestoresOnlyOverAnEmptyRingUnlessForced) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("saved bytes\n");
    const Bytes saved = section(SHM_SEC_SDC);
    test::write_file(SDC_RECOVERY_FILE, saved);
    ASSERT_EQ(Vond_shm_clear_sdc(), 0);
    sdc_write("newer bytes, never saved\n");
    const Bytes newer = section(SHM_SEC_SDC);
    const struct { Args args; bool empty; int status; const Bytes& after; } rows[] = {
        {{"sdc", "init"}, false, 1, newer},
        {{"sdc", "restore", SDC_RECOVERY_FILE}, false, 1, newer},
        {{"sdc", "init", "--force"}, false, 0, saved},
        {{"sdc", "restore", "--force", SDC_RECOVERY_FILE}, false, 0, saved},
        {{"sdc", "restore", SDC_RECOVERY_FILE}, true, 0, saved},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(Vond_shm_memwrite(SHM_SEC_SDC, newer.data(), 0, int32_t(newer.size())), 0);
        if (row.empty) { ASSERT_EQ(Vond_shm_clear_sdc(), 0); }
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_EQ(r.err.find("the SDC ring is not empty") != std::string::npos, row.status == 1) << r.err;
        EXPECT_TRUE(section(SHM_SEC_SDC) == row.after) << testing::PrintToString(row.args);
    }
}

TEST(Tool, SdcFollowWithoutRegisteringLeavesTheSlotsAlone) {
    ASSERT_EQ(Vond_shm_init_sdc(), 0);
    sdc_write("#");
    ASSERT_EQ(run({"sdc", "register", "owner"}).status, 0);
    const auto table = [] {  // the header's application slots
        const Bytes sdc = section(SHM_SEC_SDC);
        return Bytes(sdc.begin() + SDC_HEADER_OFFSET + 12, sdc.end() - 8);
    };
    const Bytes slots = table();
    std::string expected = "#" + std::string(SDC_RING_SIZE - 100, '.');
    sdc_write(expected.substr(1));
    const pid_t follow = start({"sdc", "follow", "--no-register", "--interval", "0.05"});
    ASSERT_EQ(output_of_size(expected.size()).size(), expected.size());  // the ring's content first
    for (int i = 1; i <= 20; ++i) {  // records that cross the ring's end
        const std::string record = "record " + std::to_string(i) + "\n";
        sdc_write(record);
        expected += record;
    }
    const std::string out = output_of_size(expected.size());
    EXPECT_TRUE(out == expected) << out.size() << " bytes, ending " << out.substr(out.size() - std::min<size_t>(out.size(), 99));
    kill(follow, SIGINT);
    EXPECT_EQ(test::wait_child(follow).code, 0);
    EXPECT_TRUE(table() == slots);
}

// doc: doctor on a store a crashed creator left (section set half set up, no
// library set) with a poisoned SDC header and a corrupt slot; info naming a
// lock's holder and waiter.
TEST(Tool, DoctorRepairsWhatACrashedCreatorLeftAndInfoNamesHolderAndWaiter) {
    EXPECT_EQ(run({"doctor"}).err, "shmtool: no store: segment key 77777779 does not exist\n");
    const int seg = shmget(77777779, SHM_SIZE, IPC_CREAT | 0666);
    const int sems = semget(77777812, 34, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_TRUE(seg >= 0 && sems >= 0);
    for (int member = 33; member >= 10; --member) ASSERT_EQ(semctl(sems, member, SETVAL, 1), 0);  // died at 9
    auto* header = reinterpret_cast<SdcHeader*>(static_cast<uint8_t*>(shmat(seg, nullptr, 0)) + 540267 +
                                                SDC_HEADER_OFFSET);  // section 26's
    header->Head = 0xFFFFFFFF;
    std::memcpy(header->Signature, SDC_SIGNATURE, sizeof header->Signature);
    std::strcpy(header->SDCAppTable[0].Name, "bad\x01");
    std::strcpy(header->SDCAppTable[1].Name, "keeper");
    header->SDCAppTable[1].iLast = 400000;  // in the old ring: the reset brings it to the new Head
    const json want = json::parse(R"([["semaphore.missing", true], ["semaphore.unstarted", true],
                                      ["sdc.indexes", true], ["sdc.slot", true]])");
    for (const Args& args : {Args{"doctor", "--json"}, Args{"doctor", "--repair", "--json"}}) {  // not confirmed
        const Result r = run(args);
        ASSERT_EQ(r.status, 1) << r.err;
        json found = json::array(), doc = json::parse(r.out);
        for (const json& f : doc["findings"]) found.push_back({f["check"], f["safe_repair"]});
        EXPECT_EQ(found, want) << r.out;
    }
    const Result repaired = run({"doctor", "--repair", "--yes"});
    EXPECT_EQ(repaired.status, 0) << repaired.out << repaired.err;
    EXPECT_EQ(test::locks_left_taken(), "");
    EXPECT_TRUE(header->Head == 0 && header->Tail == 0 && header->SDCAppTable[0].Name[0] == 0);
    EXPECT_STREQ(header->SDCAppTable[1].Name, "keeper");
    EXPECT_EQ(uint32_t(header->SDCAppTable[1].iLast), 0u);
    EXPECT_EQ(run({"doctor"}).status, 0);

    ASSERT_EQ(Vond_shm_init_shm(), 0);
    ASSERT_EQ(Vond_shm_lock_shm(SHM_SEC_LAST), 0);
    const pid_t waiter = test::start_child([] { uint8_t b; return Vond_shm_memread(SHM_SEC_LAST, &b, 0, 1); });
    for (int ms = 0; semctl(gShmSecSemId, SHM_SEC_LAST - 1, GETNCNT) != 1 && ms < 30000; ++ms) usleep(1000);
    const Result info = run({"info", "--json"});
    ASSERT_EQ(Vond_shm_unlock_shm(SHM_SEC_LAST), 0);
    EXPECT_EQ(test::wait_child(waiter).code, 0);
    const json lock = json::parse(info.out)["sections"][SHM_SEC_LAST]["lock"];
    const std::string name = slurp("/proc/self/comm").substr(0, slurp("/proc/self/comm").find('\n'));
    EXPECT_EQ(lock["holder"]["pid"], getpid()) << info.out;
    EXPECT_EQ(lock["holder"]["name"], name);
    EXPECT_EQ(lock["waiting"], 1);
    // Waiters are named wherever the kernel is real (native, -m32, an ARM
    // kernel); under a user-mode emulator /proc shows the host's call numbers.
    if (!emulated()) {
        EXPECT_EQ(lock["waiters"], json::array({{{"pid", waiter}, {"name", name}, {"state", "S"}}})) << info.out;
    }
}

// ifc: read-only commands never create the store; dump's "*"; --version; unknown commands.
TEST(Tool, ReadOnlyCommandsWithoutAStoreCreateNothing) {
    const Args rows[] = {{"info"}, {"dump", "6"}, {"platform"}, {"time"}, {"caps"}, {"vr"}, {"power"},
                         {"fru"}, {"fru", "1", "--data"}, {"dimm"}, {"sdc", "status"}, {"sdc", "export", "/dev/null"}, {"doctor"},
                         {"--json", "platform"}, {"snapshot", "save", "/tmp/s.snap"}, {"sdc", "save", "/tmp/s.bin"},
                         {"dump", "6", "--unlocked"}, {"snapshot", "save", "--unlocked", "/tmp/s.snap"},
                         {"sdc", "follow", "--no-register"}, {"sdc", "follow", "viewer"},
                         {"sdc", "poll", "viewer", "--as-consumer"}};
    for (const Args& args : rows) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 1) << testing::PrintToString(args);
        EXPECT_EQ(r.err, "shmtool: no store: segment key 77777779 does not exist\n") << testing::PrintToString(args);
        EXPECT_EQ(r.out, "");
    }
    EXPECT_LT(shmget(77777779, 0, 0), 0);
    EXPECT_LT(semget(77777777, 0, 0), 0);
    EXPECT_LT(semget(77777812, 0, 0), 0);
}

TEST(Tool, DumpCollapsesRepeatsVersionAndUnknownCommand) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const struct { Args args; int status; const char* out; const char* err; } rows[] = {
        {{"dump", "pbt", "0", "70"}, 0,
         "section 20 \\(.*\n00000000  00 00 00 00 00 00 00 00  00 00 00 00 00 00 00 00  \\|\\.{16}\\|\n\\*\n"
         "00000040  00 00 00 00 00 00 +\\|\\.{6}\\|\n00000046\n", ""},
        {{"--version"}, 0, "shmtool [0-9]+\\.[0-9]+\\.[0-9]+ \\(libshm\\.so\\.[0-9]+\\)\n", ""},
        {{"foo", "6"}, 2, "", "shmtool: unknown command 'foo' \\(see shmtool --help\\)\n"},
        {{"--timeout", "1", "dump", "6", "--bogus"}, 2, "", "shmtool: [^\n]*--bogus[^\n]*\n"},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << testing::PrintToString(row.args) << r.err;
        EXPECT_TRUE(std::regex_match(r.out, std::regex(row.out))) << r.out;
        EXPECT_TRUE(std::regex_match(r.err, std::regex(row.err))) << r.err;
    }
}

}  // namespace
