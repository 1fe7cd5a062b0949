"""libshm: a ctypes binding of libshm.so.1, the management controller's
shared-memory state store, for test automation.

The library is loaded at import: $LIBSHM_PATH, or "libshm.so.1" from the
dynamic linker's search path. Failures raise libshm.Error, carrying the C
function's name, its result code and what that code means; arguments out of
the interface's ranges raise ValueError (TypeError for a wrong type) before
the library is called.
"""

#: The project's version (CMakeLists.txt's project(VERSION)); the package
#: metadata takes it from here (pyproject.toml, dist_info.py).
__version__ = "1.0.0"

from ._ffi import (SDC_RING_SIZE, SHM_FRU_DATA_MAX_LENGTH, SHM_SEC_BIOS_STATE, SHM_SEC_BLADE,  # noqa: E402
                   SHM_SEC_DIMM_INVENTORY, SHM_SEC_DIMM_WEAR, SHM_SEC_FEATURE_CAPS, SHM_SEC_FRU_DATA,
                   SHM_SEC_LAST, SHM_SEC_OCP_MEZZ, SHM_SEC_OS_DATA, SHM_SEC_PBT, SHM_SEC_PLATFORM_ID,
                   SHM_SEC_POWER, SHM_SEC_SDC, SHM_SEC_TIME, SHM_SECTION_COUNT, SHM_SIZE)
from ._ffi import path as library_path  # noqa: E402
from .core import (VR_CPU, VR_MEMORY, Attachment, DimmWear, Error, FruDevice, FruInfo, LogMessage,  # noqa: E402
                   apache_pass_count, attach, attachment, bios_livescan_stagger_time, blade_form_factor,
                   blade_slot, boot_time, capability, cpu_type, dimm_wear_report, eop_time, fill, fru_class,
                   fru_data, fru_info, generation, hybrid_sys_flag, is_14g_amd, is_15g_amd, is_16g, is_amd,
                   is_attached, is_bios_done_post, is_boot_first_policy_enabled, is_cp_cpu_cups_supported,
                   is_cp_dimm_polling_supported, is_dunmarch, is_modular_brask_chassis, is_morvast, is_ngm,
                   is_power_on_hook_available, is_qillan, is_qv, is_tesk, is_varduna, is_xrev, lock,
                   modular_chassis_type, ocp_mezz_fru_id, os_data_collection_date, platform_type,
                   post_update, product_type, quorx_progress, quorx_type, read, read_unlocked,
                   section_size, serial_peci_present, set_bit, set_capability, set_eop_time, set_log_hook,
                   set_modular_chassis_type, set_quorx_progress, sys_uptime, system_id,
                   system_power_status, update_dimm_wear, update_dimm_wear_by_fqdd, vr_sensor_enabled,
                   write)
from .sdc import Consumer, PollEvents, sdc_clear, sdc_export, sdc_init, sdc_size, sdc_write  # noqa: E402

__all__ = [
    "__version__", "library_path", "Error",
    # store and section access
    "attach", "Attachment", "attachment", "is_attached", "section_size", "read", "read_unlocked", "write",
    "fill", "set_bit", "lock", "is_xrev",
    "SHM_SIZE", "SHM_SECTION_COUNT", "SHM_SEC_POWER", "SHM_SEC_PLATFORM_ID", "SHM_SEC_DIMM_INVENTORY",
    "SHM_SEC_TIME", "SHM_SEC_FEATURE_CAPS", "SHM_SEC_BIOS_STATE", "SHM_SEC_BLADE", "SHM_SEC_OS_DATA",
    "SHM_SEC_PBT", "SHM_SEC_DIMM_WEAR", "SHM_SEC_FRU_DATA", "SHM_SEC_OCP_MEZZ", "SHM_SEC_SDC", "SHM_SEC_LAST",
    # platform
    "platform_type", "system_id", "quorx_type", "generation", "modular_chassis_type", "post_update",
    "cpu_type", "hybrid_sys_flag", "product_type", "is_amd", "is_14g_amd", "is_15g_amd", "is_16g", "is_qv",
    "is_varduna", "is_tesk", "is_morvast", "is_qillan", "is_dunmarch", "is_boot_first_policy_enabled",
    "is_power_on_hook_available", "is_cp_dimm_polling_supported", "is_cp_cpu_cups_supported",
    "is_bios_done_post", "serial_peci_present", "is_ngm", "is_modular_brask_chassis", "blade_slot",
    "quorx_progress", "set_quorx_progress", "set_modular_chassis_type", "bios_livescan_stagger_time",
    # times, capabilities, VR sensors, power
    "eop_time", "set_eop_time", "sys_uptime", "boot_time", "os_data_collection_date", "capability",
    "set_capability", "VR_CPU", "VR_MEMORY", "vr_sensor_enabled", "system_power_status", "blade_form_factor",
    # FRU and DIMM
    "FruInfo", "FruDevice", "fru_info", "fru_data", "fru_class", "ocp_mezz_fru_id", "SHM_FRU_DATA_MAX_LENGTH",
    "DimmWear", "update_dimm_wear", "update_dimm_wear_by_fqdd", "dimm_wear_report", "apache_pass_count",
    # SDC
    "SDC_RING_SIZE", "sdc_init", "sdc_write", "sdc_export", "sdc_size", "sdc_clear", "Consumer", "PollEvents",
    # logging
    "LogMessage", "set_log_hook",
]
