// Start-up from arbitrary recovery files: sizes around and far from the
// image size, arbitrary header, table and signature, then the calls that
// trust what was restored. Nothing outside section 26 changes.
#include "fuzz_common.h"

namespace {

constexpr size_t kImage = SDC_RECOVERY_FILE_SIZE;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    segment();
    Input in(data, size);
    const uint8_t shape = in.u8();
    size_t file_size = kImage;
    if (shape % 4 == 1) file_size = kImage + int8_t(in.u8());
    if (shape % 4 == 2) file_size = in.u32() % (kImage + 64);
    const bool signed_file = shape & 0x10;

    std::vector<uint8_t> file(file_size);
    in.bytes(file.data(), file_size < 64 ? file_size : 64);  // ring start
    if (file_size >= SDC_HEADER_OFFSET) {
        const size_t header = file_size - SDC_HEADER_OFFSET;
        in.bytes(file.data() + SDC_HEADER_OFFSET, header < SDC_HEADER_SIZE ? header : SDC_HEADER_SIZE);
    }
    if (signed_file && file_size >= kImage) std::memcpy(file.data() + 524500, "VondSDC", 8);
    if (FILE* f = std::fopen(SDC_RECOVERY_FILE, "w")) {
        std::fwrite(file.data(), 1, file.size(), f);
        std::fclose(f);
    }

    const int64_t start = section_offset(SHM_SEC_SDC);
    const std::vector<uint8_t> before = snapshot();
    uint32_t count = 0;
    int32_t results[] = {
        Vond_shm_init_sdc(),
        Vond_shm_get_size_sdc(&count),
        Vond_shm_export_sdc(&count, buffer_of<SDC_EXPORT_BUFFER_SIZE>().data()),
        Vond_shm_periodic_get_sdc(&count, buffer_of<SDC_POLL_BUFFER_SIZE>().data(), in.u8() % 8),
    };
    for (int32_t r : results) FUZZ_CHECK(r == 0 || r == -1);
    FUZZ_CHECK(count <= SDC_EXPORT_BUFFER_SIZE);
    expect_unchanged_outside(before, start, start + SDC_RECOVERY_FILE_SIZE);
    return 0;
}
