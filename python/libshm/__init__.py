"""libshm: a ctypes binding of libshm.so.1, the management controller's
shared-memory state store, for test automation.

The library is loaded at import: $LIBSHM_PATH, or "libshm.so.1" from the
dynamic linker's search path. Failures raise libshm.Error, carrying the C
function's name, its result code and what that code means.
"""
from ._ffi import (SDC_RING_SIZE, SHM_FRU_DATA_MAX_LENGTH, SHM_SEC_BLADE, SHM_SEC_DIMM_INVENTORY,
                   SHM_SEC_DIMM_WEAR, SHM_SEC_FEATURE_CAPS, SHM_SEC_FRU_DATA, SHM_SEC_OCP_MEZZ,
                   SHM_SEC_OS_DATA, SHM_SEC_PBT, SHM_SEC_PLATFORM_ID, SHM_SEC_POWER, SHM_SEC_SDC,
                   SHM_SEC_TIME, SHM_SECTION_COUNT, SHM_SIZE)
from ._ffi import path as library_path
from .core import *  # noqa: F401,F403  (the names listed in core.__all__)
from .core import __all__ as _core_all
from .sdc import Consumer, PollEvents, sdc_clear, sdc_export, sdc_init, sdc_size, sdc_write

__all__ = _core_all + ["Consumer", "PollEvents", "sdc_clear", "sdc_export", "sdc_init", "sdc_size", "sdc_write",
                       "library_path", "SDC_RING_SIZE", "SHM_FRU_DATA_MAX_LENGTH", "SHM_SIZE",
                       "SHM_SECTION_COUNT"] + [name for name in dir() if name.startswith("SHM_SEC_")]
