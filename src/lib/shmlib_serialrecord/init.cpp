// Start-up of the SDC: restore section 26 from the recovery file when the
// file is valid, otherwise check the header in the section and write the
// signature where it is missing. The library only ever reads the file.
//
// Only a regular file can be a recovery image. The file is opened without
// blocking and its type is taken from the open descriptor, so a FIFO, a
// device or a directory at the path (or behind a symbolic link there) is
// reported and treated as no file instead of holding start-up in open() or
// read() for ever.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
//
// The size comes from fstat on the open file (`status`), not from stat on the
// path: the recovery file is replaced by renaming a new image over it, and a
// size taken from the path could belong to the new image while the bytes are
// read from the old one, which then runs short in the middle of the copy and
// leaves the section half restored. For a file that stays put both give the
// same size, and with it the same messages and results.
bool recovery_file_valid(const char* function, FILE* file, const struct stat& status) {
    if (status.st_size != kFileSize) {
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

// What the message calls a file that is not a regular one.
const char* file_type_name(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFIFO: return "fifo";
        case S_IFDIR: return "directory";
        case S_IFCHR: return "character device";
        case S_IFBLK: return "block device";
        default: return "unknown type";
    }
}

// Opens the recovery file as a stream and fills `status` from the open
// descriptor. nullptr, after a message under `function`'s name, when there is
// no regular file to read: nothing at the path, or something else there.
FILE* open_recovery_file(const char* function, struct stat& status) {
    // O_NONBLOCK: opening a FIFO that has no writer returns at once instead of
    // waiting for one. O_NOCTTY: a terminal at the path never becomes the
    // caller's controlling terminal. A symbolic link is followed; the type
    // check below is on whatever was opened.
    const int fd = open(SDC_RECOVERY_FILE, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        SHM_LOG_AS(function, 3, "SDC recovery file doesn't exist");
        return nullptr;
    }
    if (fstat(fd, &status) != 0) {
        // Next to impossible on an open descriptor; the file cannot be
        // checked, as when stat on the path failed.
        SHM_LOG_AS(function, 2, "stat failed or size invalid\n");
        close(fd);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        SHM_LOG_AS(function, 3, "SDC recovery file is not a regular file (%s)\n",
                   file_type_name(status.st_mode));
        close(fd);
        return nullptr;
    }
    // Reads of a regular file never wait, but with the flag a mandatory lock
    // (older kernels) would fail a read instead of waiting for it; the
    // restore reads the file as a plain blocking open would.
    const int flags = fcntl(fd, F_GETFL);
    if (flags != -1) (void)fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    FILE* file = fdopen(fd, "r");
    if (file == nullptr) {
        // No memory for the stream: the same outcome as a failed fopen.
        SHM_LOG_AS(function, 3, "SDC recovery file doesn't exist");
        close(fd);
    }
    return file;
}

}  // namespace
}  // namespace shm::sdc

using namespace shm::sdc;

SHM_EXPORT int32_t Vond_shm_init_sdc(void) {
    struct stat status;
    if (FILE* file = open_recovery_file(__func__, status); file != nullptr) {
        if (recovery_file_valid(__func__, file, status)) {
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
