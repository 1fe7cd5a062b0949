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
#include <sys/file.h>
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
#include <optional>
#include <string>
#include <vector>

#include "common.h"
#include "ipc_state.h"
#include "sdc.h"
#include "section_lock.h"

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
    // What the finding is about, for --json: -1 / 0 / "" where it does not apply.
    int section = -1;      // the store section whose lock or content it concerns
    int member = -1;       // the semaphore member
    int64_t set_key = -1;  // the semaphore set's key
    int slot = -1;         // the SDC application slot
    int pid = 0;           // the process holding the lock
};

using DoctorFindings = std::vector<DoctorFinding>;

// How long a lock must stay held by the same process to be reported, and how
// often it is looked at meanwhile.
constexpr int kDoctorHeldGraceMicroseconds = 1000000;
constexpr int kDoctorHeldLooks = 50;

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

// Runs `change` on section 26's bytes in place while this process holds the
// section's lock, so what it compares and what it writes are one step for
// every other user of the library.
std::string doctor_with_sdc_locked(const std::function<std::string(uint8_t* section)>& change) {
    if (const std::string why = doctor_sdc_write_gate(); !why.empty()) return why;
    SectionLock lock(SHM_SEC_SDC);
    return change(lock.bytes());
}

SdcHeader doctor_header_at(const uint8_t* section) {
    SdcHeader h;
    std::memcpy(&h, section + SDC_HEADER_OFFSET, sizeof h);
    return h;
}

// ------------------------------------------------------- serialised repairs

// Repairs are serialised between doctors: two runs that both found a member
// stuck must not both raise it (the second would raise it again under the
// process that took it meanwhile). The lock is a file lock (flock), released
// by the kernel when the process ends however it ends. The file lives in
// /tmp: any local user can create it, and one who holds its lock delays
// repairs (never makes them unsafe); a file that is not a regular file, or a
// symbolic link, is refused.
constexpr const char* kDoctorRepairLockPath = "/tmp/.shmtool-repair.lock";
constexpr int kDoctorRepairLockWaitSeconds = 30;

class DoctorRepairLock {
public:
    DoctorRepairLock() {
        const int flags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        fd_ = open(kDoctorRepairLockPath, O_RDWR | O_CREAT | flags, 0600);
        if (fd_ < 0) fd_ = open(kDoctorRepairLockPath, O_RDONLY | flags);  // made by another user
        if (fd_ < 0)
            failure(std::string("cannot open the repair lock ") + kDoctorRepairLockPath + ": " + std::strerror(errno) +
                    "; nothing was repaired");
        struct stat status {};
        if (fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
            close(fd_);
            failure(std::string("the repair lock ") + kDoctorRepairLockPath +
                    " is not a regular file; nothing was repaired (remove it)");
        }
        for (int tenth = 0; flock(fd_, LOCK_EX | LOCK_NB) != 0; ++tenth) {
            if (errno != EWOULDBLOCK && errno != EINTR) {
                const int error = errno;
                close(fd_);
                failure(std::string("cannot lock ") + kDoctorRepairLockPath + ": " + std::strerror(error));
            }
            if (tenth == 10)
                std::fprintf(stderr, "shmtool: waiting for another doctor --repair (lock %s)\n", kDoctorRepairLockPath);
            if (tenth >= 10 * kDoctorRepairLockWaitSeconds) {
                close(fd_);
                failure("another doctor --repair held " + std::string(kDoctorRepairLockPath) + " for " +
                        std::to_string(kDoctorRepairLockWaitSeconds) + " s; nothing was repaired");
            }
            usleep(100000);
        }
    }
    ~DoctorRepairLock() { close(fd_); }
    DoctorRepairLock(const DoctorRepairLock&) = delete;
    DoctorRepairLock& operator=(const DoctorRepairLock&) = delete;

private:
    int fd_ = -1;
};

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
        // A creator sets the members right after it made the set: a set seen
        // in that moment is not a finding unless it stays so.
        usleep(kDoctorHeldGraceMicroseconds);
        if (!doctor_read_set(id, status, values)) failure("cannot read " + label + ": " + std::strerror(errno));
        zeros = 0;
        for (const unsigned short value : values) zeros += value == 0;
    }
    if (status.sem_otime == 0 && zeros > 0) {
        const int target_id = id;
        findings.push_back(
            {"semaphore.unstarted", "error",
             label + " was never operated and has " + std::to_string(zeros) + " of " + std::to_string(values.size()) +
                 " members at 0: its creator died before setting them to 1, and nobody can take those locks",
             "set its members at 0 to 1, as the library does when it finds such a set", true, "",
             "set every member of " + label + " that is 0 to 1",
             [target_id] {
                 semid_ds now{};
                 std::vector<unsigned short> current;
                 if (!doctor_read_set(target_id, now, current)) return std::string("the set cannot be read");
                 if (now.sem_otime != 0) return std::string("the set has been operated meanwhile: checked again below");
                 // One semop for all of them: it applies only if every member
                 // found at 0 is still 0, and touches no member that is not.
                 std::vector<sembuf> ops;
                 for (size_t member = 0; member < current.size(); ++member) {
                     if (current[member] != 0) continue;
                     ops.push_back({static_cast<unsigned short>(member), 0, IPC_NOWAIT});
                     ops.push_back({static_cast<unsigned short>(member), 1, 0});
                 }
                 if (!ops.empty() && semtimedop(target_id, ops.data(), ops.size(), nullptr) != 0)
                     return errno == EAGAIN ? std::string("a member changed meanwhile: checked again below")
                                            : std::string("semop: ") + std::strerror(errno);
                 return std::string();
             }});
        findings.back().set_key = set.key;
        return;  // its members at 0 are that one finding
    }
    // A member held by a live process is a finding only when it stays held:
    // a producer's lock is taken for microseconds many times a second, and a
    // single look would catch it now and then.
    std::vector<int> held;
    for (int member = 0; member < static_cast<int>(values.size()); ++member) {
        const std::string what = doctor_member_label(set, id, member);
        const int pid = semctl(id, member, GETPID);
        const int waiting = semctl(id, member, GETNCNT);
        const std::string waiters =
            waiting > 0 ? "; " + std::to_string(waiting) + (waiting == 1 ? " process waits" : " processes wait") +
                              " for it"
                        : "";
        DoctorFinding finding;
        finding.member = member;
        finding.section = set.library ? -1 : member + 1;
        finding.set_key = set.key;
        finding.pid = pid;
        // Only a process that is provably gone leaves a member stuck. A last
        // operating pid of 0 in an operated set is a process this PID
        // namespace cannot see, and one whose leader thread exited may still
        // run other threads: both may hold the lock, and are never reset.
        if (values[member] == 0 && process_gone(pid)) {
            const int target_id = id;
            const int found_pid = pid;
            finding.check = "semaphore.stuck";
            finding.severity = "error";
            finding.what = what + " is held, but its last operating process, pid " + std::to_string(pid) +
                           ", is gone: nobody will release it" + waiters;
            finding.repair = "set it to 1 (only while it is still 0 and its holder still gone)";
            finding.safe = true;
            finding.action = "set " + what + " to 1";
            // Run under the repair lock (run_doctor), so no other doctor raises
            // it meanwhile; the dead holder cannot release it, so the value
            // and the holder read here stay until the one semop below.
            finding.apply = [target_id, member, found_pid] {
                if (semctl(target_id, member, GETVAL) != 0) return std::string("it is no longer 0: left alone");
                const int now = semctl(target_id, member, GETPID);
                if (now != found_pid)
                    return "it was operated meanwhile (now by " + describe_pid(now) + "): left alone";
                if (!process_gone(now)) return describe_pid(now) + " may be alive: not touched";
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
            };
            findings.push_back(finding);
        } else if (values[member] == 0) {
            held.push_back(member);
        } else if (values[member] > 1) {
            finding.check = "semaphore.value";
            finding.severity = "error";
            finding.what = what + " is " + std::to_string(values[member]) + ": more than one process can hold it at once";
            finding.repair = "with the store's processes stopped, set it to 1 (semctl SETVAL)";
            finding.refusal = "a value above 1 cannot be lowered safely while processes may hold the lock: not touched";
            finding.pid = 0;
            findings.push_back(finding);
        }
    }
    std::vector<int> pids(held.size());
    for (size_t i = 0; i < held.size(); ++i) pids[i] = semctl(id, held[i], GETPID);
    for (int look = 0; look < kDoctorHeldLooks && !held.empty(); ++look) {
        usleep(kDoctorHeldGraceMicroseconds / kDoctorHeldLooks);
        for (size_t i = 0; i < held.size();) {
            if (semctl(id, held[i], GETVAL) == 0 && semctl(id, held[i], GETPID) == pids[i]) {
                ++i;
                continue;
            }
            held.erase(held.begin() + static_cast<std::ptrdiff_t>(i));
            pids.erase(pids.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    for (size_t i = 0; i < held.size(); ++i) {
        const int member = held[i], pid = pids[i];
        const int waiting = semctl(id, member, GETNCNT);
        const std::string holder = pid > 0 ? describe_pid(pid) : "a process outside this PID namespace";
        DoctorFinding finding;
        finding.check = "semaphore.held";
        finding.severity = "warning";
        finding.what = doctor_member_label(set, id, member) + " is held by " + holder + " for more than " +
                       std::to_string(kDoctorHeldGraceMicroseconds / 1000) + " ms" +
                       (waiting > 0 ? "; " + std::to_string(waiting) + " waiting" : "");
        finding.repair = process_state_note(pid).empty()
                             ? "none while that process works; if it hangs, end it: the kernel then gives the lock "
                               "back (SEM_UNDO)"
                             : "it is stopped: send it SIGCONT (kill -CONT " + std::to_string(pid) +
                                   "), or end it: the kernel then gives the lock back (SEM_UNDO)";
        finding.refusal = "held by " + holder + (pid > 0 ? ", which may be alive" : "") + ": not touched";
        finding.member = member;
        finding.section = set.library ? -1 : member + 1;
        finding.set_key = set.key;
        finding.pid = pid;
        findings.push_back(finding);
    }
}

// The SDC header's checks, on its 220 bytes as found (in place in the live
// segment, or from a snapshot file).
void doctor_check_sdc(const uint8_t* header_bytes, DoctorFindings& findings) {
    SdcHeader h;
    std::memcpy(&h, header_bytes, sizeof h);
    const auto* header = reinterpret_cast<const uint8_t*>(&h);
    const uint32_t head = h.Head, tail = h.Tail, written = h.Written;
    if (!sdc::indexes_valid(h)) {
        findings.push_back(
            {"sdc.indexes", "error",
             "the SDC header's Head " + doctor_hex32(head) + " / Tail " + doctor_hex32(tail) +
                 " lie outside the ring (0 to 0x7ffff): every SDC call on it fails",
             "reset Head, Tail and Written to 0 and every registered application's read position to 0 (the new "
             "Head): the ring is emptied (what it held cannot be read anyway), the names and the signature stay",
             true, "", "reset the SDC header's Head, Tail and Written, and every read position, to 0", [] {
                 return doctor_with_sdc_locked([](uint8_t* section) {
                     const SdcHeader now = doctor_header_at(section);
                     if (sdc::indexes_valid(now)) return std::string("Head and Tail are in range now: left alone");
                     uint8_t* header = section + SDC_HEADER_OFFSET;
                     std::memset(header, 0, 12);
                     // A read position left in the old ring would make the
                     // next poll hand over bytes from before the reset.
                     for (int slot = 0; slot < SDC_MAX_APPS; ++slot)
                         std::memset(header + kDoctorAppTable + kDoctorAppSize * slot + SDC_APP_NAME_SIZE, 0, 4);
                     return std::string();
                 });
             }});
        findings.back().section = SHM_SEC_SDC;
    } else if (written > 1) {
        findings.push_back({"sdc.written", "warning",
                            "the SDC header's Written is " + std::to_string(written) + ", not 0 or 1",
                            "set it to 1: the ring reads the same", true, "", "set the SDC header's Written to 1",
                            [] {
                                return doctor_with_sdc_locked([](uint8_t* section) {
                                    const SdcHeader now = doctor_header_at(section);
                                    if (now.Written <= 1 || !sdc::indexes_valid(now))
                                        return std::string("the header changed meanwhile: left alone");
                                    const uint8_t one[4] = {1, 0, 0, 0};
                                    std::memcpy(section + SDC_HEADER_OFFSET + offsetof(SdcHeader, Written), one, 4);
                                    return std::string();
                                });
                            }});
        findings.back().section = SHM_SEC_SDC;
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
                 return doctor_with_sdc_locked([slot, &found](uint8_t* section) {
                     uint8_t* entry = section + SDC_HEADER_OFFSET + kDoctorAppTable + kDoctorAppSize * slot;
                     if (std::memcmp(entry, found.data(), found.size()) != 0)
                         return std::string("the slot changed meanwhile: left alone");
                     std::memset(entry, 0, kDoctorAppSize);
                     return std::string();
                 });
             }});
        findings.back().section = SHM_SEC_SDC;
        findings.back().slot = slot;
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

// How often the periodic save (shmtool-sdc-save.timer) runs, in seconds: set
// once, by the build (SHM_SDC_SAVE_INTERVAL), for the timer and for this check.
#ifndef SHMTOOL_SDC_SAVE_INTERVAL
#define SHMTOOL_SDC_SAVE_INTERVAL 300
#endif
constexpr int64_t kDoctorSaveInterval = SHMTOOL_SDC_SAVE_INTERVAL;
// An image is stale when the ring has changed since it was written and it is
// older than this many intervals: a periodic save that runs writes a changed
// ring within one interval (plus the timer's accuracy).
constexpr int64_t kDoctorStaleIntervals = 3;

std::string doctor_duration(int64_t seconds) {
    if (seconds < 120) return std::to_string(seconds) + " s";
    if (seconds < 7200) return std::to_string(seconds / 60) + " min";
    if (seconds < 2 * 86400) return std::to_string(seconds / 3600) + " h";
    return std::to_string(seconds / 86400) + " days";
}

// The recovery file is checked as init reads it; a valid image is also
// checked for staleness. No clock in the store says when the ring last
// changed, so the check works from what it has: the image differs from the
// live section (ring and header, byte for byte: the ring changed after the
// image was written, since a save copies the whole section) and the image's
// mtime (when it was written). A working periodic save writes a changed ring
// within one interval, so an image that differs and is older than a few
// intervals means the saves are not running or are failing. The change
// itself may be recent: a ring left unchanged for longer than that and
// written within the last interval is reported as well, until the next save
// catches up. An image equal to the section is current however old it is.
void doctor_check_recovery_file(const uint8_t* live_section, DoctorFindings& findings, std::string& summary) {
    // O_NONBLOCK: a FIFO without a writer must not hold doctor in open().
    const int fd = open(SDC_RECOVERY_FILE, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        summary += ", " SDC_RECOVERY_FILE " (none)";
        return;
    }
    struct stat64 status {};
    const bool dated = fd >= 0 && fstat64(fd, &status) == 0;
    if (fd >= 0) close(fd);
    summary += ", " SDC_RECOVERY_FILE;
    Bytes image;
    const std::string problem = sdc::image_problem(SDC_RECOVERY_FILE, live_section != nullptr ? &image : nullptr);
    if (!problem.empty()) {
        findings.push_back({"recovery_file", "warning", problem + ": sdc init ignores it",
                            "once the SDC section is sound, save a fresh image (shmtool sdc save " SDC_RECOVERY_FILE
                            "), or remove the file",
                            false, "the file may hold the only copy of earlier records: not touched", "", {}});
        return;
    }
    if (live_section == nullptr || !dated) return;
    const int64_t age = static_cast<int64_t>(std::time(nullptr)) - static_cast<int64_t>(status.st_mtime);
    if (age <= kDoctorStaleIntervals * kDoctorSaveInterval) return;
    if (std::memcmp(image.data(), live_section, image.size()) == 0) return;
    findings.push_back(
        {"recovery_file.stale", "warning",
         SDC_RECOVERY_FILE " was written " + doctor_duration(age) + " ago (" +
             iso_time(static_cast<int64_t>(status.st_mtime)) +
             ") and the SDC ring has changed since: a reboot now loses what was written after it (the periodic "
             "save runs every " + doctor_duration(kDoctorSaveInterval) + ")",
         "check the periodic save (systemctl status shmtool-sdc-save.timer shmtool-sdc-save.service; journalctl "
         "-u shmtool-sdc-save.service), then save now: shmtool sdc save --if-changed " SDC_RECOVERY_FILE
         " (a change within the last interval is caught up by the next save)",
         false, "saving replaces the image: run the save yourself", "", {}});
    findings.back().section = SHM_SEC_SDC;
}

// Every check, in the order the repairs must run: the locks first (the SDC
// repairs need them), then the SDC header.
DoctorFindings doctor_check(std::string& summary) {
    DoctorFindings findings;
    if (snapshot_active()) {
        // A snapshot holds the segment's bytes only: the checks that read
        // the section table and the SDC section run on it, the others are
        // said to be skipped.
        summary = "snapshot " + safe_text(g_snapshot_path) +
                  " (section 26's header and slots; skipped: the semaphore sets, which a snapshot does not hold, "
                  "and " SDC_RECOVERY_FILE ", which is this host's)";
        if (section_size(SHM_SEC_SDC) >= SDC_HEADER_OFFSET + SDC_HEADER_SIZE) {
            const Bytes header = read_section(SHM_SEC_SDC, SDC_HEADER_OFFSET, SDC_HEADER_SIZE);
            doctor_check_sdc(header.data(), findings);
        }
        for (DoctorFinding& f : findings) {  // nothing to repair in a file
            f.safe = false;
            f.refusal = "a snapshot is read, never repaired";
        }
        return findings;
    }
    const DoctorSegment segment = doctor_open_segment();
    summary = "segment key " + doctor_key_text(kSegmentKey) + " (id " + std::to_string(segment.id) + ", " +
              std::to_string(segment.size) + " bytes)";
    doctor_check_segment(segment, findings);
    for (const DoctorSet& set : kDoctorSets) doctor_check_set(set, findings, summary);
    const int64_t start = section_offset(SHM_SEC_SDC) + SDC_HEADER_OFFSET;
    if (section_size(SHM_SEC_SDC) >= SDC_HEADER_OFFSET + SDC_HEADER_SIZE && start >= 0 &&
        static_cast<uint64_t>(start + SDC_HEADER_SIZE) <= segment.size)
        doctor_check_sdc(segment.base + start, findings);  // else the layout findings say why
    summary += ", SDC header";
    const int64_t section_start = section_offset(SHM_SEC_SDC);
    const bool section_whole = section_size(SHM_SEC_SDC) == SDC_RECOVERY_FILE_SIZE && section_start >= 0 &&
                               static_cast<uint64_t>(section_start + SDC_RECOVERY_FILE_SIZE) <= segment.size;
    doctor_check_recovery_file(section_whole ? segment.base + section_start : nullptr, findings, summary);
    shmdt(segment.base);
    return findings;
}

json doctor_findings_json(const DoctorFindings& findings) {
    const auto number_or_null = [](int64_t value, int64_t none) { return value == none ? json(nullptr) : json(value); };
    json list = json::array();
    for (const DoctorFinding& f : findings) {
        const std::string process = f.pid > 0 ? process_name(f.pid) : "";
        const char state = f.pid > 0 ? process_state(f.pid) : 0;
        list.push_back({{"check", f.check},
                        {"severity", f.severity},
                        {"what", f.what},
                        {"repair", f.repair},
                        {"safe_repair", f.safe},
                        {"section", number_or_null(f.section, -1)},
                        {"set_key", number_or_null(f.set_key, -1)},
                        {"member", number_or_null(f.member, -1)},
                        {"slot", number_or_null(f.slot, -1)},
                        {"pid", number_or_null(f.pid, 0)},
                        {"process", process.empty() ? json(nullptr) : json(safe_text(process))},
                        {"state", state == 0 ? json(nullptr) : json(std::string(1, state))}});
    }
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
    if (repair && snapshot_active()) usage_error("--repair changes the store; --snapshot reads a file: give one");
    std::string summary;
    DoctorFindings findings = doctor_check(summary);
    json repairs = json::array();
    if (!g_options.json) {
        std::printf("checked: %s\n", summary.c_str());
        doctor_print_findings(findings);
    }
    if (repair && !findings.empty()) {
        // Held until the last repair is done; taken only when one may run.
        std::optional<DoctorRepairLock> serialised;
        for (const DoctorFinding& f : findings)
            if (f.safe && !serialised) serialised.emplace();
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
        bool repairable = false;
        for (const DoctorFinding& f : findings) repairable = repairable || f.safe;
        failure(std::to_string(count) + (count == 1 ? " problem" : " problems") + " found" +
                (repair || !repairable ? "" : " (shmtool doctor --repair applies the safe repairs)"));
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
