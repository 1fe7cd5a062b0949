/* A program linked against the library and built with -rdynamic, defining
 * vondprintf. The library comes before libc in its search order, so the hook
 * lookup reaches the library's fail-only dlopen and finds nothing: the
 * program has to assign SHML_vondprintf after its first library call. */
#include <stdio.h>

#include "libshm.h"

static int calls;

int vondprintf(int32_t level, int32_t module, const char *format, ...) {
    (void)level, (void)module, (void)format;
    ++calls;
    return 0;
}

int main(void) {
    char byte = 0;
    Vond_shm_memwrite(40, &byte, 0, 1); /* logs "bad sec id=40" at level 1 */
    if (SHML_vondprintf != NULL || calls != 0) {
        fprintf(stderr, "the lookup found a hook in a directly linked program\n");
        return 1;
    }
    SHML_vondprintf = vondprintf;
    Vond_shm_memwrite(40, &byte, 0, 1);
    if (calls != 1) {
        fprintf(stderr, "an assigned hook was not called (%d)\n", calls);
        return 1;
    }
    puts("linked host: hook by assignment");
    return 0;
}
