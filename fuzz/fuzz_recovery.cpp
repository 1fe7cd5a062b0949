// Start-up from arbitrary recovery files: sizes around and far from the
// image size, arbitrary header, table and signature, then the calls that
// trust what was restored. Nothing outside section 26 changes.
//
// The file is written the cheap way: truncated to nothing, extended to its
// size (which reads back as zeros) and given its few input bytes, instead of
// writing half a megabyte of zeros per input. Section 26 may always change;
// the rest of the segment is watched (fuzz_common.h).
#include <fcntl.h>

#include "fuzz_common.h"

namespace {

constexpr size_t kImage = SDC_RECOVERY_FILE_SIZE;

// The recovery file with `size` bytes: `start` at offset 0, `header` at
// SDC_HEADER_OFFSET, zeros everywhere else. Nothing when it cannot be opened.
void write_recovery_file(size_t size, const uint8_t* start, size_t start_size,
                         const uint8_t* header, size_t header_size) {
    static const int fd = open(SDC_RECOVERY_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    if (ftruncate(fd, 0) != 0 || ftruncate(fd, off_t(size)) != 0) abort();
    if (start_size > 0 && pwrite(fd, start, start_size, 0) != ssize_t(start_size)) abort();
    if (header_size > 0 &&
        pwrite(fd, header, header_size, SDC_HEADER_OFFSET) != ssize_t(header_size))
        abort();
}

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

    uint8_t ring_start[64] = {};
    const size_t ring_start_size = file_size < 64 ? file_size : 64;
    in.bytes(ring_start, ring_start_size);
    uint8_t header[SDC_HEADER_SIZE] = {};
    size_t header_size = 0;
    if (file_size >= SDC_HEADER_OFFSET) {
        const size_t rest = file_size - SDC_HEADER_OFFSET;
        header_size = rest < SDC_HEADER_SIZE ? rest : SDC_HEADER_SIZE;
        in.bytes(header, header_size);
    }
    if (signed_file && file_size >= kImage)
        std::memcpy(header + (524500 - SDC_HEADER_OFFSET), "VondSDC", 8);
    write_recovery_file(file_size, ring_start, ring_start_size, header, header_size);

    const int64_t start = section_offset(SHM_SEC_SDC);
    static const bool watched = [start] {
        allow_changes_always(start, start + SDC_RECOVERY_FILE_SIZE);
        return true;
    }();
    (void)watched;
    checkpoint();
    uint32_t count = 0;
    int32_t results[] = {
        Vond_shm_init_sdc(),
        Vond_shm_get_size_sdc(&count),
        Vond_shm_export_sdc(&count, buffer_of<SDC_EXPORT_BUFFER_SIZE>().data()),
        Vond_shm_periodic_get_sdc(&count, buffer_of<SDC_POLL_BUFFER_SIZE>().data(), in.u8() % 8),
    };
    for (int32_t r : results) FUZZ_CHECK(r == 0 || r == -1);
    FUZZ_CHECK(count <= SDC_EXPORT_BUFFER_SIZE);
    expect_unchanged_outside(start, start + SDC_RECOVERY_FILE_SIZE);
    return 0;
}
