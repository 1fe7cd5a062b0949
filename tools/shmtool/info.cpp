// shmtool info: the segment as the kernel reports it, the section table and
// every section lock. It reads the semaphores with semctl and never takes a
// section lock itself, so it works while another process holds one.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common.h"
#include "ipc_state.h"

namespace shmtool {
namespace {

// Any process sets its own name (prctl PR_SET_NAME): it is shown, and put in
// the document, through safe_text.
// A process as info shows it: pid, name and state (/proc's letter: "S",
// "R", "D", "T" when stopped, ...; null when it cannot be read).
json info_process(int pid) {
    const std::string name = process_name(pid);
    const char state = process_state(pid);
    return {{"pid", pid},
            {"name", name.empty() ? json(nullptr) : json(safe_text(name))},
            {"state", state == 0 ? json(nullptr) : json(std::string(1, state))}};
}

// The set's key, from IPC_STAT.
int64_t info_set_key(int set) {
    semid_ds status{};
    SemArgument argument{};
    argument.buf = &status;
    if (semctl(set, 0, IPC_STAT, argument) != 0)
        failure("semctl IPC_STAT on set " + std::to_string(set) + ": " + std::strerror(errno));
    return static_cast<int64_t>(status.sem_perm.__key);
}

// A member's value, last pid and waiters. A held member's holder is the
// process of its last operation; the waiters are the processes blocked on
// the set whose call decreases this member.
json semaphore(int set, int member, const std::vector<SemaphoreWaiter>& blocked) {
    const int value = semctl(set, member, GETVAL);
    if (value < 0) failure("semctl GETVAL on set " + std::to_string(set) + ": " + std::strerror(errno));
    const char* state = value == 1 ? "free" : value == 0 ? "held" : "odd";
    const int last_pid = semctl(set, member, GETPID);
    json waiters = json::array();
    for (const SemaphoreWaiter& w : blocked)
        if (std::find(w.members.begin(), w.members.end(), member) != w.members.end())
            waiters.push_back(info_process(w.pid));
    return {{"value", value},
            {"state", state},
            {"last_pid", last_pid},
            {"waiting", semctl(set, member, GETNCNT)},
            {"holder", value == 0 && last_pid > 0 ? info_process(last_pid) : json(nullptr)},
            {"waiters", waiters}};
}

// Processes blocked on the set whose call could not be read (which member
// they wait for is unknown).
json info_unplaced(const std::vector<SemaphoreWaiter>& blocked) {
    json list = json::array();
    for (const SemaphoreWaiter& w : blocked)
        if (w.members.empty()) list.push_back(info_process(w.pid));
    return list;
}

json collect() {
    // The segment's status before this process attaches: its last attach
    // (shm_lpid, shm_atime) and its count are then the other processes'.
    int id = shmget(kSegmentKey, 0, 0);
    shmid_ds seg{};
    if (id >= 0 && shmctl(id, IPC_STAT, &seg) != 0)
        failure("shmctl IPC_STAT of segment " + std::to_string(id) + ": " + std::strerror(errno));
    attach_existing();  // without a store it ends the command, saying why
    if (id < 0 && shmctl(id = gShmId, IPC_STAT, &seg) != 0)  // created meanwhile
        failure("shmctl IPC_STAT of segment " + std::to_string(id) + ": " + std::strerror(errno));
    json doc;
    doc["self_pid"] = static_cast<int>(getpid());
    doc["segment"] = {{"key", static_cast<int64_t>(seg.shm_perm.__key)},
                      {"id", id},
                      {"size", static_cast<uint64_t>(seg.shm_segsz)},
                      {"mode", mode_string(seg.shm_perm.mode & 0777)},
                      {"attached", static_cast<uint64_t>(seg.shm_nattch)},
                      {"creator_pid", static_cast<int>(seg.shm_cpid)},
                      {"last_attach_pid", static_cast<int>(seg.shm_lpid)},
                      {"last_attach_time", seg.shm_atime != 0 ? json(iso_time(seg.shm_atime)) : json(nullptr)},
                      {"last_attach_time_seconds", static_cast<int64_t>(seg.shm_atime)}};
    const std::vector<SemaphoreWaiter> lib_blocked = semaphore_waiters(gShmLibSemId);
    const std::vector<SemaphoreWaiter> sec_blocked = semaphore_waiters(gShmSecSemId);
    doc["library_lock"] = semaphore(gShmLibSemId, 0, lib_blocked);
    doc["library_lock"]["set"] = gShmLibSemId;
    doc["library_lock"]["key"] = info_set_key(gShmLibSemId);
    doc["library_lock"]["waiters_member_unknown"] = info_unplaced(lib_blocked);
    doc["section_lock_set"] = gShmSecSemId;
    doc["section_lock_set_key"] = info_set_key(gShmSecSemId);
    doc["section_waiters_member_unknown"] = info_unplaced(sec_blocked);
    json sections = json::array();
    for (int section = 0; section < SHM_SECTION_COUNT; ++section) {
        json entry = {{"section", section},
                      {"name", *section_name(section) != 0 ? json(section_name(section)) : json(nullptr)},
                      {"role", std::string(section_role(section)) != "-" ? json(section_role(section)) : json(nullptr)},
                      {"offset", section_offset(section)},
                      {"size", section_size(section)}};
        // Section n is guarded by member n - 1; the empty section 0 has none.
        entry["lock"] = section == 0 ? json(nullptr) : semaphore(gShmSecSemId, section - 1, sec_blocked);
        sections.push_back(entry);
    }
    doc["sections"] = sections;
    return doc;
}

std::string pid_text(const json& pid, int self) {
    const int value = pid.get<int>();
    return std::to_string(value) + (value == self ? " (this process)" : "");
}

// "pid 812 (fand)", "pid 812 (gone)" or "pid 812 (shmtool, this process)".
std::string info_who(const json& process, int self) {
    const int pid = process["pid"];
    const std::string name = process["name"].is_null() ? "gone" : process["name"].get<std::string>();
    const std::string state = process["state"].is_null() ? "" : process["state"].get<std::string>();
    const bool stopped = state == "T" || state == "t";
    return "pid " + std::to_string(pid) + " (" + name + (pid == self ? ", this process" : "") +
           (stopped ? ", stopped (send SIGCONT)" : "") + ")";
}

std::string info_unplaced_text(const json& list, int self) {
    std::string text;
    for (const json& process : list) text += (text.empty() ? "" : ", ") + info_who(process, self);
    return text;
}

// "held by pid 812 (fand), 2 waiting: pid 900 (sdcd), pid 901 (logd)".
std::string info_lock_text(const json& lock, int self) {
    const std::string state = lock["state"];
    std::string text;
    if (state == "held")
        text = lock["holder"].is_null() ? "held (no process has operated it)"
                                        : "held by " + info_who(lock["holder"], self);
    else if (state == "odd")
        text = "odd (value " + std::to_string(lock["value"].get<int>()) + "), last pid " +
               pid_text(lock["last_pid"], self);
    else
        text = "free, last pid " + pid_text(lock["last_pid"], self);
    const int waiting = lock["waiting"];
    text += ", " + std::to_string(waiting) + " waiting";
    const json& waiters = lock["waiters"];
    if (!waiters.empty()) text += ": " + info_unplaced_text(waiters, self);
    const int unnamed = waiting - static_cast<int>(waiters.size());
    if (!waiters.empty() && unnamed > 0) text += " and " + std::to_string(unnamed) + " not inspectable";
    return text;
}

void print_text(const json& doc) {
    const int self = doc["self_pid"];
    const json& seg = doc["segment"];
    const int64_t key = seg["key"];
    std::printf("segment\n");
    std::printf("  %-16s %lld (0x%08llx)\n", "key", static_cast<long long>(key), static_cast<long long>(key));
    std::printf("  %-16s %d\n", "id", seg["id"].get<int>());
    std::printf("  %-16s %llu bytes, mode %s\n", "size", seg["size"].get<unsigned long long>(),
                seg["mode"].get<std::string>().c_str());
    std::printf("  %-16s %llu processes\n", "attached", seg["attached"].get<unsigned long long>());
    std::printf("  %-16s %s\n", "creator pid", pid_text(seg["creator_pid"], self).c_str());
    std::printf("  %-16s pid %s at %s\n", "last attach", pid_text(seg["last_attach_pid"], self).c_str(),
                format_time(seg["last_attach_time_seconds"]).c_str());
    const json& lib = doc["library_lock"];
    std::printf("\nlibrary lock (key %lld, semaphore set %d): %s\n", lib["key"].get<long long>(),
                lib["set"].get<int>(), info_lock_text(lib, self).c_str());
    const std::string lib_unplaced = info_unplaced_text(lib["waiters_member_unknown"], self);
    if (!lib_unplaced.empty()) std::printf("  blocked on the set: %s\n", lib_unplaced.c_str());

    std::printf("\nsections (key %lld, semaphore set %d, section n uses member n-1)\n",
                doc["section_lock_set_key"].get<long long>(), doc["section_lock_set"].get<int>());
    std::printf("  %3s %8s %8s  %-15s %-24s %-5s %8s %7s\n", "sec", "offset", "size", "name", "role", "lock",
                "last pid", "waiting");
    std::string held;
    for (const json& s : doc["sections"]) {
        const std::string name = s["name"].is_null() ? "-" : s["name"].get<std::string>();
        const std::string role = s["role"].is_null() ? "-" : s["role"].get<std::string>();
        std::printf("  %3d %8lld %8d  %-15s %-24s", s["section"].get<int>(), s["offset"].get<long long>(),
                    s["size"].get<int>(), name.c_str(), role.c_str());
        if (s["lock"].is_null()) {
            std::printf(" -\n");
            continue;
        }
        const json& lock = s["lock"];
        const int waiting = lock["waiting"];
        const std::string state = lock["state"];
        std::printf(" %-5s %8d %7d%s\n", state == "held" ? "HELD" : state.c_str(), lock["last_pid"].get<int>(),
                    waiting, waiting > 0 ? "  <- blocked" : "");
        if (state != "free")
            held += "  section " + std::to_string(s["section"].get<int>()) + ": " + info_lock_text(lock, self) + "\n";
    }
    std::printf("\n%s", held.empty() ? "no section lock is held\n" : ("held locks:\n" + held).c_str());
    const std::string unplaced = info_unplaced_text(doc["section_waiters_member_unknown"], self);
    if (!unplaced.empty()) std::printf("blocked on the section set, member unknown: %s\n", unplaced.c_str());
}

}  // namespace

void show_info() {
    const json doc = collect();
    if (g_options.json) print_json(doc);
    else print_text(doc);
}

void add_info_command(CLI::App& app) {
    app.add_subcommand("info", "Segment, section table and every lock: value, last pid, waiters")
        ->callback([] { set_action(show_info); });
}

}  // namespace shmtool
