/* A C user of the installed library: compiles with -std=c11 -Wall -Wextra
 * -Werror and moves bytes through a section. Run it on a private store.
 *
 * With --layout it prints the layout the header gives a C program: every
 * section's offset and size, and the size and field offsets of every packed
 * record. tests/install/layout.expected holds the same numbers, which the
 * library pins with static_asserts, so a C user's view and the library's
 * cannot drift apart. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <libshm.h>

#define FIELD(type, field) printf("  %s.%s %u\n", #type, #field, (unsigned)offsetof(type, field))
#define SIZE(type) printf("%s %u\n", #type, (unsigned)sizeof(type))

static void layout(void) {
    long offset = 0;
    for (int i = 0; i < SHM_SECTION_COUNT; ++i) {
        printf("section %d offset %ld size %d\n", i, offset, (int)gShmSecSize[i]);
        offset += gShmSecSize[i];
    }
    printf("segment %ld of %d\n", offset, SHM_SIZE);
    SIZE(FruEntry);
    FIELD(FruEntry, status); FIELD(FruEntry, fruId); FIELD(FruEntry, reserved3);
    FIELD(FruEntry, fruAttribute); FIELD(FruEntry, deviceType); FIELD(FruEntry, fruLocator);
    FIELD(FruEntry, dataLength); FIELD(FruEntry, dataOffset); FIELD(FruEntry, reserved13);
    SIZE(FruInfo);
    SIZE(FruDeviceListEntry);
    FIELD(FruDeviceListEntry, fruId); FIELD(FruDeviceListEntry, fruAttribute);
    FIELD(FruDeviceListEntry, fruLocator);
    SIZE(FruDeviceList);
    FIELD(FruDeviceList, count); FIELD(FruDeviceList, gap); FIELD(FruDeviceList, entry);
    SIZE(DimmWearPosition);
    FIELD(DimmWearPosition, cpu); FIELD(DimmWearPosition, channel); FIELD(DimmWearPosition, dimm);
    FIELD(DimmWearPosition, type); FIELD(DimmWearPosition, wear);
    SIZE(DimmWearEntry);
    FIELD(DimmWearEntry, index); FIELD(DimmWearEntry, wear); FIELD(DimmWearEntry, fqdd);
    SIZE(SdcAppEntry);
    FIELD(SdcAppEntry, Name); FIELD(SdcAppEntry, iLast);
    SIZE(SdcHeader);
    FIELD(SdcHeader, Head); FIELD(SdcHeader, Tail); FIELD(SdcHeader, Written);
    FIELD(SdcHeader, SDCAppTable); FIELD(SdcHeader, Signature);
    printf("SDC ring %d header at %d size %d apps %d file %d\n", SDC_RING_SIZE, SDC_HEADER_OFFSET,
           SDC_HEADER_SIZE, SDC_MAX_APPS, SDC_RECOVERY_FILE_SIZE);
    printf("DIMM inventory %d x %d at %d, wear %d x %d at %d\n", SHM_DIMM_INVENTORY_RECORDS,
           SHM_DIMM_INVENTORY_RECORD_SIZE, SHM_DIMM_INVENTORY_OFFSET, SHM_DIMM_WEAR_RECORDS,
           SHM_DIMM_WEAR_RECORD_SIZE, SHM_DIMM_WEAR_OFFSET);
}

int main(int argc, char **argv) {
    if (argc > 1 && strcmp(argv[1], "--layout") == 0) {
        layout();
        return 0;
    }
    const char text[] = "consumer";
    char back[sizeof text] = {0};
    if (Vond_shm_memwrite(SHM_SEC_SDC, text, 100, (int32_t)sizeof text) != 0) return 1;
    if (Vond_shm_memread(SHM_SEC_SDC, back, 100, (int32_t)sizeof back) != 0) return 1;
    if (memcmp(text, back, sizeof text) != 0) return 1;
    printf("C consumer: %s, section %d is %d bytes\n", back, SHM_SEC_SDC, (int)gShmSecSize[SHM_SEC_SDC]);
    return 0;
}
