// A C++ user of the installed library, found through find_package(libshm).
#include <libshm.h>

#include <cstdio>
#include <cstring>

int main() {
    const char text[] = "consumer++";
    char back[sizeof text] = {};
    if (Vond_shm_memwrite(SHM_SEC_SDC, text, 200, sizeof text) != 0) return 1;
    if (Vond_shm_memread(SHM_SEC_SDC, back, 200, sizeof back) != 0) return 1;
    if (std::memcmp(text, back, sizeof text) != 0) return 1;
    std::printf("C++ consumer: %s\n", back);
    return 0;
}
