// Feature capability words (section 10) and VR sensor enablement from the
// platform table (section 20). The library gives the nine capability words
// and the VR type codes other than CPU (5) and memory (3) no meaning; it only
// carries them.
//
// Beyond the contract, Get_SHM_feature_capabilities refuses a null value
// pointer (-1 and a level-1 message) after its index check.
#include <cstdint>

#include "common/constants.h"
#include "common/export.h"
#include "common/le.h"
#include "common/log.h"
#include "common/platform.h"

namespace {

namespace caps = shm::caps;

constexpr int32_t capability_offset(uint32_t capname) {
    return static_cast<int32_t>(capname * sizeof(uint16_t));
}

// The VR lookup's answers.
constexpr int32_t kVrDisabled = 0;
constexpr int32_t kVrEnabled = 1;
constexpr int32_t kVrTableMissing = 2;
constexpr int32_t kVrError = 3;

}  // namespace

SHM_EXPORT int32_t Get_SHM_feature_capabilities(uint32_t capname, uint16_t* value) {
    if (capname > caps::kLastCapability) {
        SHM_LOG(1, "capname invalid\n");
        return -1;
    }
    if (value == nullptr) {
        SHM_LOG(1, "value NULL pointer\n");
        return -1;
    }
    // Straight into the caller's word: the store is little-endian like the
    // host, and the copy is bytewise, so an unaligned pointer is fine.
    return Vond_shm_memread(SHM_SEC_FEATURE_CAPS, value, capability_offset(capname),
                            sizeof(uint16_t)) == 0
               ? 0
               : -1;
}

SHM_EXPORT int32_t Set_SHM_feature_capabilities(uint32_t capname, uint16_t value) {
    if (capname > caps::kLastCapability) {
        SHM_LOG(1, "capname invalid\n");
        return -1;
    }
    uint8_t bytes[2];
    shm::store_le<uint16_t>(bytes, value);
    return Vond_shm_memwrite(SHM_SEC_FEATURE_CAPS, bytes, capability_offset(capname),
                             sizeof bytes) == 0
               ? 0
               : -1;
}

// Two separate locked reads (version, then the VR section): a table rewritten
// between them can pair an old version byte with new VR data.
SHM_EXPORT int32_t Get_VR_Sensor_Enablement(uint32_t VRtype, uint32_t SHMindex) {
    SHM_LOG(9, "[%s]: Entry, VRtype=%u, SHMindex=%u", __func__, VRtype, SHMindex);
    if (VRtype > caps::kLastVrType) {
        SHM_LOG(2, "[%s]: Parameter VRtype=%u is invalid!", __func__, VRtype);
        return kVrError;
    }
    if ((VRtype == caps::kVrTypeCpu && SHMindex >= caps::kMaxCpuVrEntries) ||
        (VRtype == caps::kVrTypeMemory && SHMindex >= caps::kMaxMemVrEntries)) {
        SHM_LOG(2,
                "[%s]: Parameter SHMindex=%u is out of bounds! VRtype=%u, MAX_CPU_VR_ENTRIES=%u, "
                "MAX_MEM_VR_ENTRIES=%u",
                __func__, SHMindex, VRtype, caps::kMaxCpuVrEntries, caps::kMaxMemVrEntries);
        return kVrError;
    }

    uint8_t version[4] = {};
    if (Vond_shm_memread(SHM_SEC_PBT, version, caps::kPbtVersion, sizeof version) != 0) {
        SHM_LOG(2, "[%s]: SHM read failed for pbtVersion!", __func__);
        return kVrError;
    }
    if (version[0] == 0) {  // only the first byte says whether the table is there
        SHM_LOG(9, "[%s]: PBT initialization is not yet complete, returning", __func__);
        return kVrTableMissing;
    }

    uint8_t vr[caps::kVrSectionSize] = {};
    if (Vond_shm_memread(SHM_SEC_PBT, vr, caps::kVrSection, sizeof vr) != 0) {
        SHM_LOG(2, "[%s]: SHM read failed for VR section in PBT!", __func__);
        return kVrError;
    }

    // The index checks above keep both lookups inside the first 24 bytes.
    if (VRtype == caps::kVrTypeCpu) {
        if (vr[caps::kCpuVrStatus + 2 * SHMindex] == caps::kVrDisabled) {
            SHM_LOG(9, "[%s]: CPU VR at SHM index %u is disabled, returning", __func__, SHMindex);
            return kVrDisabled;
        }
        SHM_LOG(9, "[%s]: CPU VR at SHM index %u is enabled, returning", __func__, SHMindex);
        return kVrEnabled;
    }
    if (VRtype == caps::kVrTypeMemory) {
        if (vr[caps::kMemoryVrStatus + 2 * SHMindex] == caps::kVrDisabled) {
            SHM_LOG(9, "[%s]: MEM VR at SHM index %u is disabled, returning", __func__, SHMindex);
            return kVrDisabled;
        }
        SHM_LOG(9, "[%s]: MEM VR at SHM index %u is enabled, returning", __func__, SHMindex);
        return kVrEnabled;
    }
    SHM_LOG(2, "[%s]: Unknown error! Returning", __func__);
    return kVrError;
}
