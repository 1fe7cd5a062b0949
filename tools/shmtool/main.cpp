// shmtool: look into the shared store and change it by hand.
//
//   shmtool info                              segment, sections and locks
//   shmtool dump SECTION [OFFSET [LENGTH]]    hex and ASCII of a range (locked read)
//   shmtool poke SECTION OFFSET HEXBYTES      write bytes (locked write)
//
// Built on the public interface only. It never takes a section lock itself,
// so `info` works while another process holds one.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "libshm.h"

namespace {

const char* role(int section) {
    switch (section) {
        case SHM_SEC_EMPTY: return "empty";
        case SHM_SEC_POWER: return "chassis power status";
        case SHM_SEC_PLATFORM_ID: return "platform identity";
        case SHM_SEC_DIMM_INVENTORY: return "DIMM inventory";
        case SHM_SEC_TIME: return "time records";
        case SHM_SEC_FEATURE_CAPS: return "feature capabilities";
        case SHM_SEC_BIOS_STATE: return "BIOS POST state";
        case SHM_SEC_BLADE: return "blade form factor";
        case SHM_SEC_OS_DATA: return "OS data";
        case SHM_SEC_PBT: return "platform table (PBT)";
        case SHM_SEC_DIMM_WEAR: return "DIMM wear records";
        case SHM_SEC_FRU_DATA: return "FRU data";
        case SHM_SEC_OCP_MEZZ: return "OCP mezzanine FRU id";
        case SHM_SEC_SDC: return "SDC serial record ring";
        default: return "-";
    }
}

bool parse_int(const char* text, long min, long max, long& out) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 0);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max) {
        std::fprintf(stderr, "shmtool: bad number '%s' (%ld to %ld)\n", text, min, max);
        return false;
    }
    out = value;
    return true;
}

bool attach() {
    if (Vond_shm_init_shm() == 0) return true;
    std::fprintf(stderr, "shmtool: cannot attach the store\n");
    return false;
}

void print_time(const char* label, time_t when) {
    char text[64] = "never";
    if (when != 0) {
        tm local{};
        localtime_r(&when, &local);
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    }
    std::printf("  %-16s %s\n", label, text);
}

int info() {
    if (!attach()) return 1;
    shmid_ds seg{};
    if (shmctl(gShmId, IPC_STAT, &seg) != 0) {
        std::perror("shmtool: shmctl");
        return 1;
    }
    std::printf("segment\n");
    std::printf("  %-16s %d (0x%x)\n", "key", static_cast<int>(seg.shm_perm.__key),
                static_cast<unsigned>(seg.shm_perm.__key));
    std::printf("  %-16s %d\n", "id", gShmId);
    std::printf("  %-16s %lu bytes, mode %03o\n", "size", static_cast<unsigned long>(seg.shm_segsz),
                static_cast<unsigned>(seg.shm_perm.mode & 0777));
    std::printf("  %-16s %lu\n", "attached", static_cast<unsigned long>(seg.shm_nattch));
    std::printf("  %-16s %d\n", "creator pid", static_cast<int>(seg.shm_cpid));
    std::printf("  %-16s %d\n", "last attach pid", static_cast<int>(seg.shm_lpid));
    print_time("last attach", seg.shm_atime);

    std::printf("\nlibrary lock (set %d): value %d, last pid %d, waiting %d\n", gShmLibSemId,
                semctl(gShmLibSemId, 0, GETVAL), semctl(gShmLibSemId, 0, GETPID),
                semctl(gShmLibSemId, 0, GETNCNT));
    std::printf("\nsections (lock set %d)\n", gShmSecSemId);
    std::printf("  %3s %8s %8s  %-24s %5s %7s %7s\n", "sec", "offset", "size", "role", "lock",
                "pid", "waiting");
    long offset = 0;
    for (int section = 0; section < SHM_SECTION_COUNT; ++section) {
        std::printf("  %3d %8ld %8d  %-24s", section, offset, gShmSecSize[section], role(section));
        if (section == 0) {
            std::printf(" %5s\n", "-");
        } else {
            const int member = section - 1;
            const int value = semctl(gShmSecSemId, member, GETVAL);
            const int waiting = semctl(gShmSecSemId, member, GETNCNT);
            std::printf(" %5s %7d %7d%s\n", value == 1 ? "free" : value == 0 ? "HELD" : "?",
                        semctl(gShmSecSemId, member, GETPID), waiting, waiting > 0 ? "  <- blocked" : "");
        }
        offset += gShmSecSize[section];
    }
    return 0;
}

int dump(int argc, char** argv) {
    long section = 0, offset = 0, length = -1;
    if (argc < 1 || !parse_int(argv[0], 1, SHM_SEC_LAST, section)) return 2;
    if (argc > 1 && !parse_int(argv[1], 0, gShmSecSize[section], offset)) return 2;
    if (argc > 2 && !parse_int(argv[2], 1, gShmSecSize[section], length)) return 2;
    if (length < 0) length = std::min<long>(gShmSecSize[section] - offset, 256);
    if (!attach()) return 1;
    std::vector<unsigned char> bytes(static_cast<size_t>(length) + 1);
    if (Vond_shm_memread(static_cast<int32_t>(section), bytes.data(), static_cast<int32_t>(offset),
                         static_cast<int32_t>(length)) != 0) {
        std::fprintf(stderr, "shmtool: read failed\n");
        return 1;
    }
    for (long row = 0; row < length; row += 16) {
        std::printf("%08lx ", offset + row);
        for (long i = row; i < row + 16; ++i) {
            if (i < length) std::printf(" %02x", bytes[i]);
            else std::printf("   ");
        }
        std::printf("  |");
        for (long i = row; i < row + 16 && i < length; ++i)
            std::putchar(std::isprint(bytes[i]) ? bytes[i] : '.');
        std::printf("|\n");
    }
    return 0;
}

int poke(int argc, char** argv) {
    long section = 0, offset = 0;
    if (argc != 3 || !parse_int(argv[0], 1, SHM_SEC_LAST, section) ||
        !parse_int(argv[1], 0, gShmSecSize[section] - 1, offset))
        return 2;
    const char* hex = argv[2];
    const size_t digits = std::strlen(hex);
    std::vector<unsigned char> bytes;
    for (size_t i = 0; digits % 2 == 0 && i < digits; i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(hex[i])) ||
            !std::isxdigit(static_cast<unsigned char>(hex[i + 1])))
            break;
        const char pair[3] = {hex[i], hex[i + 1], 0};
        bytes.push_back(static_cast<unsigned char>(std::strtoul(pair, nullptr, 16)));
    }
    if (bytes.empty() || bytes.size() * 2 != digits) {
        std::fprintf(stderr, "shmtool: HEXBYTES must be pairs of hex digits, like 0a1b2c\n");
        return 2;
    }
    if (offset + static_cast<long>(bytes.size()) > gShmSecSize[section]) {
        std::fprintf(stderr, "shmtool: %zu bytes at %ld run past section %ld (%d bytes)\n", bytes.size(),
                     offset, section, gShmSecSize[section]);
        return 2;
    }
    if (!attach()) return 1;
    const int32_t result = Vond_shm_memwrite(static_cast<int32_t>(section), bytes.data(),
                                             static_cast<int32_t>(offset), static_cast<int32_t>(bytes.size()));
    if (result != 0) {
        std::fprintf(stderr, "shmtool: write failed (%d)\n", result);
        return 1;
    }
    std::printf("wrote %zu bytes to section %ld at offset %ld\n", bytes.size(), section, offset);
    return 0;
}

int usage() {
    std::fprintf(stderr,
                 "usage: shmtool info\n"
                 "       shmtool dump SECTION [OFFSET [LENGTH]]\n"
                 "       shmtool poke SECTION OFFSET HEXBYTES\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage();
    const char* command = argv[1];
    if (std::strcmp(command, "info") == 0 && argc == 2) return info();
    if (std::strcmp(command, "dump") == 0) return dump(argc - 2, argv + 2);
    if (std::strcmp(command, "poke") == 0) return poke(argc - 2, argv + 2);
    return usage();
}
