/* reader: any client learns what the platform is through the accessors,
 * which read the store anew on every call.
 *
 *   cc reader.c $(pkg-config --cflags --libs libshm) -o reader
 *
 * The byte getters cannot report a failed read: they answer 0 (247 for the
 * chassis type), like a record nobody has written yet. A client that must
 * tell the two apart reads the bytes itself with Vond_shm_memread. */
#include <stdio.h>

#include <libshm.h>

int main(void) {
    uint8_t record[13];
    int32_t rc = Vond_shm_memread(SHM_SEC_PLATFORM_ID, record, 0, sizeof record);
    if (rc != 0) {
        fprintf(stderr, "reader: the store cannot be read (Vond_shm_memread: %d)\n", rc);
        return 1;
    }
    if (record[5] == 0) {
        fprintf(stderr, "reader: nobody has published the platform record yet\n");
        return 1;
    }

    printf("system id %u, generation %u, platform type %u\n", Vond_get_system_id(), Vond_get_generation(),
           Vond_get_platform_type());
    printf("16G or later: %d, AMD: %d, ngm chassis: %u\n", is16G(), isAMD(), is_ngm());

    /* The slot is meaningful on a modular platform only; the call says so
     * (-1, and a message to the log hook) on any other. */
    uint8_t slot = 0;
    if (Vond_get_blade_slot_num(&slot) == 0) printf("blade slot %u\n", slot);

    /* Bit 0 is the summary: set once every required progress bit is. */
    printf("start-up complete: %s\n", Vond_get_quorx_progress(0) ? "yes" : "no");
    return 0;
}
