// The SDC calls on an arbitrary section 26 (header, table, read positions,
// ring) followed by an arbitrary sequence of writes, exports, sizes, clears,
// registrations, polls and start-ups. Nothing outside section 26 changes,
// every result is 0 or -1 and the reported counts stay within the caller
// buffers, which have exactly their documented sizes.
//
// Every check allows section 26 to change, so its inner pages are never
// compared; the pages it shares with sections 25 and 27 and the rest of the
// segment are (fuzz_common.h, segment watch).
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fuzz;
    segment();
    static const bool watched = [] {
        const int64_t first = section_offset(SHM_SEC_SDC);
        allow_changes_always(first, first + SDC_RECOVERY_FILE_SIZE);
        return true;
    }();
    (void)watched;
    // The data of a write: exactly its count of bytes, up to 32 from the
    // input and zeros after them.
    static ExactBuffer<SDC_RING_SIZE + 1> source;
    Input in(data, size);
    // The header as given, and a few ring bytes near the places that matter.
    uint8_t header[SDC_HEADER_SIZE] = {};
    in.bytes(header, sizeof header);
    if (Vond_shm_memwrite(SHM_SEC_SDC, header, SDC_HEADER_OFFSET, sizeof header) != 0) abort();

    const int64_t start = section_offset(SHM_SEC_SDC);
    const int64_t end = start + SDC_RECOVERY_FILE_SIZE;
    for (int step = 0; step < 16 && in.more(); ++step) {
        checkpoint();
        uint32_t count = 0;
        int32_t result = 0;
        switch (in.u8() % 7) {
            case 0: {
                const uint8_t kind = in.u8();
                const uint32_t n = kind < 200 ? in.u8() + 1u
                                   : kind < 250 ? in.u32() % SDC_RING_SIZE + 1
                                                : SDC_RING_SIZE + 1 - kind % 3;
                uint8_t* bytes = source.take(n, true);
                in.bytes(bytes, n < 32 ? n : 32);
                source.wrote(n < 32 ? n : 32);
                result = Vond_shm_write_sdc(&n, bytes);
                break;
            }
            case 1:
                result = Vond_shm_export_sdc(&count, buffer_of<SDC_EXPORT_BUFFER_SIZE>().data());
                FUZZ_CHECK(count <= SDC_EXPORT_BUFFER_SIZE);
                break;
            case 2:
                result = Vond_shm_get_size_sdc(&count);
                FUZZ_CHECK(count <= SDC_RING_SIZE);
                break;
            case 3: result = Vond_shm_clear_sdc(); break;
            case 4: {
                char name[32] = {};
                in.bytes(name, in.u8() % 31);
                int32_t id = 0;
                result = Vond_shm_periodic_register_sdc(name, &id);
                FUZZ_CHECK(id >= -1 && id < SDC_MAX_APPS);
                break;
            }
            case 5:
                result = Vond_shm_periodic_get_sdc(&count, buffer_of<SDC_POLL_BUFFER_SIZE>().data(), in.u8() % 10);
                FUZZ_CHECK(count <= SDC_POLL_BUFFER_SIZE);
                break;
            default: result = Vond_shm_init_sdc(); break;
        }
        FUZZ_CHECK(result == 0 || result == -1);
        expect_unchanged_outside(start, end);
    }
    return 0;
}
