#include "common.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sched.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

namespace shmtool {

Options g_options;

namespace {

Action g_action;

struct SectionInfo {
    int number;
    const char* name;
    const char* role;
};
constexpr SectionInfo kKnownSections[] = {
    {SHM_SEC_POWER, "power", "chassis power status"},
    {SHM_SEC_PLATFORM_ID, "platform", "platform identity"},
    {SHM_SEC_DIMM_INVENTORY, "dimm-inventory", "DIMM inventory"},
    {SHM_SEC_TIME, "time", "time records"},
    {SHM_SEC_FEATURE_CAPS, "caps", "feature capabilities"},
    {SHM_SEC_BIOS_STATE, "bios", "BIOS POST state"},
    {SHM_SEC_BLADE, "blade", "blade form factor"},
    {SHM_SEC_OS_DATA, "os-data", "OS data"},
    {SHM_SEC_PBT, "pbt", "platform table (PBT)"},
    {SHM_SEC_DIMM_WEAR, "dimm-wear", "DIMM wear records"},
    {SHM_SEC_FRU_DATA, "fru", "FRU data"},
    {SHM_SEC_OCP_MEZZ, "ocp-mezz", "OCP mezzanine FRU id"},
    {SHM_SEC_SDC, "sdc", "SDC serial record ring"},
};

const SectionInfo* known(int section) {
    for (const SectionInfo& info : kKnownSections)
        if (info.number == section) return &info;
    return nullptr;
}

}  // namespace

void usage_error(const std::string& message) { throw Error{kUsage, message}; }
void failure(const std::string& message) { throw Error{kFailed, message}; }

void library_failure(const char* call, long result, const std::string& meaning) {
    throw Error{kFailed, std::string(call) + " returned " + std::to_string(result) + ": " + meaning +
                             (g_options.verbose ? "" : " (-v shows the library's messages)")};
}

void set_action(Action action) { g_action = std::move(action); }
void run_action() {
    if (g_action) g_action();
}

// ------------------------------------------------------------------ store

namespace {

constexpr int kIfcSectionSemCount = SHM_SECTION_COUNT;
constexpr unsigned kIfcMode = 0666;
bool g_ifc_attached = false;

std::string ifc_owner(uid_t uid) {
    std::string text = "uid " + std::to_string(uid);
    char buffer[1024];
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
        text += std::string(" (") + found->pw_name + ")";
    return text;
}

// What is wrong with the store's objects, as far as this process can see:
// the kernel's errors, an existing segment's size, mode and owner where they
// differ from the library's, and the ipcrm command that clears a stale object.
std::string ifc_diagnose(bool try_attach = true) {
    std::string out;
    const int id = shmget(kSegmentKey, 0, 0);
    if (id < 0) {
        if (errno != ENOENT) out += "; shmget(77777779): " + std::string(std::strerror(errno));
    } else {
        shmid_ds ds{};
        if (shmctl(id, IPC_STAT, &ds) != 0) {
            out += "; shmctl(IPC_STAT) of segment " + std::to_string(id) + ": " + std::strerror(errno);
        } else {
            const unsigned mode = ds.shm_perm.mode & 0777;
            const bool wrong_size = ds.shm_segsz != static_cast<size_t>(SHM_SIZE);
            if (wrong_size || mode != kIfcMode) {
                out += "; the existing segment (id " + std::to_string(id) + ") is " + std::to_string(ds.shm_segsz) +
                       " bytes, mode " + mode_string(mode) + ", owner " + ifc_owner(ds.shm_perm.uid) +
                       "; the library expects " + std::to_string(SHM_SIZE) + " bytes, mode " + mode_string(kIfcMode);
            }
            if (shmget(kSegmentKey, SHM_SIZE, 0) < 0)
                out += "; shmget(77777779, " + std::to_string(SHM_SIZE) + "): " + std::strerror(errno);
            void* base = try_attach ? shmat(id, nullptr, SHM_RDONLY) : nullptr;
            if (base == reinterpret_cast<void*>(-1)) out += "; shmat: " + std::string(std::strerror(errno));
            else if (base != nullptr) shmdt(base);
        }
        if (!out.empty()) out += "; a stale segment is removed with 'ipcrm -M 77777779'";
    }
    const struct { key_t key; int count; const char* name; } sets[] = {
        {kLibrarySemKey, 1, "library lock set"}, {kSectionSemKey, kIfcSectionSemCount, "section lock set"}};
    for (const auto& set : sets) {
        if (semget(set.key, set.count, 0) >= 0 || errno == ENOENT) continue;
        const std::string key = std::to_string(set.key);
        out += std::string("; ") + set.name + ": semget(" + key + ", " + std::to_string(set.count) +
               "): " + std::strerror(errno);
        const int sem = semget(set.key, 0, 0);
        semid_ds ds{};
        if (sem >= 0 && semctl(sem, 0, IPC_STAT, &ds) == 0)
            out += " (the existing set has " + std::to_string(ds.sem_nsems) + " members, mode " +
                   mode_string(ds.sem_perm.mode & 0777) + ", owner " + ifc_owner(ds.sem_perm.uid) + ")";
        out += "; a stale set is removed with 'ipcrm -S " + key + "'";
    }
    return out;
}

[[noreturn]] void ifc_attach_failed(int32_t result) {
    const std::string why = ifc_diagnose();
    throw Error{kFailed, "Vond_shm_init_shm returned " + std::to_string(result) + ": cannot attach the store" +
                             (why.empty() ? (g_options.verbose ? "" : " (-v shows the library's messages)") : why)};
}

}  // namespace

void attach() {
    if (snapshot_active()) return snapshot_attach();  // --snapshot: its private store
    if (g_ifc_attached) return;
    const int32_t result = Vond_shm_init_shm();
    if (result != 0) ifc_attach_failed(result);
    g_ifc_attached = true;
}

void attach_existing() {
    if (snapshot_active()) return snapshot_attach();
    if (g_ifc_attached) return;
    if (shmget(kSegmentKey, 0, 0) < 0) {
        if (errno == ENOENT) failure("no store: segment key 77777779 does not exist");
        failure("cannot attach the store: shmget(77777779): " + std::string(std::strerror(errno)) + ifc_diagnose());
    }
    // A segment the library cannot use (its size, its mode) is explained first.
    if (const std::string why = ifc_diagnose(false); !why.empty()) failure("cannot attach the store" + why);
    // The library would create a missing set: a segment without its sets is
    // reported, never completed, by a command that only looks.
    const struct { key_t key; int count; const char* name; } sets[] = {
        {kLibrarySemKey, 1, "library lock"}, {kSectionSemKey, kIfcSectionSemCount, "section lock"}};
    for (const auto& set : sets) {
        if (semget(set.key, set.count, 0) >= 0) continue;
        const std::string key = std::to_string(set.key);
        if (errno == ENOENT)
            failure("no store: segment key 77777779 exists but its " + std::string(set.name) +
                    " semaphore set (key " + key + ") does not (a command that writes creates it; " +
                    "'ipcrm -M 77777779' removes the segment)");
        failure("cannot attach the store: " + std::string(set.name) + " set: semget(" + key + ", " +
                std::to_string(set.count) + "): " + std::strerror(errno) + ifc_diagnose());
    }
    const int32_t result = Vond_shm_init_shm();
    if (result != 0) ifc_attach_failed(result);
    g_ifc_attached = true;
}

Bytes read_section(int section, int32_t offset, int32_t length) {
    if (snapshot_active()) return snapshot_read(section, offset, length);  // --snapshot FILE
    attach();
    Bytes bytes(static_cast<size_t>(length));
    if (length == 0) return bytes;
    const int32_t result = Vond_shm_memread(section, bytes.data(), offset, length);
    if (result != 0)
        library_failure("Vond_shm_memread", result,
                        "cannot read section " + std::to_string(section) + " (its lock or the store failed)");
    return bytes;
}

namespace {

const uint8_t* g_unlocked_base = nullptr;  // the segment, attached read-only
uint64_t g_unlocked_size = 0;

}  // namespace

Bytes read_section_unlocked(int section, int32_t offset, int32_t length) {
    if (g_unlocked_base == nullptr) {
        const int id = shmget(kSegmentKey, 0, 0);
        if (id < 0 && errno == ENOENT) failure("no store: segment key 77777779 does not exist");
        if (id < 0) failure("cannot attach the store: shmget(77777779): " + std::string(std::strerror(errno)));
        shmid_ds status{};
        if (shmctl(id, IPC_STAT, &status) != 0)
            failure("shmctl IPC_STAT of segment " + std::to_string(id) + ": " + std::strerror(errno));
        void* base = shmat(id, nullptr, SHM_RDONLY);
        if (base == reinterpret_cast<void*>(-1))
            failure("cannot attach the segment read-only: shmat: " + std::string(std::strerror(errno)));
        g_unlocked_base = static_cast<const uint8_t*>(base);
        g_unlocked_size = status.shm_segsz;
        std::fprintf(stderr, "shmtool: unlocked read: no lock was taken, so bytes written meanwhile may be torn\n");
    }
    const int64_t start = section_offset(section) + offset;
    if (offset < 0 || length < 0 || start + length > static_cast<int64_t>(g_unlocked_size))
        failure("section " + std::to_string(section) + " lies beyond the segment's " +
                std::to_string(g_unlocked_size) + " bytes");
    return Bytes(g_unlocked_base + start, g_unlocked_base + start + length);
}

void write_section(int section, int32_t offset, const Bytes& bytes) {
    attach();
    const int32_t result =
        Vond_shm_memwrite(section, bytes.data(), offset, static_cast<int32_t>(bytes.size()));
    switch (result) {
        case 0: return;
        case -1: library_failure("Vond_shm_memwrite", result, "could not take the section lock");
        case -2: library_failure("Vond_shm_memwrite", result, "bad section number");
        case -3: library_failure("Vond_shm_memwrite", result, "offset outside the section");
        case -4: library_failure("Vond_shm_memwrite", result, "could not attach the store");
        default: library_failure("Vond_shm_memwrite", result, "write failed");
    }
}

int32_t section_size(int section) {
    return snapshot_active() ? snapshot_section_size(section) : gShmSecSize[section];
}

int64_t section_offset(int section) {
    if (snapshot_active()) return snapshot_section_offset(section);
    int64_t offset = 0;
    for (int i = 0; i < section; ++i) offset += gShmSecSize[i];
    return offset;
}

const char* section_role(int section) {
    if (section == SHM_SEC_EMPTY) return "empty";
    const SectionInfo* info = known(section);
    return info ? info->role : "-";
}

const char* section_name(int section) {
    const SectionInfo* info = known(section);
    return info ? info->name : "";
}

// --------------------------------------------------------------- parsing

int64_t parse_number(const std::string& text, const char* what, int64_t min, int64_t max) {
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const std::string digits = hex ? text.substr(2) : text;
    bool valid = !digits.empty() && digits.size() <= 12;
    for (char c : digits)
        valid = valid && (hex ? std::isxdigit(static_cast<unsigned char>(c)) : std::isdigit(static_cast<unsigned char>(c)));
    const int64_t value = valid ? std::stoll(digits, nullptr, hex ? 16 : 10) : 0;
    if (!valid || value < min || value > max)
        usage_error(std::string("bad ") + what + " '" + safe_text(text) + "': expected " + std::to_string(min) + " to " +
                    std::to_string(max));
    return value;
}

int parse_section(const std::string& text) {
    for (const SectionInfo& info : kKnownSections)
        if (text == info.name) return info.number;
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])))
        usage_error("unknown section '" + safe_text(text) + "': give a number 1 to 33 or a name (see shmtool info)");
    int section = -1;
    try {
        section = static_cast<int>(parse_number(text, "section", 0, SHM_SEC_LAST));
    } catch (const Error&) {
        usage_error("bad section '" + safe_text(text) + "': expected 1 to " + std::to_string(SHM_SEC_LAST));
    }
    if (section == SHM_SEC_EMPTY) usage_error("section 0 is empty: expected 1 to " + std::to_string(SHM_SEC_LAST));
    return section;
}

Bytes parse_hex(const std::string& text) {
    Bytes bytes;
    bool valid = !text.empty() && text.size() % 2 == 0;
    for (size_t i = 0; valid && i < text.size(); i += 2) {
        valid = std::isxdigit(static_cast<unsigned char>(text[i])) &&
                std::isxdigit(static_cast<unsigned char>(text[i + 1]));
        if (valid) bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    }
    if (!valid) usage_error("bad HEXBYTES '" + safe_text(text) + "': expected pairs of hex digits, like 0a1b2c");
    return bytes;
}

// ---------------------------------------------------------------- output

namespace {

// errno of the first write to standard output that failed, 0 while none has.
// The stream's error flag alone does not say why, and a write that failed
// inside a large printf leaves nothing pending for the last fflush to retry.
int g_output_error = 0;
bool g_output_failure_told = false;  // the failure is reported once

ssize_t write_standard_output(void*, const char* bytes, size_t length) {
    size_t done = 0;
    // After a failure the output is incomplete whatever follows: stop there.
    while (g_output_error == 0 && done < length) {
        const ssize_t n = write(STDOUT_FILENO, bytes + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) g_output_error = n < 0 ? errno : EIO;
        else done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);  // short: the stream latches its error flag
}

[[noreturn]] void output_failure(int error) {
    g_output_failure_told = true;
    throw Error{kFailed, std::string("cannot write output: ") + std::strerror(error != 0 ? error : EIO)};
}

}  // namespace

void route_output() {
    cookie_io_functions_t io{};
    io.write = write_standard_output;
    FILE* stream = fopencookie(nullptr, "w", io);
    if (stream == nullptr) return;  // the plain stream: failures are still caught, as EIO
    if (isatty(STDOUT_FILENO)) std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    stdout = stream;  // glibc lets a program replace its standard streams
}

void check_output() {
    if ((std::fflush(stdout) != 0 || std::ferror(stdout)) && !g_output_failure_told) output_failure(g_output_error);
}

void finish_output() {
    check_output();
    std::fclose(stdout);  // flushed above; this only frees the stream
    // Some file systems report a failed write only when it is closed. A
    // standard output that was never open is no error if nothing was written.
    if (close(STDOUT_FILENO) != 0 && errno != EBADF && !g_output_failure_told) output_failure(errno);
}

void print_result(const json& document, const std::string& text) {
    if (g_options.json) print_json(document);
    else std::printf("%s\n", text.c_str());
}

void print_json(const json& document) {
    // A string that is not valid UTF-8 would make dump() throw and the
    // command print nothing: its bad bytes become U+FFFD instead.
    const auto text = [](const json& d) { return d.dump(2, ' ', false, json::error_handler_t::replace); };
    // "schema" leads every document; one that sets it already keeps its own.
    if (!document.is_object() || (!document.empty() && document.begin().key() == "schema")) {
        std::printf("%s\n", text(document).c_str());
        return;
    }
    json framed = {{"schema", document.contains("schema") ? document["schema"] : json(1)}};
    for (const auto& [key, value] : document.items())
        if (key != "schema") framed[key] = value;
    std::printf("%s\n", text(framed).c_str());
}

std::string iso_time(int64_t seconds) {
    const time_t when = static_cast<time_t>(seconds);
    tm utc{};
    char text[64] = "?";
    if (gmtime_r(&when, &utc) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string mode_string(unsigned mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", mode & 07777);
    return text;
}

void refuse_binary_on_terminal(bool asked, const char* flag) {
    if (!asked && isatty(STDOUT_FILENO))
        usage_error(std::string("refusing to write binary to a terminal (redirect it, or give ") + flag + ")");
}

std::string hex_string(const uint8_t* bytes, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (size_t i = 0; i < length; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

void print_hexdump(const uint8_t* bytes, size_t length, uint64_t base) {
    // As hexdump -C: a full line equal to the one before is left out, a
    // single "*" standing for the run, and the end's address closes the dump.
    bool starred = false;
    for (size_t row = 0; row < length; row += 16) {
        if (row >= 16 && row + 16 <= length && std::memcmp(bytes + row, bytes + row - 16, 16) == 0) {
            if (!starred) std::printf("*\n");
            starred = true;
            continue;
        }
        starred = false;
        std::printf("%08llx ", static_cast<unsigned long long>(base + row));
        for (size_t i = row; i < row + 16; ++i) {
            if (i % 8 == 0) std::putchar(' ');
            if (i < length) std::printf("%02x ", bytes[i]);
            else std::printf("   ");
        }
        std::printf(" |");
        for (size_t i = row; i < row + 16 && i < length; ++i)
            std::putchar(bytes[i] >= 0x20 && bytes[i] < 0x7f ? bytes[i] : '.');
        std::printf("|\n");
    }
    if (length > 0) std::printf("%08llx\n", static_cast<unsigned long long>(base + length));
}

std::string printable(const char* text, size_t max) { return safe_text(std::string_view(text, strnlen(text, max))); }

std::string safe_text(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    const auto escape = [&out](unsigned char c) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
        out += escaped;
    };
    for (size_t i = 0; i < bytes.size();) {
        const auto c = static_cast<unsigned char>(bytes[i]);
        if (c == '\\') {
            out += "\\\\";
            ++i;
            continue;
        }
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
            ++i;
            continue;
        }
        // A well-formed UTF-8 sequence (no overlong form, no surrogate, at
        // most U+10FFFF) that is not a C1 control stays whole.
        size_t length = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
        if (length != 0 && i + length <= bytes.size()) {
            const auto b1 = static_cast<unsigned char>(bytes[i + 1]);
            bool valid = (b1 & 0xc0) == 0x80;
            if (c == 0xe0) valid = valid && b1 >= 0xa0;
            if (c == 0xed) valid = valid && b1 < 0xa0;
            if (c == 0xf0) valid = valid && b1 >= 0x90;
            if (c == 0xf4) valid = valid && b1 < 0x90;
            if (c == 0xc2) valid = valid && b1 >= 0xa0;  // U+0080 to U+009F: C1 controls
            for (size_t k = 2; k < length; ++k)
                valid = valid && (static_cast<unsigned char>(bytes[i + k]) & 0xc0) == 0x80;
            if (valid) {
                out.append(bytes.substr(i, length));
                i += length;
                continue;
            }
        }
        escape(c);
        ++i;
    }
    return out;
}

std::string format_time(int64_t seconds) {
    if (seconds == 0) return "never";
    const time_t when = static_cast<time_t>(seconds);
    tm local{};
    char text[64] = "?";
    if (localtime_r(&when, &local) != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string yes_no(bool value) { return value ? "yes" : "no"; }

// ---------------------------------------------------- global option effects

namespace {

const MessageListener* g_listener = nullptr;

__attribute__((format(printf, 3, 4))) int log_hook(int32_t level, int32_t module, const char* format, ...) {
    char text[2048];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    size_t length = std::strlen(text);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == ' ')) text[--length] = 0;
    if (g_listener) (*g_listener)(level, text);
    if (g_options.verbose) std::fprintf(stderr, "shmtool: library L%d (module %d): %s\n", level, module, text);
    return 0;
}

bool write_file(const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return ok;
}

}  // namespace

void install_log_hook() {
    // The first call runs the library's one-time hook lookup; storing the
    // hook after it keeps the lookup from overwriting it.
    (void)SHML_get_per_thread_data();
    SHML_vondprintf = log_hook;
}

void listen_to_library(const MessageListener& listener, const std::function<void()>& body) {
    (void)SHML_get_per_thread_data();  // the one-time lookup first, or it would replace the hook
    const SHML_vondprintf_fn previous = SHML_vondprintf;
    g_listener = &listener;
    SHML_vondprintf = log_hook;
    body();
    SHML_vondprintf = previous;
    g_listener = nullptr;
}

void enter_private_store() {
    if (unshare(CLONE_NEWIPC) == 0) return;
    const int direct = errno;
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        failure(std::string("a private store needs root or unprivileged user namespaces: unshare: ") +
                std::strerror(direct) + " / " + std::strerror(errno));
    }
    // Keep the same identity inside the new user namespace.
    (void)write_file("/proc/self/setgroups", "deny");
    (void)write_file("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
    (void)write_file("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1");
}

int finish_command(int status) {
    try {
        finish_output();
    } catch (const Error& e) {
        std::fprintf(stderr, "shmtool: %s\n", e.message.c_str());
        if (status == kOk) status = e.status;
    }
    return status;
}

void end_command(int status, const std::string& message) {
    std::fflush(stdout);  // what the command printed comes first
    if (!message.empty()) std::fprintf(stderr, "shmtool: %s\n", message.c_str());
    std::exit(finish_command(status));
}

namespace {

const char* untrusted_file_type(mode_t mode) {
    switch (mode & S_IFMT) {
        case S_IFIFO: return "a FIFO";
        case S_IFDIR: return "a directory";
        case S_IFCHR: return "a character device";
        case S_IFBLK: return "a block device";
        case S_IFSOCK: return "a socket";
        default: return "not a regular file";
    }
}

}  // namespace

UntrustedFile::~UntrustedFile() {
    if (fd_ >= 0) close(fd_);
}

// The 64-bit calls: a 32-bit build without them could not even open a file
// of 2 GiB or more, let alone say that it is too large.
std::string UntrustedFile::open(const std::string& path) {
    shown_ = path == "-" ? "standard input" : safe_text(path);
    // O_NONBLOCK: a FIFO without a writer must not hold the command in open().
    fd_ = open64(path == "-" ? "/dev/stdin" : path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    const int open_error = errno;
    if (fd_ < 0)
        return open_error == ENOENT ? shown_ + " does not exist" : "cannot open " + shown_ + ": " + std::strerror(open_error);
    struct stat64 status {};
    if (fstat64(fd_, &status) != 0) {
        const int error = errno;
        return "cannot examine " + shown_ + ": " + std::strerror(error);
    }
    if (!S_ISREG(status.st_mode))
        return shown_ + " is not a regular file (" + untrusted_file_type(status.st_mode) + ")";
    size_ = static_cast<int64_t>(status.st_size);
    return "";
}

bool UntrustedFile::read(void* to, size_t length, int64_t offset) const {
    size_t done = 0;
    while (done < length) {
        const ssize_t n = pread64(fd_, static_cast<uint8_t*>(to) + done, length - done,
                                  static_cast<off64_t>(offset + static_cast<int64_t>(done)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool UntrustedFile::ends_at(int64_t length) const {
    uint8_t extra = 0;
    return pread64(fd_, &extra, 1, static_cast<off64_t>(length)) == 0;
}

Bytes read_input(const std::string& path) {
    const bool from_stdin = path == "-";
    const int fd = from_stdin ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) usage_error("cannot open " + path + ": " + std::strerror(errno));
    Bytes bytes;
    uint8_t chunk[65536];
    for (;;) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int error = errno;
            if (!from_stdin) close(fd);
            failure("cannot read " + path + ": " + std::strerror(error));
        }
        if (n == 0) break;
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    if (!from_stdin) close(fd);
    return bytes;
}

void write_output(const std::string& path, const uint8_t* bytes, size_t length) {
    if (path == "-") {
        std::fwrite(bytes, 1, length, stdout);
        return check_output();
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) failure("cannot create " + path + ": " + std::strerror(errno));
    size_t done = 0;
    while (done < length) {
        const ssize_t n = write(fd, bytes + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int error = n < 0 ? errno : EIO;
            close(fd);
            failure("cannot write " + path + ": " + std::strerror(error));
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0) failure("cannot write " + path + ": " + std::strerror(errno));
}

}  // namespace shmtool
