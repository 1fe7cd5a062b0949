/* publisher: the process that knows what the platform is fills the platform
 * identity record (section 6) and reports its start-up progress.
 *
 *   cc publisher.c $(pkg-config --cflags --libs libshm) -o publisher
 *
 * The first store call attaches the process (creating the store if it is the
 * first after boot); nothing needs to be set up before. */
#include <stdio.h>

#include <libshm.h>

int main(void) {
    /* Bytes 4 to 12 of the record: platform type 2 (modular), system id 61,
     * blade slot 3, controller type 7, generation 5 (16G), chassis type 0x0C
     * (bit 3: an ngm chassis), post update 0, CPU vendor 1 (AMD), serial PECI
     * present. Bytes 0 to 3 are the progress word: leave them to
     * Vond_set_quorx_progress, which changes it under the section's lock. */
    const uint8_t record[9] = {2, 61, 3, 7, 5, 0x0C, 0, 1, 1};
    int32_t rc = Vond_shm_memwrite(SHM_SEC_PLATFORM_ID, record, 4, sizeof record);
    if (rc != 0) { /* -1 lock, -2 section, -3 offset, -4 attach */
        fprintf(stderr, "publisher: Vond_shm_memwrite failed: %d\n", rc);
        return 1;
    }

    /* Progress bits 1, 5, 6, 13 and 22 together make the library set the
     * summary bit 0. Each call is one atomic read-modify-write, so several
     * processes may report progress at the same time. */
    const int32_t bits[] = {1, 5, 6, 13, 22};
    for (size_t i = 0; i < sizeof bits / sizeof bits[0]; ++i) {
        rc = Vond_set_quorx_progress(bits[i], 1);
        if (rc != 0) {
            fprintf(stderr, "publisher: Vond_set_quorx_progress(%d) failed: %d\n", bits[i], rc);
            return 1;
        }
    }
    printf("published system id 61, generation 5, progress bits 1 5 6 13 22\n");
    return 0;
}
