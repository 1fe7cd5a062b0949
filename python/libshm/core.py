"""Errors, argument conversion, the store, section access and locks, the
platform accessors, times, capabilities, VR sensors, power, FRU and DIMM
records, and the log hook."""
import contextlib
import ctypes
import dataclasses
import threading
from collections.abc import Callable, Iterable, Iterator, Mapping
from typing import Any, NamedTuple, Optional, TypeVar, Union

from . import _ffi
from ._ffi import lib

# ------------------------------------------------------------------ errors


class Error(Exception):
    """A library call reported failure.

    ``function`` is the C function's name, ``code`` its result and ``meaning``
    what that result means for this call. ``code`` is 0 only where the call
    succeeded but its outcome cannot be used (fru_data and Consumer.poll say
    when).
    """

    def __init__(self, function: str, code: int, meaning: str) -> None:
        super().__init__(function, code, meaning)
        self.function, self.code, self.meaning = function, code, meaning

    def __str__(self) -> str:
        return f"{self.function} returned {self.code}: {self.meaning}"


# Result codes per family, as the header documents them.
ATTACH = {-1: "cannot attach the store (IPC objects refused, missing or section table invalid)"}
READ = {-1: "bad section number, negative offset, offset at or past the section's end, "
            "section lock or attach failed"}
ACCESS = {-1: "could not take the section lock", -2: "bad section number",
          -3: "offset negative, at or past the section's end (bit call: word not inside the section)",
          -4: "could not attach the store"}
LOCK = {-1: "bad section number, semaphore operation failed, or the process is not attached"}
FRU = {1: "not found or not readable (no such id, empty directory, block out of range, copy failed)",
       195: "the FRU's data is not initialised",
       201: "bad argument or corrupt directory (more than 59 entries)"}
SDC = {-1: "SDC header unreadable or Head/Tail out of range, a section access failed, or a bad argument"}


def check(function: str, result: int, meanings: dict[int, str]) -> None:
    """Raise Error unless ``result`` is 0."""
    if result != 0:
        raise Error(function, result, meanings.get(result, "failed (a result the interface does not list)"))


# Argument checks. Every argument is checked here, before any ctypes call,
# by the one rule of its kind: a value that is not an int (bool included) is a
# TypeError, an int outside the kind's range a ValueError. The ranges are the
# interface's, so a refused value never reaches the library (ctypes would
# truncate 2**32 to 0; the library would log, or abort on a development build).

def _int(name: str, value: int, low: int, high: int) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    if not low <= value <= high:
        raise ValueError(f"{name}={value} is outside {low}..{high}")
    return value


def _section(section: int) -> int:
    """Section numbers 1 to 33 (section 0 has no bytes and no lock)."""
    return _int("section", section, 1, _ffi.SHM_SEC_LAST)


def _offset(section: int, offset: int) -> int:
    """An offset inside the section as this process's section table sizes it."""
    return _int("offset", offset, 0, _ffi.gShmSecSize[section] - 1)


def _length(name: str, length: int) -> int:
    return _int(name, length, 0, 2**31 - 1)


def u32(name: str, value: int) -> int:
    return _int(name, value, 0, 2**32 - 1)


def u8(name: str, value: int) -> int:
    return _int(name, value, 0, 255)


#: What the calls that take bytes accept (any object with the buffer protocol works).
_Bytes = Union[bytes, bytearray, memoryview]

# ---------------------------------------------------------------- the store


def attach() -> None:
    """Attach this process to the store (creating it if needed)."""
    check("Vond_shm_init_shm", lib.Vond_shm_init_shm(), ATTACH)


class Attachment(NamedTuple):
    segment: int
    library_semaphores: int
    section_semaphores: int


def attachment() -> Attachment:
    """The ids of the segment and the two semaphore sets (-1 until known)."""
    return Attachment(_ffi.gShmId.value, _ffi.gShmLibSemId.value, _ffi.gShmSecSemId.value)


def is_attached() -> bool:
    return bool(_ffi.gShmData[0])


def section_size(section: int) -> int:
    """The size of a section (1 to 33) in this process's section table."""
    return int(_ffi.gShmSecSize[_section(section)])


# ---------------------------------------------------------- section access

_held = threading.local()  # the sections whose lock this thread holds through lock()


def _held_sections() -> set[int]:
    if not hasattr(_held, "sections"):
        _held.sections = set()
    sections: set[int] = _held.sections
    return sections


def _not_held(section: int) -> None:
    if section in _held_sections():
        raise RuntimeError(f"this thread holds section {section}'s lock (libshm.lock): a locked "
                           "call would wait for ever; use read(..., locked=False)")


def read(section: int, offset: int, length: int, locked: bool = True) -> bytes:
    """``length`` bytes at ``offset`` of ``section``, under its lock.

    ``offset`` must lie inside the section; a range running past the
    section's end is clipped by the library and the missing tail comes back
    as zeros. ``locked=False`` reads without the lock, for use inside
    ``with lock(section):``.
    """
    section = _section(section)
    offset, length = _offset(section, offset), _length("length", length)
    if locked:
        _not_held(section)
    buffer = ctypes.create_string_buffer(length)
    name = "Vond_shm_memread" if locked else "Vond_shm_memread_unlocked"
    check(name, getattr(lib, name)(section, buffer, offset, length), READ)
    return buffer.raw


def read_unlocked(section: int, offset: int, length: int) -> bytes:
    """read() without taking the section lock (hold it with lock())."""
    return read(section, offset, length, locked=False)


def write(section: int, offset: int, data: _Bytes) -> None:
    """Write the bytes of ``data`` (any bytes-like object) at ``offset``
    (inside the section; what runs past its end is clipped by the library)."""
    section = _section(section)
    offset, data = _offset(section, offset), bytes(memoryview(data))
    _length("len(data)", len(data))
    _not_held(section)
    check("Vond_shm_memwrite", lib.Vond_shm_memwrite(section, data, offset, len(data)), ACCESS)


def fill(section: int, offset: int, length: int, value: int = 0) -> None:
    """Set ``length`` bytes at ``offset`` to the byte ``value``."""
    section = _section(section)
    offset, length, value = _offset(section, offset), _length("length", length), u8("value", value)
    _not_held(section)
    check("Vond_shm_memset", lib.Vond_shm_memset(section, value, offset, length), ACCESS)


def set_bit(section: int, offset: int, mask: int, on: bool = True) -> None:
    """Set (``on``) or clear the bits of ``mask`` in the little-endian 8-byte
    word at ``offset`` (Error -3 when the word is not inside the section)."""
    section = _section(section)
    offset = _offset(section, offset)
    mask = _int("mask", mask, 0, 2**64 - 1)
    _not_held(section)
    check("Vond_shm_mem_set_bit_on_uint",
          lib.Vond_shm_mem_set_bit_on_uint(section, offset, 1 if on else 0, mask), ACCESS)


@contextlib.contextmanager
def lock(section: int) -> Iterator[None]:
    """Hold ``section``'s lock for the body of a ``with`` statement.

    Inside, read with ``read(..., locked=False)``; the locked calls of this
    module refuse the held section (they would wait for ever), but the typed
    accessors cannot tell: do not call those that use the section. The lock
    is released on the same thread when the body ends, also by an exception.
    While it is held, the library sends its messages of levels 1 to 3 to the
    system log and drops the rest, so the log hook sees none of them.
    """
    section = _section(section)
    _not_held(section)
    attach()  # the lock call does not attach by itself
    check("Vond_shm_lock_shm", lib.Vond_shm_lock_shm(section), LOCK)
    _held_sections().add(section)
    try:
        yield
    finally:
        _held_sections().discard(section)
        check("Vond_shm_unlock_shm", lib.Vond_shm_unlock_shm(section), LOCK)


def is_xrev() -> bool:
    """True on a development build ("/etc/xrev_fw" exists): out-of-range
    accesses then raise SIGABRT in this process."""
    return bool(lib.isXRev() == 1)


# ------------------------------------------------------ platform accessors

# Byte getters return a fixed value when their read fails and so cannot
# report failure; predicates count a failed read as a stored 0.

def _getter(name: str, function: str, failure: Optional[int], what: str) -> Callable[[], int]:
    c_function = getattr(lib, function)

    def get() -> int:
        return int(c_function())
    get.__name__ = get.__qualname__ = name
    get.__doc__ = f"The {what}, from {function}()." + (
        "" if failure is None else
        f" A failed read returns {failure}, which cannot be told from a stored {failure}: "
        "this getter cannot signal failure (read the section to tell).")
    return get


def _predicate(name: str, function: str) -> Callable[[], bool]:
    c_function = getattr(lib, function)

    def test() -> bool:
        return bool(c_function() == 1)
    test.__name__ = test.__qualname__ = name
    test.__doc__ = (f"{function}() as a bool, from the store as it is now. A failed read counts "
                    "as a stored 0: this predicate cannot signal failure.")
    return test


platform_type = _getter("platform_type", "Vond_get_platform_type", 0, "platform type code (2 = modular)")
system_id = _getter("system_id", "Vond_get_system_id", 0, "system id")
quorx_type = _getter("quorx_type", "Vond_get_quorx_type", 0, "controller type code")
generation = _getter("generation", "Vond_get_generation", 0,
                     "generation code (3 = 14G, 4 = 15G, 5+ = 16G and later)")
modular_chassis_type = _getter("modular_chassis_type", "Vond_get_modular_chassis_type", 247,
                               "modular chassis type code")
post_update = _getter("post_update", "Vond_get_post_update", 0, "post update code")
cpu_type = _getter("cpu_type", "Vond_get_cpu_type", 0, "CPU vendor code (1 = AMD)")
hybrid_sys_flag = _getter("hybrid_sys_flag", "Vond_get_hybridSysFlag", None, "hybrid system flag (always 0)")
product_type = _getter("product_type", "Vond_get_product_type", None,
                       'product type (1 when "/tmp/ec" exists, else 0)')
is_amd = _predicate("is_amd", "isAMD")
is_14g_amd = _predicate("is_14g_amd", "is14GAMD")
is_15g_amd = _predicate("is_15g_amd", "is15GAMD")
is_16g = _predicate("is_16g", "is16G")
is_qv = _predicate("is_qv", "isQV")
is_varduna = _predicate("is_varduna", "isVarduna")
is_tesk = _predicate("is_tesk", "isTesk")
is_morvast = _predicate("is_morvast", "isMorvast")
is_qillan = _predicate("is_qillan", "isQillan")
is_dunmarch = _predicate("is_dunmarch", "isDunmarch")
is_boot_first_policy_enabled = _predicate("is_boot_first_policy_enabled", "IsBootFirstPolicyEnabled")
is_power_on_hook_available = _predicate("is_power_on_hook_available", "isPowerOnHookAvailable")
is_cp_dimm_polling_supported = _predicate("is_cp_dimm_polling_supported", "IsCPDimmPollingSupported")
is_cp_cpu_cups_supported = _predicate("is_cp_cpu_cups_supported", "IsCPCpuCupsSupported")
is_bios_done_post = _predicate("is_bios_done_post", "isBiosDonePost")
serial_peci_present = _predicate("serial_peci_present", "serialPECIPresent")
is_ngm = _predicate("is_ngm", "is_ngm")
is_modular_brask_chassis = _predicate("is_modular_brask_chassis", "is_modular_brask_chassis")

#: The getters and predicates above, in order (python3 -m libshm platform shows them).
GETTERS = ("platform_type", "system_id", "quorx_type", "generation", "modular_chassis_type", "post_update",
           "cpu_type", "hybrid_sys_flag", "product_type")
PREDICATES = ("is_amd", "is_14g_amd", "is_15g_amd", "is_16g", "is_qv", "is_varduna", "is_tesk", "is_morvast",
              "is_qillan", "is_dunmarch", "is_boot_first_policy_enabled", "is_power_on_hook_available",
              "is_cp_dimm_polling_supported", "is_cp_cpu_cups_supported", "is_bios_done_post",
              "serial_peci_present", "is_ngm", "is_modular_brask_chassis")


def blade_slot() -> int:
    """The blade slot number (modular platforms only)."""
    slot = ctypes.c_uint8()
    check("Vond_get_blade_slot_num", lib.Vond_get_blade_slot_num(ctypes.byref(slot)),
          {-1: "the platform is not modular, or the read failed"})
    return slot.value


def quorx_progress(bit: int) -> bool:
    """Whether controller progress bit ``bit`` (0 to 31; bit 0: the summary
    bit) is set. A failed read answers False: this call cannot signal failure."""
    return bool(lib.Vond_get_quorx_progress(_int("bit", bit, 0, 31)) == 1)


def set_quorx_progress(bit: int, on: bool = True) -> None:
    """Set or clear progress bit 1 to 31; the library re-derives bit 0."""
    check("Vond_set_quorx_progress", lib.Vond_set_quorx_progress(_int("bit", bit, 1, 31), 1 if on else 0),
          {-1: "the section lock failed (or attaching failed)"})


def set_modular_chassis_type(value: int) -> None:
    """Store the modular chassis type byte."""
    check("Vond_set_modular_chassis_type", lib.Vond_set_modular_chassis_type(u8("value", value)), ACCESS)


def bios_livescan_stagger_time() -> int:
    """Always 6 (the library reads nothing)."""
    value = ctypes.c_uint8()
    check("Vond_get_bios_livescan_stagger_time",
          lib.Vond_get_bios_livescan_stagger_time(ctypes.byref(value)), {-1: "NULL pointer"})
    return value.value


# -------------------------------------------------------------------- times

_TIME_READ = {-1: "the time section could not be read"}


def eop_time() -> int:
    """The EOP time in seconds since the epoch; 0 while not set."""
    value = ctypes.c_uint32()
    check("Vond_get_EOPTime", lib.Vond_get_EOPTime(ctypes.byref(value)), _TIME_READ)
    return value.value


def set_eop_time(seconds: int) -> None:
    """Store the EOP time (0 clears it)."""
    check("Vond_set_EOPTime", lib.Vond_set_EOPTime(1, u32("seconds", seconds)),
          {-1: "the time section could not be written"})


def sys_uptime() -> int:
    """Seconds since the EOP time (0 while it is not set; negative while the
    EOP time is in the future).

    The library's failure value is -1, which is also the up-time when the EOP
    time is exactly one second ahead of the clock: that case raises as well.
    """
    value = int(lib.Vond_get_SysUpTime())
    if value == -1:
        raise Error("Vond_get_SysUpTime", -1, "the time section or the clock could not be read "
                                              "(or the EOP time is exactly 1 s ahead)")
    return value


def boot_time() -> Optional[str]:
    """The EOP time in local time, ctime form; None while it is not set."""
    text = ctypes.create_string_buffer(32)
    check("Vond_get_BootTime", lib.Vond_get_BootTime(text), {-1: "read failed or ctime_r failed"})
    return text.value.decode(errors="replace") or None


def os_data_collection_date() -> str:
    """The OS data collection date, "yyyymmddhhmmss.000000+000" (UTC) or "N/A"."""
    text = ctypes.create_string_buffer(32)
    check("Vond_get_OSDataCollectionDate", lib.Vond_get_OSDataCollectionDate(text),
          {-1: "the OS data section could not be read"})
    return text.value.decode(errors="replace")


# ------------------------------------------------ capabilities, VR, power

_CAPS = {-1: "the section access failed"}


def _capability_index(index: int) -> int:
    return _int("index", index, 0, 8)


def capability(index: int) -> int:
    """Capability word ``index`` (0 to 8)."""
    value = ctypes.c_uint16()
    check("Get_SHM_feature_capabilities",
          lib.Get_SHM_feature_capabilities(_capability_index(index), ctypes.byref(value)), _CAPS)
    return value.value


def set_capability(index: int, value: int) -> None:
    """Store capability word ``index`` (0 to 8) as the 16-bit ``value``."""
    check("Set_SHM_feature_capabilities",
          lib.Set_SHM_feature_capabilities(_capability_index(index), _int("value", value, 0, 0xFFFF)), _CAPS)


VR_CPU, VR_MEMORY = 5, 3


def vr_sensor_enabled(vr_type: int, index: int) -> Optional[bool]:
    """Whether a VR's sensor is enabled (VR_CPU index 0-3, VR_MEMORY 0-7).

    None while the platform table is not yet initialised (retry later);
    ValueError for another type or an index out of range, Error with code 3
    for a failed read.
    """
    if isinstance(vr_type, int) and not isinstance(vr_type, bool) and vr_type not in (VR_CPU, VR_MEMORY):
        raise ValueError(f"vr_type={vr_type} is neither VR_CPU ({VR_CPU}) nor VR_MEMORY ({VR_MEMORY})")
    vr_type = _int("vr_type", vr_type, VR_MEMORY, VR_CPU)
    index = _int("index", index, 0, 3 if vr_type == VR_CPU else 7)
    result = lib.Get_VR_Sensor_Enablement(vr_type, index)
    if result == 2:
        return None
    if result not in (0, 1):
        check("Get_VR_Sensor_Enablement", result,
              {3: "the platform table could not be read"})
    return bool(result == 1)


def system_power_status() -> int:
    """The system power status byte. A failed read returns 255, which cannot
    be told from a stored 255: this getter cannot signal failure."""
    return int(lib.GetSystemPowerStatusSHM())


def blade_form_factor() -> int:
    """The blade form factor byte."""
    value = ctypes.c_uint8()
    check("Get_blade_form_factor", lib.Get_blade_form_factor(ctypes.byref(value)),
          {-1: "the blade section could not be read"})
    return value.value


# --------------------------------------------------------------------- FRU


@dataclasses.dataclass(frozen=True)
class FruInfo:
    """One FRU directory entry; ``raw`` is its 15 bytes as copied."""
    fru_id: int
    status: int  # 1 = data initialised
    attribute: int
    device_type: int
    locator: int
    data_length: int
    data_offset: int
    raw: bytes


class FruDevice(NamedTuple):
    fru_id: int
    attribute: int
    locator: int


def _fru_id(fru_id: int) -> int:
    return _int("fru_id", fru_id, 0, 0xFFFF)


def fru_info(fru_id: int) -> FruInfo:
    """The directory entry of FRU ``fru_id`` (0 to 65535), initialised or not."""
    entry = _ffi.FruInfo()
    check("Vond_shm_get_fruinfo", lib.Vond_shm_get_fruinfo(_fru_id(fru_id), ctypes.byref(entry)), FRU)
    return FruInfo(entry.fruId, entry.status, entry.fruAttribute, entry.deviceType, entry.fruLocator,
                   entry.dataLength, entry.dataOffset, bytes(entry))


def fru_data(fru_id: int) -> bytes:
    """The data block of FRU ``fru_id``.

    The library copies as many bytes as the directory entry says at the
    moment of the copy, into a buffer of SHM_FRU_DATA_MAX_LENGTH bytes, and
    does not say how many. The directory is rewritten in place without a
    lock, so the length is taken from the entry read before the copy and
    confirmed by reading it again after: if the two differ, the copy is made
    once more; if they differ again, Error (code 0) is raised rather than
    return bytes of an unknown length.
    """
    before = fru_info(fru_id)
    buffer = (ctypes.c_uint8 * _ffi.SHM_FRU_DATA_MAX_LENGTH)()
    for _ in range(2):
        check("Vond_shm_get_frudata", lib.Vond_shm_get_frudata(fru_id, buffer), FRU)
        after = fru_info(fru_id)
        if after == before:
            return ctypes.string_at(buffer, after.data_length)
        before = after
    raise Error("Vond_shm_get_frudata", 0, "the FRU's directory entry changed during two copies in a row; "
                                           "the length of the copied block is unknown")


def fru_class(device_type: int, locator: int) -> list[FruDevice]:
    """The FRUs of device class ``device_type`` (0-25) at ``locator`` (1-3)."""
    devices = _ffi.FruDeviceList()
    check("Vond_shm_get_fruDeviceinfo",
          lib.Vond_shm_get_fruDeviceinfo(_int("device_type", device_type, 0, 25), _int("locator", locator, 1, 3),
                                         ctypes.byref(devices)), FRU)
    return [FruDevice(e.fruId, e.fruAttribute, e.fruLocator) for e in devices.entry[:devices.count]]


def ocp_mezz_fru_id() -> Optional[int]:
    """The OCP mezzanine card's FRU id, or None for none. A failed read also
    gives None: this getter cannot signal failure."""
    value = int(lib.getOCPMezzFRUID())
    return None if value == 255 else value


# -------------------------------------------------------------------- DIMM


class DimmWear(NamedTuple):
    index: int  # type: ignore[assignment]  # the module's slot number (shadows tuple.index)
    wear: int   # percent
    fqdd: str


_Entry = TypeVar("_Entry")


def _count_list(entries: Iterable[_Entry], entry_type: type[ctypes.Structure],
                fill_entry: Callable[[Any, _Entry], None]) -> "ctypes.Array[ctypes.c_uint8]":
    entries = list(entries)
    _int("number of entries", len(entries), 0, 255)
    size = 1 + ctypes.sizeof(entry_type) * len(entries)
    buffer = (ctypes.c_uint8 * size)()
    buffer[0] = len(entries)
    records = (entry_type * len(entries)).from_buffer(buffer, 1)
    for record, entry in zip(records, entries):
        fill_entry(record, entry)
    return buffer


def update_dimm_wear(positions: Iterable[tuple[int, ...]]) -> None:
    """Store wear levels by position: ``positions`` holds tuples
    (cpu 0-3, channel 0-7, dimm 0-5, wear percent[, type]). Every entry is
    checked before any is written."""
    def fill_entry(record: Any, entry: tuple[int, ...]) -> None:
        cpu, channel, dimm, wear, *rest = entry
        record.cpu, record.channel = _int("cpu", cpu, 0, 3), _int("channel", channel, 0, 7)
        record.dimm = _int("dimm", dimm, 0, 5)
        record.wear, record.type = u8("wear", wear), u8("type", rest[0] if rest else 0)
    buffer = _count_list(positions, _ffi.DimmWearPosition, fill_entry)
    check("updateDIMMWearLevel", lib.updateDIMMWearLevel(buffer),
          {1: "a failed access (earlier entries stay written)"})


def _fqdd(text: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"an FQDD must be a str, not {type(text).__name__}")
    raw = text.encode("ascii", "replace")
    if len(raw) > 15 or b"\0" in raw or not text.isascii():
        raise ValueError(f"FQDD {text!r}: at most 15 ASCII characters, no NUL")
    return raw


def update_dimm_wear_by_fqdd(levels: Union[Mapping[str, int], Iterable[tuple[str, int]]]) -> None:
    """Store wear levels by FQDD: ``levels`` is a mapping or pairs of
    (fqdd, wear percent). Modules not in the inventory are skipped."""
    items = levels.items() if isinstance(levels, Mapping) else levels

    def fill_entry(record: Any, entry: tuple[str, int]) -> None:
        fqdd, wear = entry
        record.index, record.wear, record.fqdd = 0, u8("wear", wear), _fqdd(fqdd)
    buffer = _count_list(items, _ffi.DimmWearEntry, fill_entry)
    check("updateDIMMWearLevelUsingFQDD", lib.updateDIMMWearLevelUsingFQDD(buffer),
          {1: "the DIMM inventory could not be read"})


def dimm_wear_report() -> list[DimmWear]:
    """The wear of every Apache Pass module, as DimmWear tuples. The buffer
    holds an entry for every inventory record, so it is never too small."""
    size = 1 + ctypes.sizeof(_ffi.DimmWearEntry) * _ffi.SHM_DIMM_INVENTORY_RECORDS
    buffer = (ctypes.c_uint8 * size)()
    check("readDIMMWearLevel", lib.readDIMMWearLevel(buffer, size),
          {1: "the DIMM inventory could not be read (or the buffer was too small)"})
    records = (_ffi.DimmWearEntry * buffer[0]).from_buffer(buffer, 1)
    return [DimmWear(r.index, r.wear, r.fqdd.decode("ascii", "replace")) for r in records]


def apache_pass_count() -> int:
    """Inventory records of an Apache Pass type. An unreadable inventory
    counts 0: this call cannot signal failure."""
    return int(lib.getNVDIMMApachePassCount())


# ---------------------------------------------------------------- logging


class LogMessage(NamedTuple):
    """One library message as the hook receives it.

    ``format`` is the printf format without its "%s.%d.%s: " prefix, its
    own conversions left unexpanded: a ctypes callback cannot be variadic, so
    the message's further arguments cannot be read. ``file``, ``line`` and
    ``function`` are the prefix's arguments where the ABI lets them be read
    as fixed parameters (x86, ARM, AArch64 Linux), else None.
    """
    level: int
    module: int
    format: str
    file: Optional[str]
    line: Optional[int]
    function: Optional[str]

    def __str__(self) -> str:
        where = f"{self.file}:{self.line}: {self.function}: " if self.function else ""
        return f"L{self.level} {where}{self.format.rstrip()}"


_PREFIX = "%s.%d.%s: "
_hooks = []  # every callback ever installed: the library may still be calling an old one


def set_log_hook(hook: Optional[Callable[[LogMessage], object]]) -> None:
    """Send the library's messages of this process to ``hook`` (None: stop).

    The hook runs on the thread that logs. It never sees messages logged
    while that thread holds a store lock (a locked read's own range
    messages, anything inside ``with lock():``) or is inside the hook: the
    library sends levels 1 to 3 of those to the system log and drops the
    rest. An exception in the hook is printed by ctypes and otherwise ignored.
    """
    lib.SHML_get_per_thread_data()  # the library's own hook lookup runs here, once; it must not run later
    if hook is None:
        _ffi.SHML_vondprintf.value = None
        return

    receive = hook

    def call(level: int, module: int, fmt: Optional[bytes], *prefix: Any) -> int:
        text = (fmt or b"").decode("utf-8", "replace")
        file = line = function = None
        if prefix:
            file, line, function = (prefix[0] or b"").decode(errors="replace"), prefix[1], \
                (prefix[2] or b"").decode(errors="replace")
        receive(LogMessage(level, module, text[len(_PREFIX):] if text.startswith(_PREFIX) else text,
                        file, line, function))
        return 0

    callback = _ffi.HOOK(call)
    _hooks.append(callback)
    _ffi.SHML_vondprintf.value = ctypes.cast(callback, ctypes.c_void_p).value


__all__ = ["Error", "attach", "Attachment", "attachment", "is_attached", "section_size", "read", "read_unlocked",
           "write", "fill", "set_bit", "lock", "is_xrev", "platform_type", "system_id", "quorx_type",
           "generation", "modular_chassis_type", "post_update", "cpu_type", "hybrid_sys_flag", "product_type",
           "is_amd", "is_14g_amd", "is_15g_amd", "is_16g", "is_qv", "is_varduna", "is_tesk", "is_morvast",
           "is_qillan", "is_dunmarch", "is_boot_first_policy_enabled", "is_power_on_hook_available",
           "is_cp_dimm_polling_supported", "is_cp_cpu_cups_supported", "is_bios_done_post",
           "serial_peci_present", "is_ngm", "is_modular_brask_chassis", "blade_slot", "quorx_progress",
           "set_quorx_progress", "set_modular_chassis_type", "bios_livescan_stagger_time",
           "eop_time", "set_eop_time", "sys_uptime", "boot_time", "os_data_collection_date",
           "capability", "set_capability", "VR_CPU", "VR_MEMORY", "vr_sensor_enabled",
           "system_power_status", "blade_form_factor", "FruInfo", "FruDevice", "fru_info",
           "fru_data", "fru_class", "ocp_mezz_fru_id", "DimmWear", "update_dimm_wear",
           "update_dimm_wear_by_fqdd", "dimm_wear_report", "apache_pass_count", "LogMessage",
           "set_log_hook"]
