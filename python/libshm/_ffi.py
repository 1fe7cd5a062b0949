"""The ctypes layer: loading libshm.so.1, the header's constants and packed
records, and the prototype of every function the package calls.

Nothing here is meant for direct use; the public API is in the package.
"""
import ctypes
import os
import platform
from ctypes import POINTER, c_char_p, c_int, c_int32, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p

# ------------------------------------------------------------------ loading

#: The library that was loaded: $LIBSHM_PATH, or "libshm.so.1" from the
#: dynamic linker's search path. Loaded with dlopen(RTLD_LOCAL), as every
#: ctypes.CDLL is: the library's own hook lookup then finds no "vondprintf"
#: in this process, so the log hook is set by assignment (see set_log_hook).
path = os.environ.get("LIBSHM_PATH") or "libshm.so.1"
try:
    lib = ctypes.CDLL(path)
except OSError as error:
    raise ImportError(f"libshm: cannot load the library ({error}); set LIBSHM_PATH to its path",
                      name="libshm", path=path) from error

# ------------------------------------------------------- header constants

SHM_SIZE = 4035719
SHM_SECTION_COUNT = 34
SHM_SEC_POWER, SHM_SEC_PLATFORM_ID, SHM_SEC_DIMM_INVENTORY, SHM_SEC_TIME = 5, 6, 7, 9
SHM_SEC_FEATURE_CAPS, SHM_SEC_BIOS_STATE, SHM_SEC_BLADE, SHM_SEC_OS_DATA = 10, 14, 16, 19
SHM_SEC_PBT, SHM_SEC_DIMM_WEAR, SHM_SEC_FRU_DATA, SHM_SEC_OCP_MEZZ = 20, 21, 22, 24
SHM_SEC_SDC, SHM_SEC_LAST = 26, 33

SHM_FRU_MAX_CLASS_DEVICES = 64
SHM_FRU_DATA_MAX_LENGTH = 65535
SHM_DIMM_INVENTORY_RECORDS = 128

SDC_RING_SIZE = 524288
SDC_HEADER_OFFSET = 524288
SDC_MAX_APPS = 8
SDC_APP_NAME_SIZE = 21
SDC_POLL_BUFFER_SIZE = 524287
SDC_EXPORT_BUFFER_SIZE = 524288

# ---------------------------------------------------------- packed records


class FruEntry(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("status", c_uint8), ("fruId", c_uint16), ("reserved3", c_uint8),
                ("fruAttribute", c_uint8), ("deviceType", c_uint8), ("fruLocator", c_uint8),
                ("dataLength", c_uint16), ("dataOffset", c_uint32), ("reserved13", c_uint8 * 2)]


FruInfo = FruEntry  # the header's typedef


class FruDeviceListEntry(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("fruId", c_uint16), ("fruAttribute", c_uint8), ("fruLocator", c_uint8)]


class FruDeviceList(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("count", c_uint8), ("gap", c_uint8),
                ("entry", FruDeviceListEntry * SHM_FRU_MAX_CLASS_DEVICES)]


class DimmWearPosition(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("cpu", c_uint8), ("channel", c_uint8), ("dimm", c_uint8),
                ("type", c_uint8), ("wear", c_uint8)]


class DimmWearEntry(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("index", c_uint8), ("wear", c_uint8), ("fqdd", ctypes.c_char * 16)]


class SdcAppEntry(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("Name", ctypes.c_char * SDC_APP_NAME_SIZE), ("iLast", c_uint32)]


class SdcHeader(ctypes.Structure):
    _pack_ = 1
    _fields_ = [("Head", c_uint32), ("Tail", c_uint32), ("Written", c_uint32),
                ("SDCAppTable", SdcAppEntry * SDC_MAX_APPS), ("Signature", ctypes.c_char * 8)]


# The sizes the header's static layout gives; a mismatch is a packing fault
# of this module and must stop the import, not corrupt the store.
SIZES = {FruEntry: 15, FruDeviceList: 258, DimmWearPosition: 5, DimmWearEntry: 18, SdcHeader: 220}
for _type, _size in SIZES.items():
    if ctypes.sizeof(_type) != _size:
        raise ImportError(f"libshm: {_type.__name__} is {ctypes.sizeof(_type)} bytes, the header says {_size}")

#: Section offset of application slot `id`'s iLast (unaligned u32).
def ilast_offset(app_id: int) -> int:
    return int(SDC_HEADER_OFFSET + SdcHeader.SDCAppTable.offset
               + app_id * ctypes.sizeof(SdcAppEntry) + SdcAppEntry.iLast.offset)


# -------------------------------------------------------------- prototypes

i32, u32, u8p = c_int32, c_uint32, POINTER(c_uint8)

#: name: (restype, argtypes), exactly as include/libshm.h declares them
#: (void * and const void * are c_void_p, char * and const char * c_char_p).
PROTOTYPES = {
    "SHML_get_per_thread_data": (c_void_p, []),
    "Vond_shm_init_shm": (i32, []),
    "Vond_shm_memread": (i32, [i32, c_void_p, i32, i32]),
    "Vond_shm_memread_unlocked": (i32, [i32, c_void_p, i32, i32]),
    "Vond_shm_memwrite": (i32, [i32, c_void_p, i32, i32]),
    "Vond_shm_memset": (i32, [i32, i32, i32, i32]),
    "Vond_shm_mem_set_bit_on_uint": (i32, [i32, i32, i32, c_uint64]),
    "isXRev": (i32, []),
    "Vond_shm_lock_shm": (i32, [i32]),
    "Vond_shm_unlock_shm": (i32, [i32]),
    "Vond_get_platform_type": (u32, []),
    "Vond_get_system_id": (u32, []),
    "Vond_get_quorx_type": (u32, []),
    "Vond_get_generation": (u32, []),
    "Vond_get_modular_chassis_type": (u32, []),
    "Vond_get_post_update": (u32, []),
    "Vond_get_cpu_type": (u32, []),
    "Vond_get_blade_slot_num": (i32, [u8p]),
    "Vond_get_quorx_progress": (u32, [i32]),
    "Vond_set_quorx_progress": (i32, [i32, i32]),
    "Vond_set_modular_chassis_type": (i32, [u32]),
    "is_modular_brask_chassis": (i32, []),
    "is_ngm": (u32, []),
    "Vond_get_product_type": (u32, []),
    "Vond_get_bios_livescan_stagger_time": (i32, [u8p]),
    "Vond_get_hybridSysFlag": (i32, []),
    **{name: (i32, []) for name in (
        "isAMD", "is14GAMD", "is15GAMD", "is16G", "isQV", "isVarduna", "isTesk", "isMorvast",
        "isQillan", "isDunmarch", "IsBootFirstPolicyEnabled", "isPowerOnHookAvailable",
        "IsCPDimmPollingSupported", "IsCPCpuCupsSupported", "isBiosDonePost", "serialPECIPresent")},
    "Vond_get_EOPTime": (i32, [POINTER(u32)]),
    "Vond_set_EOPTime": (i32, [i32, u32]),
    "Vond_get_SysUpTime": (i32, []),
    "Vond_get_BootTime": (i32, [c_char_p]),
    "Vond_get_OSDataCollectionDate": (i32, [c_char_p]),
    "Get_SHM_feature_capabilities": (i32, [u32, POINTER(c_uint16)]),
    "Set_SHM_feature_capabilities": (i32, [u32, c_uint16]),
    "Get_VR_Sensor_Enablement": (i32, [u32, u32]),
    "GetSystemPowerStatusSHM": (u32, []),
    "Get_blade_form_factor": (i32, [u8p]),
    "Vond_shm_get_frudata": (u32, [u32, u8p]),
    "Vond_shm_get_fruinfo": (u32, [u32, POINTER(FruInfo)]),
    "Vond_shm_get_fruDeviceinfo": (u32, [u32, u32, POINTER(FruDeviceList)]),
    "getOCPMezzFRUID": (u32, []),
    "getNVDIMMApachePassCount": (i32, []),
    "updateDIMMWearLevel": (u32, [u8p]),
    "updateDIMMWearLevelUsingFQDD": (u32, [u8p]),
    "readDIMMWearLevel": (u32, [u8p, u32]),
    "Vond_shm_init_sdc": (i32, []),
    "Vond_shm_write_sdc": (i32, [POINTER(u32), c_void_p]),
    "Vond_shm_export_sdc": (i32, [POINTER(u32), c_void_p]),
    "Vond_shm_clear_sdc": (i32, []),
    "Vond_shm_get_size_sdc": (i32, [POINTER(u32)]),
    "Vond_shm_periodic_register_sdc": (i32, [c_char_p, POINTER(i32)]),
    "Vond_shm_periodic_get_sdc": (i32, [POINTER(u32), c_void_p, u32]),
}
for _name, (_restype, _argtypes) in PROTOTYPES.items():
    _function = getattr(lib, _name)
    _function.restype, _function.argtypes = _restype, _argtypes

# -------------------------------------------------------- exported objects

gShmId = c_int32.in_dll(lib, "gShmId")
gShmLibSemId = c_int32.in_dll(lib, "gShmLibSemId")
gShmSecSemId = c_int32.in_dll(lib, "gShmSecSemId")
gShmSecSize = (c_int32 * SHM_SECTION_COUNT).in_dll(lib, "gShmSecSize")
gShmData = (c_void_p * SHM_SECTION_COUNT).in_dll(lib, "gShmData")
SHML_vondprintf = c_void_p.in_dll(lib, "SHML_vondprintf")

# The hook is variadic: (level, module, format, ...). A ctypes callback cannot
# be. Every format of the library starts with "%s.%d.%s: ", so every call
# passes at least file, line and function after the format; on the Linux ABIs
# below integer and pointer arguments of a variadic call are passed exactly
# like those of a fixed-argument call, so declaring those three as fixed
# parameters reads them correctly. Elsewhere only (level, module, format) are
# declared and the three are reported as unknown.
HOOK_READS_PREFIX = platform.machine() in {"x86_64", "i386", "i486", "i586", "i686",
                                           "armv6l", "armv7l", "armv8l", "aarch64"}
if HOOK_READS_PREFIX:
    HOOK = ctypes.CFUNCTYPE(c_int, c_int32, c_int32, c_char_p, c_char_p, c_int32, c_char_p)
else:
    HOOK = ctypes.CFUNCTYPE(c_int, c_int32, c_int32, c_char_p)
