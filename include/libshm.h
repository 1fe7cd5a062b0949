/*
 * libshm: the shared-memory state store of the management controller.
 *
 * One System V segment of SHM_SIZE bytes, cut into 34 fixed sections that sit
 * back to back in section order. Every section is guarded by its own System V
 * semaphore; the access calls take it around each copy. Multi-byte fields
 * inside sections are little-endian and may be unaligned.
 *
 * Results are signed 32-bit status codes, 0 for success. Nothing allocates
 * memory for the caller; the caller always supplies the buffers.
 *
 * Usable from C (C99 or later) and C++.
 */
#ifndef LIBSHM_H
#define LIBSHM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- layout */

#define SHM_SIZE 4035719            /* bytes in the segment */
#define SHM_SECTION_COUNT 34        /* sections 0 to 33; section 0 is empty */

/* Sections that the library's own accessors use, by role. Every other
 * section (1 to 33) is reached through the generic access calls by number. */
#define SHM_SEC_EMPTY             0
#define SHM_SEC_POWER             5   /* chassis power status */
#define SHM_SEC_PLATFORM_ID       6   /* platform identity record */
#define SHM_SEC_DIMM_INVENTORY    7
#define SHM_SEC_TIME              9
#define SHM_SEC_FEATURE_CAPS      10
#define SHM_SEC_BIOS_STATE        14
#define SHM_SEC_BLADE             16
#define SHM_SEC_OS_DATA           19
#define SHM_SEC_PBT               20  /* platform table */
#define SHM_SEC_DIMM_WEAR         21
#define SHM_SEC_FRU_DATA          22
#define SHM_SEC_OCP_MEZZ          24
#define SHM_SEC_SDC               26  /* serial data record ring */
#define SHM_SEC_LAST              33

/* ------------------------------------------------------ diagnostic logging */

/* The log hook: (level, module, printf format, arguments...). Every format of
 * the library begins with "%s.%d.%s: " (source file, line, function). The
 * module is always 37. The result is ignored. */
typedef int (*SHML_vondprintf_fn)(int32_t level, int32_t module, const char *format, ...);

/* The hook in use. The library looks up a function named "vondprintf" at its
 * first logging or locking operation and stores the result here, replacing
 * whatever was stored before; a value stored after that first operation is
 * kept. See README.md for what this means for programs linked directly. */
extern SHML_vondprintf_fn SHML_vondprintf;

/* The calling thread's logging state. While recursion is above 0 (the thread
 * holds a store lock, or is inside the hook) messages of levels 1 to 3 go to
 * the system log and the others are dropped. */
struct SHML_per_thread_data {
    int32_t recursion;
};

/* The calling thread's record, or NULL when none can exist. */
struct SHML_per_thread_data *SHML_get_per_thread_data(void);
void SHML_increment_recursion(void);
void SHML_decrement_recursion(void);

/* dlopen, dlsym and dlclose are also exported by the library, as definitions
 * that only fail (NULL, NULL, -1); <dlfcn.h> declares them. */

/* ------------------------------------------------- section table and check */

/* Section sizes in bytes, in section order. Writable, but every process must
 * use the same table: it is the only description of the layout. */
extern int32_t gShmSecSize[SHM_SECTION_COUNT];

/* Logs (level 1) every inconsistency of gShmSecSize; never refuses. */
void SHML_sanity_check(void);

/* ---------------------------------------------------------- semaphore sets */

/* Creates (and initialises every member to 1) or opens a semaphore set.
 * Returns its id, or -1. */
int32_t Vond_shm_init_sem(int32_t key, int32_t count);
/* Takes / releases one member with SEM_UNDO, retrying on EINTR. 0 or -1.
 * A successful take raises the thread's recursion counter, the release lowers
 * it, so both must run on the same thread. */
int32_t Vond_shm_sem_get(int32_t sem_id, int32_t member);
int32_t Vond_shm_sem_put(int32_t sem_id, int32_t member);

/* ------------------------------------------------------ store attachment */

extern int32_t gShmId;        /* segment id, -1 until known */
extern int32_t gShmLibSemId;  /* library semaphore set, -1 until known */
extern int32_t gShmSecSemId;  /* section semaphore set, -1 until known */
/* Base address of each section in this process; entry 0 is non-NULL exactly
 * when the process is attached. */
extern void *gShmData[SHM_SECTION_COUNT];

/* Attaches the process (creating the store if needed). 0 or -1. */
int32_t Vond_shm_init_shm(void);
/* Stores the base address of section sec_id (0 to 33) through base, for an
 * unlocked read in place. 0, or -1. */
int32_t Vond_shm_get_shm(int32_t sec_id, void **base);

/* ---------------------------------------------------------- section access */

/* Reads length bytes at offset of section sec_id into dest. The first length
 * bytes of dest are zeroed first; a range running past the section's end is
 * clipped (the tail stays zero). A length below 1 does nothing. 0 or -1. */
int32_t Vond_shm_memread(int32_t sec_id, void *dest, int32_t offset, int32_t length);
/* The same without taking the section lock: for a caller that holds it
 * (Vond_shm_lock_shm) or accepts a torn read. */
int32_t Vond_shm_memread_unlocked(int32_t sec_id, void *dest, int32_t offset, int32_t length);
/* Writes length bytes of src at offset of section sec_id (clipped at the
 * section's end). 0; -1 lock failed; -2 bad section number; -3 offset outside
 * the section; -4 attach failed. */
int32_t Vond_shm_memwrite(int32_t sec_id, const void *src, int32_t offset, int32_t length);
/* Fills the range with the low byte of value. Results as Vond_shm_memwrite. */
int32_t Vond_shm_memset(int32_t sec_id, int32_t value, int32_t offset, int32_t length);
/* Sets (on == 1) or clears (any other on) the bits of mask in the 8-byte
 * little-endian word at offset. Results as Vond_shm_memwrite. */
int32_t Vond_shm_mem_set_bit_on_uint(int32_t sec_id, int32_t offset, int32_t on, uint64_t mask);

/* As the calls above, with the thread's recursion counter raised around the
 * call: none of their messages reaches the log hook. */
int32_t Vond_shm_memread_safe(int32_t sec_id, void *dest, int32_t offset, int32_t length);
int32_t Vond_shm_memread_unlocked_safe(int32_t sec_id, void *dest, int32_t offset, int32_t length);
int32_t Vond_shm_memwrite_safe(int32_t sec_id, const void *src, int32_t offset, int32_t length);

/* 1 when the development-build marker "/etc/xrev_fw" exists, else 0. On a
 * development build an access beyond a section raises SIGABRT. */
int32_t isXRev(void);

/* ------------------------------------------------- explicit section locks */

/* Holds / releases one section's lock across several unlocked reads. The
 * process must already be attached (any access call attaches). 0 or -1. */
int32_t Vond_shm_lock_shm(int32_t sec_id);
int32_t Vond_shm_unlock_shm(int32_t sec_id);

#ifdef __cplusplus
}
#endif

#endif /* LIBSHM_H */
