// The hot paths' invariants, as counts and never as timings: one table of
// store calls, each with the system calls it makes in an attached process and
// the heap blocks it takes. After a warm-up round (the C library's first-use
// set-ups are not ours) every row runs once between two marker system calls,
// close(-(1000 + n)) and close(-(2000 + n)). The program prints
// "CASE n syscalls taken/handed-back name" per row and fails itself on a wrong
// heap count; count_syscalls.sh counts the system calls between the markers.
//
// A locked access is one semop to take the lock and one to give it back, an
// unlocked read makes none, and only a request out of range adds one (the
// development-marker test). Nothing allocates, on success or on failure, but
// a thread's logging record (one block on its first call, freed at its exit)
// and the SDC start-up, which hands back every block it takes.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "harness.h"

#ifndef SHM_SANITIZED_BUILD
#define SHM_SANITIZED_BUILD 0
#endif

namespace {

__thread int t_armed = 0;  // only an armed thread's blocks count
std::atomic<long> g_taken{0}, g_handed_back{0};
const char* g_wrong = nullptr;  // what a row found wrong besides its counts
constexpr int32_t kSec = SHM_SEC_FRU_DATA;
uint8_t g_buffer[SDC_EXPORT_BUFFER_SIZE];

struct Row {
    const char* name;
    int syscalls;      // -1: not counted (the system log, clocks and threads are the C library's)
    const char* heap;  // blocks taken/handed back, or "balanced": as many handed back as taken
    void (*call)();
};

const Row kRows[] = {
    {"memread_64", 2, "0/0", [] { Vond_shm_memread(kSec, g_buffer, 0, 64); }},
    {"memread_zero_length", 2, "0/0", [] { Vond_shm_memread(kSec, g_buffer, 0, 0); }},
    {"memread_safe_64", 2, "0/0", [] { Vond_shm_memread_safe(kSec, g_buffer, 0, 64); }},
    {"memread_unlocked_64", 0, "0/0", [] { Vond_shm_memread_unlocked(kSec, g_buffer, 0, 64); }},
    {"memread_unlocked_safe_64", 0, "0/0", [] { Vond_shm_memread_unlocked_safe(kSec, g_buffer, 0, 64); }},
    {"memwrite_64", 2, "0/0", [] { Vond_shm_memwrite(kSec, g_buffer, 0, 64); }},
    {"memwrite_safe_64", 2, "0/0", [] { Vond_shm_memwrite_safe(kSec, g_buffer, 0, 64); }},
    {"memset_64", 2, "0/0", [] { Vond_shm_memset(kSec, 0x11, 0, 64); }},
    {"set_bit_on_uint", 2, "0/0", [] { Vond_shm_mem_set_bit_on_uint(kSec, 8, 1, 0x10); }},
    {"lock_read_unlocked_unlock", 2, "0/0",
     [] { Vond_shm_lock_shm(kSec), Vond_shm_memread_unlocked(kSec, g_buffer, 0, 64), Vond_shm_unlock_shm(kSec); }},
    {"get_shm", 2, "0/0", [] { void* base; Vond_shm_get_shm(SHM_SEC_SDC, &base); }},
    // Out of range: the messages go to the hook, the marker test is the extra call.
    {"memwrite_clipped", 3, "0/0", [] { Vond_shm_memwrite(kSec, g_buffer, gShmSecSize[kSec] - 8, 64); }},
    {"memread_unlocked_past_end", 1, "0/0", [] { Vond_shm_memread_unlocked(1, g_buffer, 56, 1); }},
    // A bad section is refused before any lock; section 0's lock is refused by the semop itself.
    {"memwrite_bad_section_lock_0", 1, "0/0", [] { Vond_shm_memwrite(40, g_buffer, 0, 4), Vond_shm_lock_shm(0); }},
    // A locked read checks its range under the lock, so its messages go to the system log.
    {"memread_clipped_bad_section", -1, "0/0",
     [] { Vond_shm_memread(1, g_buffer, 50, 10), Vond_shm_memread(34, g_buffer, 0, 4); }},
    {"identity", 12, "0/0", [] {
         Vond_get_system_id(), Vond_get_blade_slot_num(g_buffer), Vond_get_quorx_progress(3);
         Vond_set_quorx_progress(3, 1), Vond_set_modular_chassis_type(2), is_ngm();
     }},
    {"predicates", 14, "0/0",
     [] { isAMD(), isQV(), isTesk(), IsCPCpuCupsSupported(), isBiosDonePost(), serialPECIPresent(); }},
    {"eop_time", 4, "0/0", [] { uint32_t eop; Vond_set_EOPTime(1, 1700000000u), Vond_get_EOPTime(&eop); }},
    {"clock_times", -1, "0/0", [] {
         char* text = reinterpret_cast<char*>(g_buffer);
         Vond_get_SysUpTime(), Vond_get_BootTime(text), Vond_get_OSDataCollectionDate(text);
     }},
    {"capabilities_and_power", 16, "0/0", [] {
         uint16_t value;
         Get_SHM_feature_capabilities(1, &value), Set_SHM_feature_capabilities(1, 3);
         Get_VR_Sensor_Enablement(0, 1), Get_VR_Sensor_Enablement(9, 1);
         GetSystemPowerStatusSHM(), Get_blade_form_factor(g_buffer);
     }},
    {"sdc", 34, "0/0", [] {
         uint32_t length = 100;
         int32_t id = -1;
         Vond_shm_write_sdc(&length, g_buffer), Vond_shm_periodic_register_sdc("probe", &id);
         Vond_shm_write_sdc(&length, g_buffer), Vond_shm_periodic_get_sdc(&length, g_buffer, uint32_t(id));
         Vond_shm_periodic_get_sdc(&length, g_buffer, 99), Vond_shm_export_sdc(&length, g_buffer);
         Vond_shm_get_size_sdc(&length), Vond_shm_clear_sdc();
     }},
    {"first_call_of_a_thread", -1, "1/1", [] {  // its logging record, freed at its exit
         pthread_t thread;
         t_armed = 0;  // making the thread is not the library's
         auto first_call = [](void*) -> void* { t_armed = 1; Vond_shm_memread(kSec, g_buffer, 0, 1); return nullptr; };
         if (pthread_create(&thread, nullptr, first_call, nullptr) != 0 || pthread_join(thread, nullptr) != 0)
             g_wrong = "no thread";
         t_armed = 1;
     }},
    {"sdc_start_up_without_recovery_file", -1, "balanced", [] {
         rename(SDC_RECOVERY_FILE, "/flash/away");
         if (Vond_shm_init_sdc() != 0) g_wrong = "init failed";
         rename("/flash/away", SDC_RECOVERY_FILE);
     }},
    {"sdc_start_up_restoring", -1, "balanced", [] {
         Vond_shm_memset(SHM_SEC_SDC, 0, 10, 1);
         if (Vond_shm_init_sdc() != 0 || Vond_shm_memread(SHM_SEC_SDC, g_buffer, 10, 1) != 0 || g_buffer[0] != 0x5a)
             g_wrong = "the image was not restored";
     }},
};

}  // namespace

#if !SHM_SANITIZED_BUILD  // a sanitizer runtime owns the malloc family: heap not counted
namespace {
void note(void* p) { g_taken += t_armed != 0 && p != nullptr; }
}  // namespace
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
void* malloc(size_t n) { void* p = __libc_malloc(n); note(p); return p; }
void* calloc(size_t n, size_t size) { void* p = __libc_calloc(n, size); note(p); return p; }
void* realloc(void* old, size_t n) { void* p = __libc_realloc(old, n); note(p); return p; }
void* memalign(size_t align, size_t n) { void* p = __libc_memalign(align, n); note(p); return p; }
void* aligned_alloc(size_t align, size_t n) { return memalign(align, n); }
int posix_memalign(void** out, size_t align, size_t n) { void* p = memalign(align, n); return p ? (*out = p, 0) : 12; }
void free(void* p) { g_handed_back += t_armed != 0 && p != nullptr; __libc_free(p); }
}
#endif

int main() {
    test::attach_quietly();
    test::SyslogCapture syslog;  // where the locked read's messages go
    Vond_shm_memset(SHM_SEC_PBT, 1, 0, gShmSecSize[SHM_SEC_PBT]);  // the table present: the VR call reads twice
    std::vector<uint8_t> image(SDC_RECOVERY_FILE_SIZE);
    std::memcpy(&image[SDC_HEADER_OFFSET + offsetof(SdcHeader, Signature)], SDC_SIGNATURE, sizeof SDC_SIGNATURE);
    image[10] = 0x5a;
    test::write_file(SDC_RECOVERY_FILE, image);
    for (const Row& row : kRows) row.call();

    int failures = 0, n = 0;
    for (const Row& row : kRows) {
        const long taken = g_taken, handed_back = g_handed_back;
        g_wrong = nullptr;
        std::fflush(stdout);
        close(-(1000 + ++n)), t_armed = 1;
        row.call();
        t_armed = 0, close(-(2000 + n));
        const long t = g_taken - taken, h = g_handed_back - handed_back;
        const std::string heap = !SHM_SANITIZED_BUILD ? std::to_string(t) + "/" + std::to_string(h) : "-";
        if (!SHM_SANITIZED_BUILD && heap != row.heap && (row.heap != std::string("balanced") || t != h) && !g_wrong)
            g_wrong = "wrong heap count";
        std::printf("CASE %d %d %s %s\n", n, row.syscalls, heap.c_str(), row.name);
        if (g_wrong) std::printf("FAIL %s: %s (heap expected %s)\n", row.name, g_wrong, row.heap), ++failures;
    }
    return failures == 0 ? 0 : 1;
}
