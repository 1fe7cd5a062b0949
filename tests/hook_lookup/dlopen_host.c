/* A host program built with -rdynamic that defines vondprintf and loads the
 * library with the real dlopen(..., RTLD_LOCAL): the library's lookup goes
 * through the system's dlopen and must find the hook by name. */
#include <dlfcn.h>
#include <stdio.h>

#include "libshm.h"

static int calls, last_level, last_module;

int vondprintf(int32_t level, int32_t module, const char *format, ...) {
    (void)format;
    ++calls;
    last_level = level;
    last_module = module;
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    int32_t (*memwrite)(int32_t, const void *, int32_t, int32_t);
    *(void **)&memwrite = dlsym(library, "Vond_shm_memwrite");
    SHML_vondprintf_fn *hook = (SHML_vondprintf_fn *)dlsym(library, "SHML_vondprintf");
    if (memwrite == NULL || hook == NULL) return 2;
    char byte = 0;
    memwrite(40, &byte, 0, 1);
    if (calls != 1 || last_level != 1 || last_module != 37 || *hook != vondprintf) {
        fprintf(stderr, "hook not found by name: calls=%d level=%d module=%d\n", calls, last_level,
                last_module);
        return 1;
    }
    puts("dlopen host: hook found by name");
    return 0;
}
