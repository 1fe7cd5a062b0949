// Start-up of the SDC: restore section 26 from the recovery file when the
// file is valid, otherwise check the header in the section and write the
// signature where it is missing. The library only ever reads the file.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/export.h"
#include "common/log.h"
#include "shmlib_serialrecord/sdc.h"

namespace shm::sdc {
namespace {

constexpr int32_t kRestoreRemainder = kFileSize - int32_t(kRingSize);
static_assert(kRestoreChunks == 32 && kRestoreRemainder == 220);

// The signature is valid when the 8 bytes, read as a zero-terminated string,
// equal "VondSDC": exactly when they are those 7 characters and a zero byte.
// Comparing the 8 bytes never reads past them, whatever they hold.
bool signature_valid(const void* bytes) {
    return std::memcmp(bytes, kSignatureText, kSignatureSize) == 0;
}

// Copies the whole file (positioned at offset 0) over section 26 through one
// heap buffer of kRestoreChunk bytes. 0, or -1 after its own message.
int32_t RestoreSdcShm(FILE* file) {
    SHM_LOG(5, "%s(%d): Read file and copy to shm. loopcnt=%d rem=%d \n", __func__, __LINE__,
            kRestoreChunks, kRestoreRemainder);
    auto* buffer = static_cast<uint8_t*>(std::calloc(kRestoreChunk, 1));
    if (buffer == nullptr) {
        SHM_LOG(2, "calloc() returned NULL\n");
        return -1;
    }
    int32_t result = 0;
    for (int32_t chunk = 0; chunk < kRestoreChunks && result == 0; ++chunk) {
        if (std::fread(buffer, 1, kRestoreChunk, file) != size_t(kRestoreChunk)) {
            SHM_LOG(2, "Error reading from input file\n");
            result = -1;
        } else if (Vond_shm_memwrite(kSection, buffer, chunk * kRestoreChunk, kRestoreChunk) != 0) {
            SHM_LOG(1, "Error writing shm memory.\n");
            result = -1;
        }
    }
    if (result == 0) {
        if (std::fread(buffer, 1, kRestoreRemainder, file) != size_t(kRestoreRemainder)) {
            SHM_LOG(2, "Error reading from input file\n");
            result = -1;
        } else if (Vond_shm_memwrite(kSection, buffer, kHeaderOffset, kRestoreRemainder) != 0) {
            SHM_LOG(2, "Error writing shm memory.\n");
            result = -1;
        }
    }
    std::free(buffer);
    return result;
}

// The checks of the recovery file ahead of the copy, each logged under the
// init call's name. True when the file is valid and positioned at offset 0.
bool recovery_file_valid(const char* function, FILE* file) {
    struct stat status;
    if (stat(SDC_RECOVERY_FILE, &status) != 0 || status.st_size != kFileSize) {
        SHM_LOG_AS(function, 2, "stat failed or size invalid\n");
        return false;
    }
    if (std::fseek(file, kHeaderOffset + kSignature, SEEK_SET) != 0) {
        SHM_LOG_AS(function, 2, "fseek failed\n");
        return false;
    }
    char signature[kSignatureSize] = {};
    if (std::fread(signature, 1, sizeof signature, file) != sizeof signature) {
        SHM_LOG_AS(function, 2, "fread sig failed\n");
        return false;
    }
    if (!signature_valid(signature)) {
        SHM_LOG_AS(function, 2, "sig compare failed\n");
        return false;
    }
    if (std::fseek(file, 0, SEEK_SET) != 0) {
        SHM_LOG_AS(function, 2, "fseek failed\n");
        return false;
    }
    return true;
}

}  // namespace
}  // namespace shm::sdc

using namespace shm::sdc;

SHM_EXPORT int32_t Vond_shm_init_sdc(void) {
    if (FILE* file = std::fopen(SDC_RECOVERY_FILE, "r"); file == nullptr) {
        SHM_LOG(3, "SDC recovery file doesn't exist");
    } else {
        if (recovery_file_valid(__func__, file)) {
            if (RestoreSdcShm(file) == 0) {
                std::fclose(file);
                return 0;
            }
            SHM_LOG(2, "Restore SDC Shm failed\n");
        }
        std::fclose(file);
    }

    Header header;
    if (!read_header(__func__, 1, header)) return -1;
    uint8_t* signature = header.bytes + kSignature;
    if (signature_valid(signature)) {
        SHM_LOG(2, "SDC header Signature valid.\n");
        return 0;
    }
    SHM_LOG(3, "SDC header Signature not valid.  Update it.\n");
    // Only the signature changes; the indexes and the table go back as read.
    std::memcpy(signature, kSignatureText, kSignatureSize);
    if (Vond_shm_memwrite(kSection, header.bytes, kHeaderOffset, kHeaderSize) != 0) {
        SHM_LOG(2, "Write Clean SDC Header failed.\n");
        return -1;
    }
    SHM_LOG(5, "Write Clean SDC Header success.\n");
    return 0;
}
