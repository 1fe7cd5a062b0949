// shmtool doctor: finds what is broken in the store and repairs what it can
// prove safe to repair.
//
// The checks never take a lock and never create anything: the segment is
// opened by key (shmget with size 0, no IPC_CREAT) and attached read-only,
// the semaphores are read with semctl, the SDC header is read in place
// (unlocked, so a header being written at that moment may look torn: run
// doctor again before believing one odd index) and the recovery file is
// opened without blocking. Only --repair changes anything, and only what a
// finding marks safe, each named first and confirmed on stdin (or --yes):
//
//   - a member at 0 whose last operating process is gone: set to 1, with one
//     semop that adds 1 only while the member is still 0;
//   - a set never operated (sem_otime 0) with members at 0, as a creator that
//     died between semget and its SETVALs leaves it: SETALL 1, as the library
//     itself does on attach;
//   - a missing set: created with every member at 1 (Vond_shm_init_sem);
//   - an SDC header with Head or Tail outside the ring: Head = Tail = Written
//     = 0, the application table and signature kept; Written above 1 with
//     good indexes: Written = 1 (the ring reads the same);
//   - an application slot with a non-printable name or a read position
//     outside the ring: its 25 bytes zeroed.
//
// The SDC repairs go through the library's locked write, so they attach the
// store and take section 26's lock (--timeout limits that wait); each reads
// the header again under the lock first and acts only if it is still as
// found. They are refused while a lock they need is stuck.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "common.h"
#include "ipc_state.h"
#include "sdc.h"

namespace shmtool {
namespace {

constexpr int kDoctorAppTable = offsetof(SdcHeader, SDCAppTable);  // the slots, from the header's start
constexpr int kDoctorAppSize = sizeof(SdcAppEntry);

struct DoctorSet {
    const char* label;  // "library lock set"
    key_t key;
    int count;
    bool library;
};
constexpr DoctorSet kDoctorSets[] = {
    {"library lock set", kLibrarySemKey, 1, true},
    {"section lock set", kSectionSemKey, SHM_SECTION_COUNT, false},
};

struct DoctorFinding {
    std::string check;
    std::string severity;  // "error" or "warning"
    std::string what;
    std::string repair;
    bool safe = false;
    std::string refusal;                // safe == false: why --repair leaves it
    std::string action;                 // safe: what --repair does, named before it is done
    std::function<std::string()> apply;  // safe: "" when done, else why it was not
};

using DoctorFindings = std::vector<DoctorFinding>;

std::string doctor_key_text(key_t key) { return std::to_string(static_cast<long long>(key)); }

std::string doctor_hex32(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

// "section 6 lock (member 5 of set 3)", "the library lock (member 0 of set 2)".
std::string doctor_member_label(const DoctorSet& set, int id, int member) {
    const std::string where = "member " + std::to_string(member) + " of set " + std::to_string(id);
    if (set.library) return "the library lock (" + where + ")";
    if (member + 1 > SHM_SEC_LAST) return where + " (no section uses it)";
    return "section " + std::to_string(member + 1) + " lock (" + where + ")";
}

// The set's status and values, or false when it cannot be read.
bool doctor_read_set(int id, semid_ds& status, std::vector<unsigned short>& values) {
    SemArgument argument{};
    argument.buf = &status;
    if (semctl(id, 0, IPC_STAT, argument) != 0) return false;
    values.assign(status.sem_nsems, 0);
    argument.array = values.data();
    return values.empty() || semctl(id, 0, GETALL, argument) == 0;
}

// Why a member cannot be taken by anybody, or "" when it can be (or is held
// by a live process, which releases it in time).
std::string doctor_member_stuck(key_t key, int member) {
    const int id = semget(key, 0, 0);
    if (id < 0) return "";  // the attach creates it
    semid_ds status{};
    std::vector<unsigned short> values;
    if (!doctor_read_set(id, status, values)) return "its set " + doctor_key_text(key) + " cannot be read";
    if (static_cast<int>(values.size()) <= member) return "its set " + doctor_key_text(key) + " is too small";
    if (values[member] != 0) return "";
    if (status.sem_otime == 0) return "its set " + doctor_key_text(key) + " was never initialised";
    const int pid = semctl(id, member, GETPID);
    return process_alive(pid) ? "" : "it is stuck at 0 (its last operating pid " + std::to_string(pid) + " is gone)";
}

// Whether the locked write the SDC repairs use can work: the library must be
// able to attach, and neither its lock nor section 26's may be stuck.
std::string doctor_sdc_write_gate() {
    for (const DoctorSet& set : kDoctorSets) {
        const int id = semget(set.key, 0, 0);
        semid_ds status{};
        std::vector<unsigned short> values;
        if (id >= 0 && doctor_read_set(id, status, values) && status.sem_otime == 0)
            for (const unsigned short value : values)
                if (value == 0)
                    return "the " + std::string(set.label) + " (key " + doctor_key_text(set.key) +
                           ") must be initialised first";
    }
    if (const std::string why = doctor_member_stuck(kDoctorSets[0].key, 0); !why.empty())
        return "the library lock cannot be taken: " + why;
    if (const std::string why = doctor_member_stuck(kDoctorSets[1].key, SHM_SEC_SDC - 1); !why.empty())
        return "section 26's lock cannot be taken: " + why;
    return "";
}

// The header as the library holds it, read under section 26's lock.
std::string doctor_read_header_locked(SdcHeader& header) {
    if (const std::string why = doctor_sdc_write_gate(); !why.empty()) return why;
    const int32_t result = Vond_shm_memread(SHM_SEC_SDC, &header, SDC_HEADER_OFFSET, SDC_HEADER_SIZE);
    return result == 0 ? "" : "Vond_shm_memread returned " + std::to_string(result) + ": cannot read the header";
}

std::string doctor_write_header(int32_t offset, const Bytes& bytes) {
    const int32_t result =
        Vond_shm_memwrite(SHM_SEC_SDC, bytes.data(), SDC_HEADER_OFFSET + offset, static_cast<int32_t>(bytes.size()));
    return result == 0 ? "" : "Vond_shm_memwrite returned " + std::to_string(result) + ": not written";
}

// ------------------------------------------------------------------ checks

struct DoctorSegment {
    int id = -1;
    uint64_t size = 0;
    const uint8_t* base = nullptr;
};

DoctorSegment doctor_open_segment() {
    DoctorSegment segment;
    segment.id = shmget(kSegmentKey, 0, 0);
    if (segment.id < 0) {
        if (errno == ENOENT) failure("no store: segment key " + doctor_key_text(kSegmentKey) + " does not exist");
        failure("cannot open the segment (key " + doctor_key_text(kSegmentKey) + "): " + std::strerror(errno));
    }
    shmid_ds status{};
    if (shmctl(segment.id, IPC_STAT, &status) != 0) failure(std::string("shmctl IPC_STAT: ") + std::strerror(errno));
    segment.size = status.shm_segsz;
    void* base = shmat(segment.id, nullptr, SHM_RDONLY);
    if (base == reinterpret_cast<void*>(-1)) failure(std::string("shmat (read-only): ") + std::strerror(errno));
    segment.base = static_cast<const uint8_t*>(base);
    return segment;
}

void doctor_check_segment(const DoctorSegment& segment, DoctorFindings& findings) {
    int64_t table = 0;
    bool negative = false;
    for (int section = 0; section < SHM_SECTION_COUNT; ++section) {
        table += gShmSecSize[section];
        negative = negative || gShmSecSize[section] < 0;
    }
    if (table > SHM_SIZE || negative) {
        findings.push_back({"segment.layout", "error",
                            "the library's section table adds up to " + std::to_string(table) +
                                " bytes" + (negative ? ", with a negative size," : "") + " against SHM_SIZE " +
                                std::to_string(SHM_SIZE) + ": the library refuses to attach",
                            "run a tool built against the same libshm as the store's processes", false,
                            "the section table is the library's, not the store's: not touched", "", {}});
    }
    const std::string size = std::to_string(segment.size);
    const std::string recreate = "when no process has the segment attached, remove it (ipcrm -M " +
                                 doctor_key_text(kSegmentKey) +
                                 ") and let the next process create it anew; its contents are lost";
    if (segment.size < static_cast<uint64_t>(table) || segment.size < SHM_SIZE) {
        findings.push_back({"segment.size", "error",
                            "the segment is " + size + " bytes, smaller than SHM_SIZE (" + std::to_string(SHM_SIZE) +
                                ") or the section table (" + std::to_string(table) +
                                "): the library cannot attach it",
                            recreate, false, "removing the segment loses the store: not touched", "", {}});
    } else if (segment.size != SHM_SIZE) {
        findings.push_back({"segment.size", "warning",
                            "the segment is " + size + " bytes, not SHM_SIZE (" + std::to_string(SHM_SIZE) + ")",
                            recreate, false, "removing the segment loses the store: not touched", "", {}});
    }
}

void doctor_check_set(const DoctorSet& set, DoctorFindings& findings, std::string& summary) {
    const std::string named = "the " + std::string(set.label) + " (key " + doctor_key_text(set.key) + ")";
    const int id = semget(set.key, 0, 0);
    if (id < 0) {
        if (errno != ENOENT) failure("cannot open " + named + ": " + std::strerror(errno));
        summary += ", " + std::string(set.label) + " key " + doctor_key_text(set.key) + " (missing)";
        const DoctorSet target = set;
        findings.push_back({"semaphore.missing", "warning", named + " does not exist",
                            "create it with every member at 1, as the library does when it attaches", true, "",
                            "create " + named + (set.count == 1 ? " with its member at 1" : " with every member at 1"),
                            [target] {
                                return Vond_shm_init_sem(target.key, target.count) >= 0
                                           ? std::string()
                                           : std::string("Vond_shm_init_sem failed (-v tells why)");
                            }});
        return;
    }
    summary += ", " + std::string(set.label) + " key " + doctor_key_text(set.key) + " (id " + std::to_string(id) + ")";
    const std::string label = "the " + std::string(set.label) + " (key " + doctor_key_text(set.key) + ", id " +
                              std::to_string(id) + ")";
    semid_ds status{};
    std::vector<unsigned short> values;
    if (!doctor_read_set(id, status, values)) failure("cannot read " + label + ": " + std::strerror(errno));
    if (static_cast<int>(values.size()) < set.count) {
        findings.push_back({"semaphore.count", "error",
                            label + " has " + std::to_string(values.size()) + " members, the library needs " +
                                std::to_string(set.count),
                            "when no process uses the store, remove it (ipcrm -S " + doctor_key_text(set.key) +
                                ") and let the next process that attaches create it",
                            false, "removing a set that processes may use is not safe: not touched", "", {}});
    }
    int zeros = 0;
    for (const unsigned short value : values) zeros += value == 0;
    if (status.sem_otime == 0 && zeros > 0) {
        const int target_id = id;
        findings.push_back(
            {"semaphore.unstarted", "error",
             label + " was never operated and has " + std::to_string(zeros) + " of " + std::to_string(values.size()) +
                 " members at 0: its creator died before setting them to 1, and nobody can take those locks",
             "set every member to 1 (SETALL), as the library does when it finds such a set", true, "",
             "set every member of " + label + " to 1",
             [target_id] {
                 semid_ds now{};
                 std::vector<unsigned short> current;
                 if (!doctor_read_set(target_id, now, current)) return std::string("the set cannot be read");
                 if (now.sem_otime != 0) return std::string("the set has been operated meanwhile: checked again below");
                 std::vector<unsigned short> ones(current.size(), 1);
                 SemArgument argument{};
                 argument.array = ones.data();
                 if (semctl(target_id, 0, SETALL, argument) != 0)
                     return std::string("semctl SETALL: ") + std::strerror(errno);
                 return std::string();
             }});
        return;  // its members at 0 are that one finding
    }
    for (int member = 0; member < static_cast<int>(values.size()); ++member) {
        const std::string what = doctor_member_label(set, id, member);
        const int pid = semctl(id, member, GETPID);
        const int waiting = semctl(id, member, GETNCNT);
        const std::string waiters =
            waiting > 0 ? "; " + std::to_string(waiting) + (waiting == 1 ? " process waits" : " processes wait") +
                              " for it"
                        : "";
        // A last operating pid of 0 in an operated set is a process this PID
        // namespace cannot see (the kernel shows such a pid as 0): it may be
        // alive, so it is reported as held and never reset.
        if (values[member] == 0 && pid > 0 && !process_alive(pid)) {
            const int target_id = id;
            findings.push_back(
                {"semaphore.stuck", "error",
                 what + " is held, but " +
                     (pid > 0 ? "its last operating process, pid " + std::to_string(pid) + ", is gone"
                              : std::string("no process has ever operated it")) +
                     ": nobody will release it" + waiters,
                 "set it to 1 (only while it is still 0)", true, "", "set " + what + " to 1",
                 [target_id, member] {
                     if (semctl(target_id, member, GETVAL) != 0) return std::string("it is no longer 0: left alone");
                     const int now = semctl(target_id, member, GETPID);
                     if (process_alive(now))
                         return "it is now held by " + describe_pid(now) + ", which is alive: not touched";
                     sembuf ops[2] = {};
                     ops[0].sem_num = static_cast<unsigned short>(member);
                     ops[0].sem_op = 0;
                     ops[0].sem_flg = IPC_NOWAIT;
                     ops[1].sem_num = static_cast<unsigned short>(member);
                     ops[1].sem_op = 1;
                     if (semtimedop(target_id, ops, 2, nullptr) != 0)
                         return errno == EAGAIN ? std::string("it was released meanwhile: left alone")
                                                : std::string("semop: ") + std::strerror(errno);
                     return std::string();
                 }});
        } else if (values[member] == 0) {
            const std::string holder = pid > 0 ? describe_pid(pid) : "a process outside this PID namespace";
            findings.push_back({"semaphore.held", "warning", what + " is held by " + holder + waiters,
                                "none while that process works; if it hangs, end it: the kernel then gives the "
                                "lock back (SEM_UNDO)",
                                false, "held by " + holder + (pid > 0 ? ", which is alive" : ", which may be alive") + ": not touched", "", {}});
        } else if (values[member] > 1) {
            findings.push_back({"semaphore.value", "error",
                                what + " is " + std::to_string(values[member]) +
                                    ": more than one process can hold it at once",
                                "with the store's processes stopped, set it to 1 (semctl SETVAL)", false,
                                "a value above 1 cannot be lowered safely while processes may hold the lock: "
                                "not touched",
                                "", {}});
        }
    }
}

void doctor_check_sdc(const DoctorSegment& segment, DoctorFindings& findings) {
    const int64_t start = section_offset(SHM_SEC_SDC) + SDC_HEADER_OFFSET;
    if (section_size(SHM_SEC_SDC) < SDC_HEADER_OFFSET + SDC_HEADER_SIZE || start < 0 ||
        static_cast<uint64_t>(start + SDC_HEADER_SIZE) > segment.size)
        return;  // no header to read: the layout findings say why
    SdcHeader h;
    std::memcpy(&h, segment.base + start, sizeof h);
    const auto* header = reinterpret_cast<const uint8_t*>(&h);
    const uint32_t head = h.Head, tail = h.Tail, written = h.Written;
    if (!sdc::indexes_valid(h)) {
        findings.push_back(
            {"sdc.indexes", "error",
             "the SDC header's Head " + doctor_hex32(head) + " / Tail " + doctor_hex32(tail) +
                 " lie outside the ring (0 to 0x7ffff): every SDC call on it fails",
             "reset Head, Tail and Written to 0: the ring is emptied (what it held cannot be read anyway), the "
             "application table and the signature stay",
             true, "", "reset the SDC header's Head, Tail and Written to 0", [] {
                 SdcHeader now;
                 if (const std::string why = doctor_read_header_locked(now); !why.empty()) return why;
                 if (sdc::indexes_valid(now)) return std::string("Head and Tail are in range now: left alone");
                 return doctor_write_header(0, Bytes(12, 0));
             }});
    } else if (written > 1) {
        findings.push_back({"sdc.written", "warning",
                            "the SDC header's Written is " + std::to_string(written) + ", not 0 or 1",
                            "set it to 1: the ring reads the same", true, "", "set the SDC header's Written to 1",
                            [] {
                                SdcHeader now;
                                if (const std::string why = doctor_read_header_locked(now); !why.empty()) return why;
                                if (now.Written <= 1 || !sdc::indexes_valid(now))
                                    return std::string("the header changed meanwhile: left alone");
                                return doctor_write_header(8, Bytes{1, 0, 0, 0});
                            }});
    }
    const char* signature = h.Signature;
    if (!sdc::signature_valid(h)) {
        findings.push_back({"sdc.signature", "warning",
                            "the SDC header has no signature (\"" + printable(signature, 8) +
                                "\", not \"" SDC_SIGNATURE "\"): recovery images saved from it are not trusted",
                            "run shmtool sdc init (restores a valid " SDC_RECOVERY_FILE
                            ", else checks the header and writes the signature)",
                            false, "sdc init may replace the ring with the recovery image: run it yourself", "", {}});
    }
    std::vector<int> sound;
    for (int slot = 0; slot < SDC_MAX_APPS; ++slot) {
        const uint8_t* entry = header + kDoctorAppTable + kDoctorAppSize * slot;
        if (entry[0] == 0) continue;
        const char* name = reinterpret_cast<const char*>(entry);
        bool name_ok = true;
        for (int i = 0; i < SDC_APP_NAME_SIZE && entry[i] != 0; ++i) name_ok = name_ok && entry[i] >= 0x20 && entry[i] < 0x7f;
        const uint32_t last = sdc::last(h, slot);
        if (name_ok && sdc::last_in_range(h, slot)) {
            sound.push_back(slot);
            continue;
        }
        const std::string why = !name_ok ? "its name \"" + printable(name, SDC_APP_NAME_SIZE) + "\" is not printable"
                                         : "its read position " + doctor_hex32(last) + " lies outside the ring";
        const Bytes found(entry, entry + kDoctorAppSize);
        findings.push_back(
            {"sdc.slot", "error",
             "SDC application slot " + std::to_string(slot) + " is corrupt: " + why + " (its polls fail)",
             "free the slot (zero its 25 bytes); its consumer registers again", true, "",
             "free SDC application slot " + std::to_string(slot), [slot, found] {
                 SdcHeader now;
                 if (const std::string why = doctor_read_header_locked(now); !why.empty()) return why;
                 if (std::memcmp(&now.SDCAppTable[slot], found.data(), found.size()) != 0)
                     return std::string("the slot changed meanwhile: left alone");
                 return doctor_write_header(kDoctorAppTable + kDoctorAppSize * slot, Bytes(kDoctorAppSize, 0));
             }});
    }
    for (size_t i = 0; i < sound.size(); ++i)
        for (size_t j = i + 1; j < sound.size(); ++j) {
            const char* a = reinterpret_cast<const char*>(header + kDoctorAppTable + kDoctorAppSize * sound[i]);
            const char* b = reinterpret_cast<const char*>(header + kDoctorAppTable + kDoctorAppSize * sound[j]);
            if (std::strncmp(a, b, SDC_APP_NAME_SIZE) != 0) continue;
            const std::string later = std::to_string(sound[j]);
            findings.push_back(
                {"sdc.duplicate", "warning",
                 "SDC application slots " + std::to_string(sound[i]) + " and " + later + " hold the same name '" +
                     printable(a, SDC_APP_NAME_SIZE) + "': registering finds slot " + std::to_string(sound[i]) +
                     " only",
                 "stop the consumer polling slot " + later + ", then free it: shmtool poke sdc " +
                     std::to_string(SDC_HEADER_OFFSET + kDoctorAppTable + kDoctorAppSize * sound[j]) + " " +
                     std::string(2 * kDoctorAppSize, '0'),
                 false, "a consumer may still poll slot " + later + ": not touched", "", {}});
        }
}

void doctor_check_recovery_file(DoctorFindings& findings, std::string& summary) {
    // O_NONBLOCK: a FIFO without a writer must not hold doctor in open().
    const int fd = open(SDC_RECOVERY_FILE, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        summary += ", " SDC_RECOVERY_FILE " (none)";
        return;
    }
    if (fd >= 0) close(fd);
    summary += ", " SDC_RECOVERY_FILE;
    const std::string problem = sdc::image_problem(SDC_RECOVERY_FILE, nullptr);
    if (problem.empty()) return;
    findings.push_back({"recovery_file", "warning", problem + ": sdc init ignores it",
                        "once the SDC section is sound, save a fresh image (shmtool sdc save " SDC_RECOVERY_FILE
                        "), or remove the file",
                        false, "the file may hold the only copy of earlier records: not touched", "", {}});
}

// Every check, in the order the repairs must run: the locks first (the SDC
// repairs need them), then the SDC header.
DoctorFindings doctor_check(std::string& summary) {
    DoctorFindings findings;
    const DoctorSegment segment = doctor_open_segment();
    summary = "segment key " + doctor_key_text(kSegmentKey) + " (id " + std::to_string(segment.id) + ", " +
              std::to_string(segment.size) + " bytes)";
    doctor_check_segment(segment, findings);
    for (const DoctorSet& set : kDoctorSets) doctor_check_set(set, findings, summary);
    doctor_check_sdc(segment, findings);
    summary += ", SDC header";
    doctor_check_recovery_file(findings, summary);
    shmdt(segment.base);
    return findings;
}

json doctor_findings_json(const DoctorFindings& findings) {
    json list = json::array();
    for (const DoctorFinding& f : findings)
        list.push_back({{"check", f.check},
                        {"severity", f.severity},
                        {"what", f.what},
                        {"repair", f.repair},
                        {"safe_repair", f.safe}});
    return list;
}

void doctor_print_findings(const DoctorFindings& findings) {
    for (const DoctorFinding& f : findings) {
        std::printf("%-8s %s: %s\n", f.severity == "error" ? "ERROR" : "WARNING", f.check.c_str(), f.what.c_str());
        std::printf("%-8s repair: %s (%s)\n", "", f.repair.c_str(),
                    f.safe ? "safe: doctor --repair does it" : "by hand");
    }
}

// The operator's answer on stdin: only "y" or "yes" confirms.
bool doctor_confirm(const std::string& action) {
    std::fflush(stdout);
    std::fprintf(stderr, "  %s? [y/N] ", action.c_str());
    char line[64] = {};
    if (std::fgets(line, sizeof line, stdin) == nullptr) {
        std::fprintf(stderr, "\n");
        return false;
    }
    line[std::strcspn(line, "\r\n")] = 0;
    return std::strcmp(line, "y") == 0 || std::strcmp(line, "Y") == 0 || std::strcmp(line, "yes") == 0;
}

void run_doctor(bool repair, bool yes) {
    std::string summary;
    DoctorFindings findings = doctor_check(summary);
    json repairs = json::array();
    if (!g_options.json) {
        std::printf("checked: %s\n", summary.c_str());
        doctor_print_findings(findings);
    }
    if (repair && !findings.empty()) {
        // Progress goes where it does not mix with the JSON document.
        FILE* progress = g_options.json ? stderr : stdout;
        if (!g_options.json) std::printf("\n");
        for (const DoctorFinding& f : findings) {
            json entry = {{"check", f.check}, {"what", f.what}};
            if (!f.safe) {
                std::fprintf(progress, "not repaired: %s: %s\n", f.check.c_str(), f.refusal.c_str());
                entry["action"] = nullptr;
                entry["result"] = "refused";
                entry["reason"] = f.refusal;
                repairs.push_back(entry);
                continue;
            }
            entry["action"] = f.action;
            std::fprintf(progress, "repair: %s\n", f.action.c_str());
            if (!yes && !doctor_confirm(f.action)) {
                std::fprintf(progress, "  skipped (not confirmed)\n");
                entry["result"] = "skipped";
                repairs.push_back(entry);
                continue;
            }
            const std::string why = f.apply();
            std::fprintf(progress, "  %s\n", why.empty() ? "done" : ("not done: " + why).c_str());
            entry["result"] = why.empty() ? "done" : "failed";
            if (!why.empty()) entry["reason"] = why;
            repairs.push_back(entry);
        }
        findings = doctor_check(summary);
        if (!g_options.json) {
            std::printf("\nchecked again: %s\n", summary.c_str());
            doctor_print_findings(findings);
        }
    }
    if (g_options.json) {
        json doc = {{"schema", 1}, {"healthy", findings.empty()}, {"findings", doctor_findings_json(findings)}};
        if (repair) doc["repairs"] = repairs;
        print_json(doc);
    } else if (findings.empty()) {
        std::printf("healthy: no problem found\n");
    }
    if (!findings.empty()) {
        const size_t count = findings.size();
        failure(std::to_string(count) + (count == 1 ? " problem" : " problems") + " found" +
                (repair ? "" : " (shmtool doctor --repair applies the safe repairs)"));
    }
}

}  // namespace

void add_doctor_command(CLI::App& app) {
    static bool repair = false;
    static bool yes = false;
    CLI::App* doctor = app.add_subcommand(
        "doctor", "Check the segment, every lock, the SDC header and the recovery file; repair what is safe");
    CLI::Option* repair_option =
        doctor->add_flag("--repair", repair, "Apply the safe repairs, each named and confirmed on stdin (y)");
    doctor->add_flag("-y,--yes", yes, "With --repair: apply them without asking")->needs(repair_option);
    doctor->callback([] { set_action([] { run_doctor(repair, yes); }); });
}

}  // namespace shmtool
