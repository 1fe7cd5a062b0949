/* A C user of the installed library: compiles with -std=c11 -Wall -Wextra
 * -Werror and moves bytes through a section. Run it on a private store. */
#include <stdio.h>
#include <string.h>

#include <libshm.h>

int main(void) {
    const char text[] = "consumer";
    char back[sizeof text] = {0};
    if (Vond_shm_memwrite(SHM_SEC_SDC, text, 100, (int32_t)sizeof text) != 0) return 1;
    if (Vond_shm_memread(SHM_SEC_SDC, back, 100, (int32_t)sizeof back) != 0) return 1;
    if (memcmp(text, back, sizeof text) != 0) return 1;
    printf("C consumer: %s, section %d is %d bytes\n", back, SHM_SEC_SDC, (int)gShmSecSize[SHM_SEC_SDC]);
    return 0;
}
