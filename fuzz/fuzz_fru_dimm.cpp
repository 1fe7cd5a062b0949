// The FRU directory and the DIMM tables with arbitrary contents (directory
// counts, data block offsets and lengths, inventory records, FQDDs without
// their zero, wear records) and arbitrary query arguments. Sections 7 and 22
// never change; section 21 changes only inside the wear table; caller buffers
// have the sizes the calls document (a FRU data buffer the largest block).
//
// The segment is watched (fuzz_common.h), and the FRU data buffer is made
// once and kept filled with its canary: after a copy, the bytes past the
// entry's dataLength are compared with the canary and the copied ones reset.
#include "fuzz_common.h"

namespace {

// Bookkeeping, not a decision about the input: kept out of the coverage.
FUZZ_NO_COVERAGE void fill_section(fuzz::Input& in, int32_t section, int32_t offset,
                                   int32_t length) {
    std::vector<uint8_t> bytes(static_cast<size_t>(length));
    const uint8_t pattern = in.u8();
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(pattern + i * 7);
    in.bytes(bytes.data(), bytes.size() < 512 ? bytes.size() : 512);
    if (Vond_shm_memwrite(section, bytes.data(), offset, length) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    segment();
    Input in(data, size);
    const int64_t fru_start = section_offset(SHM_SEC_FRU_DATA);
    const int64_t inventory_start =
        section_offset(SHM_SEC_DIMM_INVENTORY) + SHM_DIMM_INVENTORY_OFFSET;
    const int64_t wear_start = section_offset(SHM_SEC_DIMM_WEAR) + SHM_DIMM_WEAR_OFFSET;
    const int64_t wear_end = wear_start + SHM_DIMM_WEAR_RECORDS * SHM_DIMM_WEAR_RECORD_SIZE;
    expect_writes(fru_start, fru_start + 8 + 15 * 59);
    expect_writes(inventory_start,
                  inventory_start + SHM_DIMM_INVENTORY_RECORDS * SHM_DIMM_INVENTORY_RECORD_SIZE);
    expect_writes(wear_start, wear_end);
    // Directory: a count that is mostly plausible, then entries from the input.
    uint8_t directory[8 + 15 * 59] = {};
    const uint16_t count = in.u8() % 4 == 0 ? uint16_t(in.u32()) : uint16_t(in.u8() % 61);
    std::memcpy(directory + 6, &count, 2);
    in.bytes(directory + 8, sizeof directory - 8 < 256 ? sizeof directory - 8 : 256);
    if (Vond_shm_memwrite(SHM_SEC_FRU_DATA, directory, 0, sizeof directory) != 0) abort();
    fill_section(in, SHM_SEC_DIMM_INVENTORY, SHM_DIMM_INVENTORY_OFFSET,
                 SHM_DIMM_INVENTORY_RECORDS * SHM_DIMM_INVENTORY_RECORD_SIZE);
    fill_section(in, SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET,
                 SHM_DIMM_WEAR_RECORDS * SHM_DIMM_WEAR_RECORD_SIZE);

    checkpoint();

    const uint32_t id = in.u8() % 4 == 0 ? in.u32() : in.u8();
    FruInfo info;
    const uint32_t info_result = Vond_shm_get_fruinfo(id, &info);
    FUZZ_CHECK(info_result == 0 || info_result == 1 || info_result == 201);
    // The buffer every caller must give: the largest block. The copy must
    // stop at the entry's dataLength, which nothing changes during this call.
    // Every byte is 0xA5 when the call starts.
    static std::vector<uint8_t> block(SHM_FRU_DATA_MAX_LENGTH, 0xA5);
    const uint32_t data_result = Vond_shm_get_frudata(id, block.data());
    FUZZ_CHECK(data_result == 0 || data_result == 1 || data_result == 195 || data_result == 201);
    const size_t copied = data_result == 0 ? info.dataLength : 0;
    FUZZ_CHECK(info_result == 0 || data_result != 0);
    FUZZ_CHECK(all_bytes(block.data() + copied, block.size() - copied, 0xA5));
    std::memset(block.data(), 0xA5, copied);

    auto* list = static_cast<FruDeviceList*>(std::malloc(sizeof(FruDeviceList)));
    const uint32_t type = in.u8() % 4 == 0 ? in.u32() : in.u8() % 27;
    const uint32_t locator = in.u8() % 4 == 0 ? in.u32() : in.u8() % 5;
    const uint32_t class_result = Vond_shm_get_fruDeviceinfo(type, locator, list);
    FUZZ_CHECK(class_result == 0 || class_result == 1 || class_result == 201);
    if (class_result == 0) FUZZ_CHECK(list->count <= SHM_FRU_MAX_CLASS_DEVICES);
    std::free(list);
    FUZZ_CHECK(getOCPMezzFRUID() <= 255);

    uint32_t cpu = in.u32(), channel = in.u32();
    calculateCPUChannelNum(&cpu, &channel);
    FUZZ_CHECK(cpu <= 3 && channel <= 7);
    const int32_t apache_pass = getNVDIMMApachePassCount();
    FUZZ_CHECK(apache_pass >= 0 && apache_pass <= SHM_DIMM_INVENTORY_RECORDS);
    expect_unchanged_outside(0, 0);
    expect_writes(wear_start, wear_end);

    // Update lists of exactly the size their count byte announces.
    const uint8_t positions = in.u8() % 8;
    std::vector<uint8_t> by_position(1 + sizeof(DimmWearPosition) * positions);
    by_position[0] = positions;
    in.bytes(by_position.data() + 1, by_position.size() - 1);
    FUZZ_CHECK(updateDIMMWearLevel(by_position.data()) <= 1);
    const uint8_t modules = in.u8() % 4;
    std::vector<uint8_t> by_fqdd(1 + sizeof(DimmWearEntry) * modules);
    by_fqdd[0] = modules;
    in.bytes(by_fqdd.data() + 1, by_fqdd.size() - 1);
    FUZZ_CHECK(updateDIMMWearLevelUsingFQDD(by_fqdd.data()) <= 1);
    expect_unchanged_outside(wear_start, wear_end);

    const uint32_t report_size = in.u8() % 2 ? in.u8() : 1 + 18 * 128;
    std::vector<uint8_t> report(report_size);
    FUZZ_CHECK(readDIMMWearLevel(report.data(), report_size) <= 1);
    return 0;
}
