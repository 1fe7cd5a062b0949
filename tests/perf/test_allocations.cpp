// Heap use of the library's calls, counted by malloc, calloc, realloc, free
// and the aligned allocators defined in this program (they forward to the C
// library's own). Only the calling thread's armed stretch is counted.
//
// What may allocate: the per-thread logging record (one block, on a thread's
// first call, freed at the thread's exit) and the SDC start-up, which reads
// the recovery file (stdio's FILE, and the restore's copy buffer), always
// handing everything back. Nothing else allocates, on success or on failure.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "harness.h"

#ifdef SHM_SANITIZED_BUILD

// A sanitizer runtime owns malloc and free (and allocates for its own
// bookkeeping), so a counting allocator cannot be put in front of it; the
// unsanitized builds run the counts.
TEST(Allocations, NotCountedInASanitizedBuild) {
    GTEST_SKIP() << "allocation counting needs its own malloc, which the sanitizer runtime replaces";
}

#else

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
}

namespace {

__thread int t_armed = 0;
std::atomic<long> g_allocations{0};
std::atomic<long> g_frees{0};
std::atomic<void*> g_watched{nullptr};
std::atomic<int> g_watched_freed{0};

void note_allocation(void* p) {
    if (t_armed != 0 && p != nullptr) g_allocations.fetch_add(1);
}

struct Counted {
    long allocations;
    long frees;
};

// Runs body with this thread's counting armed.
template <typename Body>
Counted counted(Body body) {
    const long a = g_allocations.load(), f = g_frees.load();
    t_armed = 1;
    body();
    t_armed = 0;
    return {g_allocations.load() - a, g_frees.load() - f};
}

}  // namespace

extern "C" {
void* malloc(size_t n) {
    void* p = __libc_malloc(n);
    note_allocation(p);
    return p;
}
void* calloc(size_t n, size_t size) {
    void* p = __libc_calloc(n, size);
    note_allocation(p);
    return p;
}
void* realloc(void* old, size_t n) {
    void* p = __libc_realloc(old, n);
    note_allocation(p);
    return p;
}
void* memalign(size_t alignment, size_t n) {
    void* p = __libc_memalign(alignment, n);
    note_allocation(p);
    return p;
}
void* aligned_alloc(size_t alignment, size_t n) { return memalign(alignment, n); }
int posix_memalign(void** out, size_t alignment, size_t n) {
    void* p = memalign(alignment, n);
    if (p == nullptr) return 12;  // ENOMEM
    *out = p;
    return 0;
}
void free(void* p) {
    if (p != nullptr && p == g_watched.load()) g_watched_freed.store(1);
    if (t_armed != 0 && p != nullptr) g_frees.fetch_add(1);
    __libc_free(p);
}
}

namespace {

int quiet_hook(int32_t, int32_t, const char*, ...) { return 0; }

void attach_with_hook() {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    (void)SHML_get_per_thread_data();
    SHML_vondprintf = quiet_hook;
}

struct Call {
    const char* name;
    void (*run)();
};

uint8_t g_buffer[SDC_EXPORT_BUFFER_SIZE];

// Successes and failures of every family, including messages that go to the
// hook and, under a held lock, to the system log.
const Call kCalls[] = {
    {"memread", [] { (void)Vond_shm_memread(SHM_SEC_FRU_DATA, g_buffer, 0, 64); }},
    {"memread clipped (system log under the lock)",
     [] { (void)Vond_shm_memread(1, g_buffer, 50, 10); }},
    {"memread bad section", [] { (void)Vond_shm_memread(34, g_buffer, 0, 4); }},
    {"memread_unlocked", [] { (void)Vond_shm_memread_unlocked(SHM_SEC_FRU_DATA, g_buffer, 0, 64); }},
    {"memread_unlocked offset past the end", [] { (void)Vond_shm_memread_unlocked(1, g_buffer, 56, 1); }},
    {"memwrite", [] { (void)Vond_shm_memwrite(SHM_SEC_FRU_DATA, g_buffer, 0, 64); }},
    {"memwrite clipped", [] { (void)Vond_shm_memwrite(1, g_buffer, 50, 10); }},
    {"memwrite bad section", [] { (void)Vond_shm_memwrite(40, g_buffer, 0, 4); }},
    {"memset", [] { (void)Vond_shm_memset(SHM_SEC_FRU_DATA, 7, 0, 64); }},
    {"set_bit_on_uint", [] { (void)Vond_shm_mem_set_bit_on_uint(SHM_SEC_FRU_DATA, 0, 1, 4); }},
    {"safe calls", [] {
         (void)Vond_shm_memread_safe(1, g_buffer, 0, 8);
         (void)Vond_shm_memread_unlocked_safe(1, g_buffer, 0, 8);
         (void)Vond_shm_memwrite_safe(1, g_buffer, 0, 8);
     }},
    {"lock, unlocked read, unlock", [] {
         (void)Vond_shm_lock_shm(3);
         (void)Vond_shm_memread_unlocked(3, g_buffer, 0, 8);
         (void)Vond_shm_unlock_shm(3);
     }},
    {"lock of section 0 fails", [] { (void)Vond_shm_lock_shm(0); }},
    {"get_shm", [] {
         void* base = nullptr;
         (void)Vond_shm_get_shm(SHM_SEC_SDC, &base);
     }},
    {"identity", [] {
         uint8_t slot = 0;
         (void)Vond_get_system_id();
         (void)Vond_get_blade_slot_num(&slot);
         (void)Vond_get_quorx_progress(3);
         (void)Vond_set_quorx_progress(3, 1);
         (void)Vond_set_modular_chassis_type(2);
         (void)is_ngm();
     }},
    {"predicates", [] {
         (void)isAMD();
         (void)isQV();
         (void)isTesk();
         (void)IsCPCpuCupsSupported();
         (void)isBiosDonePost();
         (void)serialPECIPresent();
     }},
    {"times", [] {
         uint32_t eop = 0;
         char text[64];
         (void)Vond_set_EOPTime(1, 1700000000u);
         (void)Vond_get_EOPTime(&eop);
         (void)Vond_get_SysUpTime();
         (void)Vond_get_BootTime(text);
         (void)Vond_get_OSDataCollectionDate(text);
     }},
    {"capabilities and power", [] {
         uint16_t value = 0;
         uint8_t form = 0;
         (void)Get_SHM_feature_capabilities(1, &value);
         (void)Set_SHM_feature_capabilities(1, 3);
         (void)Get_VR_Sensor_Enablement(0, 1);
         (void)Get_VR_Sensor_Enablement(9, 1);
         (void)GetSystemPowerStatusSHM();
         (void)Get_blade_form_factor(&form);
     }},
    {"sdc", [] {
         uint32_t length = 100, size = 0;
         int32_t id = -1;
         (void)Vond_shm_write_sdc(&length, g_buffer);
         (void)Vond_shm_periodic_register_sdc("alloc", &id);
         (void)Vond_shm_write_sdc(&length, g_buffer);
         (void)Vond_shm_periodic_get_sdc(&length, g_buffer, uint32_t(id));
         (void)Vond_shm_periodic_get_sdc(&length, g_buffer, 99);
         (void)Vond_shm_export_sdc(&length, g_buffer);
         (void)Vond_shm_get_size_sdc(&size);
         (void)Vond_shm_clear_sdc();
     }},
};

TEST(Allocations, NoCallAllocatesOnceTheThreadHasItsRecord) {
    attach_with_hook();
    test::SyslogCapture syslog;  // the fallback's datagrams land here
    // One round first: the C library's own first-use set-ups (the time zone
    // for ctime_r and the system log's time stamps, stdio) are not ours.
    for (const Call& call : kCalls) call.run();
    for (const Call& call : kCalls) {
        const Counted c = counted(call.run);
        EXPECT_EQ(c.allocations, 0) << call.name;
        EXPECT_EQ(c.frees, 0) << call.name;
    }
}

// A thread's first call allocates its logging record, one zeroed block, and
// nothing else; the block is freed when the thread ends.
void* first_call_of_a_thread(void* out) {
    auto* c = static_cast<Counted*>(out);
    *c = counted([] {
        uint8_t byte;
        (void)Vond_shm_memread(SHM_SEC_PLATFORM_ID, &byte, 5, 1);
    });
    g_watched.store(SHML_get_per_thread_data());
    return nullptr;
}

TEST(Allocations, ThreadRecordIsTheOnlyBlockAndIsFreedAtThreadExit) {
    attach_with_hook();
    Counted c{-1, -1};
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, first_call_of_a_thread, &c), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(c.allocations, 1);
    EXPECT_EQ(c.frees, 0);
    EXPECT_NE(g_watched.load(), nullptr);
    EXPECT_EQ(g_watched_freed.load(), 1);
}

TEST(Allocations, SdcStartUpHandsBackWhatItTakes) {
    attach_with_hook();
    // Without a recovery file.
    Counted c = counted([] { EXPECT_EQ(Vond_shm_init_sdc(), 0); });
    EXPECT_EQ(c.allocations, c.frees);

    // With a valid one: the restore's buffer comes and goes.
    std::vector<uint8_t> image(SDC_RECOVERY_FILE_SIZE, 0);
    std::memcpy(&image[SDC_HEADER_OFFSET + offsetof(SdcHeader, Signature)], SDC_SIGNATURE,
                sizeof SDC_SIGNATURE);
    image[10] = 0x5a;
    FILE* file = std::fopen(SDC_RECOVERY_FILE, "w");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(image.data(), 1, image.size(), file), image.size());
    ASSERT_EQ(std::fclose(file), 0);
    c = counted([] { EXPECT_EQ(Vond_shm_init_sdc(), 0); });
    EXPECT_GE(c.allocations, 1);
    EXPECT_EQ(c.allocations, c.frees);
    uint8_t byte = 0;
    ASSERT_EQ(Vond_shm_memread(SHM_SEC_SDC, &byte, 10, 1), 0);
    EXPECT_EQ(byte, 0x5a);  // the restore did run
}

}  // namespace

#endif  // SHM_SANITIZED_BUILD
