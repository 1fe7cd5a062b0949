// Makes each store call of a table once, in an attached process with a hook
// installed, between two marker system calls: close(-(1000 + case)) before
// and close(-(2000 + case)) after. count_syscalls.sh runs it under a system
// call tracer and counts what each call made between its markers.
//
// Prints "CASE <n> <expected> <name>" for every case. A locked access is one
// semop to take and one to give back, an unlocked read makes none, and only
// an out-of-range request adds a system call (the development-marker test).
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "libshm.h"

namespace {

int quiet_hook(int32_t, int32_t, const char*, ...) { return 0; }

constexpr int32_t kSection = SHM_SEC_FRU_DATA;

struct Case {
    const char* name;
    int expected;
    int (*call)();
};

unsigned char g_buffer[256];

const Case kCases[] = {
    {"memread_1", 2, [] { return Vond_shm_memread(kSection, g_buffer, 0, 1); }},
    {"memread_64", 2, [] { return Vond_shm_memread(kSection, g_buffer, 0, 64); }},
    {"memread_safe_64", 2, [] { return Vond_shm_memread_safe(kSection, g_buffer, 0, 64); }},
    {"memread_zero_length", 2, [] { return Vond_shm_memread(kSection, g_buffer, 0, 0); }},
    {"memwrite_64", 2, [] { return Vond_shm_memwrite(kSection, g_buffer, 0, 64); }},
    {"memwrite_safe_64", 2, [] { return Vond_shm_memwrite_safe(kSection, g_buffer, 0, 64); }},
    {"memset_64", 2, [] { return Vond_shm_memset(kSection, 0x11, 0, 64); }},
    {"set_bit_on_uint", 2, [] { return Vond_shm_mem_set_bit_on_uint(kSection, 8, 1, 0x10); }},
    {"set_quorx_progress", 2, [] { return Vond_set_quorx_progress(3, 1); }},
    {"get_system_id", 2, [] { return int(Vond_get_system_id()) * 0; }},
    {"isAMD", 2, [] { return isAMD() * 0; }},
    {"Get_VR_Sensor_Enablement", 4, [] { return Get_VR_Sensor_Enablement(0, 1) * 0; }},
    {"export_sdc_empty", 2, [] {
         uint32_t length = 0;
         static unsigned char out[SDC_EXPORT_BUFFER_SIZE];
         return Vond_shm_export_sdc(&length, out);
     }},
    {"memread_unlocked_64", 0, [] { return Vond_shm_memread_unlocked(kSection, g_buffer, 0, 64); }},
    {"memread_unlocked_safe_64", 0,
     [] { return Vond_shm_memread_unlocked_safe(kSection, g_buffer, 0, 64); }},
    {"lock_read_unlocked_unlock", 2, [] {
         int r = Vond_shm_lock_shm(kSection);
         r |= Vond_shm_memread_unlocked(kSection, g_buffer, 0, 64);
         return r | Vond_shm_unlock_shm(kSection);
     }},
    // Clipped: the range messages go to the hook (the write checks before it
    // locks), and the development-marker test is the one extra call.
    {"memwrite_clipped", 3,
     [] { return Vond_shm_memwrite(kSection, g_buffer, gShmSecSize[kSection] - 8, 64); }},
};

void marker(int fd) { (void)close(fd); }

}  // namespace

int main() {
    if (Vond_shm_init_shm() != 0) {
        std::fprintf(stderr, "cannot attach (run inside tests/sandbox.sh)\n");
        return 2;
    }
    (void)SHML_get_per_thread_data();
    SHML_vondprintf = quiet_hook;
    // PBT present, so the VR call makes both of its reads.
    if (Vond_shm_memset(SHM_SEC_PBT, 1, 0, gShmSecSize[SHM_SEC_PBT]) != 0) return 2;
    // Warm up: every case once, so that no first-use work is counted.
    for (const Case& c : kCases) (void)c.call();

    int failures = 0;
    int index = 0;
    for (const Case& c : kCases) {
        ++index;
        std::printf("CASE %d %d %s\n", index, c.expected, c.name);
        std::fflush(stdout);
        marker(-(1000 + index));
        const int result = c.call();
        marker(-(2000 + index));
        if (result != 0) {
            std::fprintf(stderr, "%s returned %d\n", c.name, result);
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
