/* The floor for `shmtool platform`'s start-up: a minimal C program that
 * attaches the existing store through the library and reads the same byte
 * (section 6, the platform identity record), then exits. bench/run times both
 * as whole processes. */
#include <stdint.h>
#include <stdio.h>

#include "libshm.h"

int main(void) {
    uint8_t byte = 0;
    if (Vond_shm_init_shm() != 0) return 1;
    if (Vond_shm_memread(SHM_SEC_PLATFORM_ID, &byte, 4, 1) != 0) return 1;
    printf("%u\n", byte);
    return 0;
}
