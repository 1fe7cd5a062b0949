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
 * Usable from C (C99 or later) and C++. The manual: libshm(7), and a page
 * per family (libshm_access(3), libshm_sdc(3), ...); man NAME for any call.
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
 * kept. See libshm_log(3) for what this means for programs linked directly. */
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

/* ------------------------------------------------ platform identity record */

/* Section 6, a 13-byte record that other processes fill. Each byte getter
 * reads one byte and returns it (0 to 255); when the read fails it returns 0,
 * the chassis type getter 247 (never an ngm code). None of them logs. */
uint32_t Vond_get_platform_type(void);         /* 2 = modular (blade) platform */
uint32_t Vond_get_system_id(void);
uint32_t Vond_get_quorx_type(void);
uint32_t Vond_get_generation(void);            /* 3 = 14G, 4 = 15G, 5+ = 16G and later */
uint32_t Vond_get_modular_chassis_type(void);  /* bit 3 = ngm; 1, 3, 5 = brask */
uint32_t Vond_get_post_update(void);
uint32_t Vond_get_cpu_type(void);              /* 1 = AMD */

/* Stores the blade slot byte through slot. 0; -1 if the platform is not
 * modular, the read fails or slot is NULL. */
int32_t Vond_get_blade_slot_num(uint8_t *slot);
/* 1 if the progress bit is set, else 0 (also on a failed read). Bit 0 is the
 * summary bit; a bit number whose low 8 bits are 32 or more answers 0. */
uint32_t Vond_get_quorx_progress(int32_t bit);
/* Sets (set non-zero) or clears (set 0) progress bit 1 to 31 under the
 * section's lock, and re-derives summary bit 0: set exactly when bits 1, 5, 6,
 * 13 and 22 (mask 0x00402062) all are. 0; -1 for bit 0, bit above 31, set
 * above 1 or a lock failure; the attach result when attaching fails. */
int32_t Vond_set_quorx_progress(int32_t bit, int32_t set);
/* Stores the low byte of type; the result of Vond_shm_memwrite. */
int32_t Vond_set_modular_chassis_type(uint32_t type);
/* 1 for chassis type 1, 3 or 5, whatever the platform type; else 0. */
int32_t is_modular_brask_chassis(void);
/* 1 on a modular platform whose chassis type has bit 3 set; else 0. */
uint32_t is_ngm(void);
/* 1 if "/tmp/ec" exists (a dangling symbolic link counts), else 0. */
uint32_t Vond_get_product_type(void);
/* Stores 6 through time and returns 0 (-1 for NULL); reads nothing. */
int32_t Vond_get_bios_livescan_stagger_time(uint8_t *time);
/* Always 0; reads nothing. */
int32_t Vond_get_hybridSysFlag(void);

/* ------------------------------------------------ platform family predicates */

/* Each answers 1 or 0 from the store as it is at the call; a failed read
 * counts as a stored 0. */
int32_t isAMD(void);
int32_t is14GAMD(void);
int32_t is15GAMD(void);                /* also true on 16G and later AMD */
int32_t is16G(void);
int32_t isQV(void);                    /* system id 28-30, 50-53, 56 */
int32_t isVarduna(void);               /* system id 6, 7, 10, 11, 40 */
int32_t isTesk(void);                  /* system id 106-110 */
int32_t isMorvast(void);               /* system id 37 */
int32_t isQillan(void);                /* system id 39 */
int32_t isDunmarch(void);              /* system id 61 */
int32_t IsBootFirstPolicyEnabled(void);
int32_t isPowerOnHookAvailable(void);
int32_t IsCPDimmPollingSupported(void);
int32_t IsCPCpuCupsSupported(void);
int32_t isBiosDonePost(void);          /* BIOS POST status 0x51, 0x7E or 0x7F */
int32_t serialPECIPresent(void);

/* ------------------------------------------------------------- time records */

/* The EOP time (section 9), seconds since the epoch; 0 = not yet set. */
/* 0 after storing it; -1 after storing 0 when the read fails (or eop NULL). */
int32_t Vond_get_EOPTime(uint32_t *eop);
/* op 1 stores eop, op 0 stores 0; any other op is -1 and writes nothing. */
int32_t Vond_set_EOPTime(int32_t op, uint32_t eop);
/* Seconds since the EOP time (32-bit arithmetic); 0 while it is 0; -1 on a
 * failed read or clock. */
int32_t Vond_get_SysUpTime(void);
/* The EOP time in local time, ctime form without the line end, into a buffer
 * of at least 26 bytes. 0 (while the time is 0 the buffer is untouched and
 * may be NULL); -1 on a failed read, or a NULL buffer when the time is set. */
int32_t Vond_get_BootTime(char *text);
/* The OS data collection date (section 19) in UTC as
 * "yyyymmddhhmmss.000000+000", or "N/A" when never collected, into a buffer
 * of 32 bytes. 0; -1 on a failed read (buffer untouched) or a NULL buffer. */
int32_t Vond_get_OSDataCollectionDate(char *text);

/* ------------------------------------- feature capabilities and VR sensors */

/* Capability words 0 to 8 (section 10). 0; -1 for capname above 8, a failed
 * access or a NULL value. */
int32_t Get_SHM_feature_capabilities(uint32_t capname, uint16_t *value);
int32_t Set_SHM_feature_capabilities(uint32_t capname, uint16_t value);

#define MAX_CPU_VR_ENTRIES 4
#define MAX_MEM_VR_ENTRIES 8
/* Whether one VR's sensor is enabled, from the platform table (section 20).
 * VRtype 5 = CPU VR (index 0 to 3), 3 = memory VR (index 0 to 7).
 * 0 disabled, 1 enabled, 2 table not yet initialised (retry), 3 error. */
int32_t Get_VR_Sensor_Enablement(uint32_t VRtype, uint32_t SHMindex);

/* --------------------------------------- power status and blade form factor */

/* The system power status byte (section 5); 255 when the read fails. */
uint32_t GetSystemPowerStatusSHM(void);
/* Stores the blade form factor byte (section 16). 0; -1 for NULL or a failed
 * read. */
int32_t Get_blade_form_factor(uint8_t *form_factor);
/* Sixteen rows of two values, published for clients; the library never reads
 * it. Writable: a change stays in the changing process. */
extern int32_t powerInputMap[16][2];

/* ------------------------------------------------------------- FRU records */

/* Packed records of the FRU data section (22). Multi-byte fields are
 * little-endian and unaligned: read them by value, never through a pointer
 * to the field. */
#define SHM_FRU_SECTION_SIZE     242557
#define SHM_FRU_MAX_DEVICES      59   /* a larger deviceCount marks the directory corrupt */
#define SHM_FRU_MAX_CLASS_DEVICES 64  /* entries in a FruDeviceList */

/* Result codes of the three directory queries. */
#define SHM_FRU_OK               0
#define SHM_FRU_NOT_FOUND        1    /* also: block out of range, copy failed */
#define SHM_FRU_NOT_INITIALIZED  195
#define SHM_FRU_BAD_ARGUMENT     201  /* also: corrupt directory */

/* One directory entry, at section offset 8 + 15 * i. */
typedef struct __attribute__((packed)) FruEntry {
    uint8_t status;          /* 1 = data initialised */
    uint16_t fruId;
    uint8_t reserved3;       /* carried */
    uint8_t fruAttribute;
    uint8_t deviceType;      /* 0 to 25 */
    uint8_t fruLocator;      /* 1 to 3 */
    uint16_t dataLength;
    uint32_t dataOffset;     /* from the start of the section */
    uint8_t reserved13[2];   /* carried */
} FruEntry;
/* The caller's copy of one entry, byte for byte. */
typedef FruEntry FruInfo;

typedef struct __attribute__((packed)) FruDeviceListEntry {
    uint16_t fruId;
    uint8_t fruAttribute;
    uint8_t fruLocator;
} FruDeviceListEntry;
/* 258 bytes; byte 1 is a gap the library never writes. */
typedef struct __attribute__((packed)) FruDeviceList {
    uint8_t count;
    uint8_t gap;
    FruDeviceListEntry entry[SHM_FRU_MAX_CLASS_DEVICES];
} FruDeviceList;

/* The size a Vond_shm_get_frudata buffer must have: the largest block the
 * 16-bit dataLength field can describe. The directory is read without a lock
 * and any process may rewrite it, so the length Vond_shm_get_fruinfo reported
 * can have grown by the time Vond_shm_get_frudata copies: a buffer sized from
 * that length is not safe, one of this size always is. */
#define SHM_FRU_DATA_MAX_LENGTH  65535

/* Copies the data block of FRU id into data, which must hold
 * SHM_FRU_DATA_MAX_LENGTH bytes; the copy is the block's dataLength bytes as
 * the directory holds them at the call (Vond_shm_get_fruinfo tells that
 * length, but only as it was when it was asked). 0, 1, 195 or 201 as above. */
uint32_t Vond_shm_get_frudata(uint32_t id, uint8_t *data);
/* Copies the directory entry of FRU id, initialised or not. 0, 1 or 201. */
uint32_t Vond_shm_get_fruinfo(uint32_t id, FruInfo *fruinfo);
/* Lists the FRUs of one device class (0 to 25) at one locator (1 to 3).
 * 0 (count may be 0), 1 or 201. */
uint32_t Vond_shm_get_fruDeviceinfo(uint32_t deviceType, uint32_t fruLocator,
                                    FruDeviceList *fruDeviceInfo);
/* The OCP mezzanine card's FRU id (section 24), 1 to 254; 255 for none. */
uint32_t getOCPMezzFRUID(void);

/* -------------------------------------------------------- DIMM wear records */

#define SHM_DIMM_INVENTORY_OFFSET  7357  /* in section 7 */
#define SHM_DIMM_INVENTORY_RECORDS 128
#define SHM_DIMM_INVENTORY_RECORD_SIZE 46
#define SHM_DIMM_WEAR_OFFSET       555   /* in section 21 */
#define SHM_DIMM_WEAR_RECORDS      192
#define SHM_DIMM_WEAR_RECORD_SIZE  40

/* An entry of the position update list: a count byte N, then N of these. */
typedef struct __attribute__((packed)) DimmWearPosition {
    uint8_t cpu;      /* 0 to 3 */
    uint8_t channel;  /* 0 to 7 */
    uint8_t dimm;     /* 0 to 5 */
    uint8_t type;     /* only logged */
    uint8_t wear;     /* percent */
} DimmWearPosition;

/* An entry of the FQDD update list and of the wear report: a count byte N,
 * then N of these (a buffer for N entries needs 1 + 18 * N bytes). */
typedef struct __attribute__((packed)) DimmWearEntry {
    uint8_t index;    /* report: the module's slot number; update: ignored */
    uint8_t wear;     /* percent, 0 to 255 */
    char fqdd[16];    /* NUL-terminated, at most 15 characters */
} DimmWearEntry;

/* Turns the 1-based CPU and channel numbers of an inventory record into the
 * 0-based indexes of the wear table, masked (not checked) into 0..3 and 0..7.
 * Returns 0 (1, changing nothing, when either pointer is NULL). */
int32_t calculateCPUChannelNum(uint32_t *cpu, uint32_t *channel);
/* 1 for the Apache Pass module types 5 to 10, else 0. */
int32_t isNVDIMMApachePass(uint32_t type);
/* Inventory records with an Apache Pass type (0 to 128); 0 when unreadable. */
int32_t getNVDIMMApachePassCount(void);
/* Stores the wear of each listed position (count byte, then DimmWearPosition
 * entries). 0; 1 on a NULL list, a position out of range (earlier entries
 * stay written) or a failed access. */
uint32_t updateDIMMWearLevel(const uint8_t *list);
/* Stores the wear of each listed module found by FQDD (count byte, then
 * DimmWearEntry entries); modules not found are skipped. 0; 1 on a NULL list
 * or an unreadable inventory. */
uint32_t updateDIMMWearLevelUsingFQDD(const uint8_t *list);
/* Reports every Apache Pass module's wear into buffer (size bytes): a count
 * byte, then DimmWearEntry entries. 0; 1 on a NULL buffer, size 0, a buffer
 * too small for every module, or an unreadable inventory. */
uint32_t readDIMMWearLevel(uint8_t *buffer, uint32_t size);

/* ------------------------------------------------- serial data record ring */

/* Section 26: a byte ring of SDC_RING_SIZE bytes, then the 220-byte header. */
#define SDC_RING_SIZE       524288
#define SDC_HEADER_OFFSET   524288
#define SDC_HEADER_SIZE     220
#define SDC_MAX_APPS        8
#define SDC_APP_NAME_SIZE   21
#define SDC_SIGNATURE       "VondSDC"
#define SDC_RECOVERY_FILE   "/flash/data0/sdc.bin"
#define SDC_RECOVERY_FILE_SIZE 524508   /* an image of the whole section */
#define SDC_POLL_BUFFER_SIZE   524287   /* the most one poll delivers */
#define SDC_EXPORT_BUFFER_SIZE 524288   /* the most one export delivers */

typedef struct __attribute__((packed)) SdcAppEntry {
    char Name[SDC_APP_NAME_SIZE];   /* free when Name[0] is 0 */
    uint32_t iLast;                 /* ring index last delivered (unaligned) */
} SdcAppEntry;

typedef struct __attribute__((packed)) SdcHeader {
    uint32_t Head;      /* index of the oldest byte once the ring has wrapped */
    uint32_t Tail;      /* index of the newest byte */
    uint32_t Written;   /* 0 until the first write */
    SdcAppEntry SDCAppTable[SDC_MAX_APPS];
    char Signature[8];  /* "VondSDC" and a zero byte */
} SdcHeader;

/* Restores section 26 from the recovery file when it is valid, else checks
 * the header and writes the signature where it is missing. Meant for the
 * process that brings the store up, once. 0 or -1. */
int32_t Vond_shm_init_sdc(void);
/* Appends *length bytes (1 to SDC_RING_SIZE) of data, overwriting the oldest
 * bytes of a full ring. *length must not change during the call. 0 or -1. */
int32_t Vond_shm_write_sdc(const uint32_t *length, const void *data);
/* Copies the whole ring, oldest byte first, into buffer (at least
 * SDC_EXPORT_BUFFER_SIZE bytes) and stores the count in *length. 0 or -1. */
int32_t Vond_shm_export_sdc(uint32_t *length, void *buffer);
/* Empties the ring; the application table and the signature stay. 0 or -1. */
int32_t Vond_shm_clear_sdc(void);
/* The count an export would return. 0 or -1. */
int32_t Vond_shm_get_size_sdc(uint32_t *size);
/* Registers an application by name (at most 20 bytes are stored, 21
 * compared) and stores its slot 0 to 7 in *id (-1 when none is free).
 * 0 or -1. */
int32_t Vond_shm_periodic_register_sdc(const char *name, int32_t *id);
/* Copies the bytes written since the application's previous poll into buffer
 * (at least SDC_POLL_BUFFER_SIZE bytes) and stores a count in *length; see
 * libshm_sdc(3) for what the count means after the ring wrapped. 0 or -1. */
int32_t Vond_shm_periodic_get_sdc(uint32_t *length, void *buffer, uint32_t id);

#ifdef __cplusplus
}
#endif

#endif /* LIBSHM_H */
