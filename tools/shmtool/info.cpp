// shmtool info: the segment as the kernel reports it, the section table and
// every section lock. It reads the semaphores with semctl and never takes a
// section lock itself, so it works while another process holds one.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common.h"

namespace shmtool {
namespace {

json semaphore(int set, int member) {
    const int value = semctl(set, member, GETVAL);
    if (value < 0) failure("semctl GETVAL on set " + std::to_string(set) + ": " + std::strerror(errno));
    const char* state = value == 1 ? "free" : value == 0 ? "held" : "odd";
    return {{"value", value},
            {"state", state},
            {"last_pid", semctl(set, member, GETPID)},
            {"waiting", semctl(set, member, GETNCNT)}};
}

json collect() {
    attach();
    shmid_ds seg{};
    if (shmctl(gShmId, IPC_STAT, &seg) != 0) failure(std::string("shmctl IPC_STAT: ") + std::strerror(errno));
    json doc;
    doc["self_pid"] = static_cast<int>(getpid());
    doc["segment"] = {{"key", static_cast<int64_t>(seg.shm_perm.__key)},
                      {"id", gShmId},
                      {"size", static_cast<uint64_t>(seg.shm_segsz)},
                      {"mode", static_cast<unsigned>(seg.shm_perm.mode & 0777)},
                      {"attached", static_cast<uint64_t>(seg.shm_nattch)},
                      {"creator_pid", static_cast<int>(seg.shm_cpid)},
                      {"last_attach_pid", static_cast<int>(seg.shm_lpid)},
                      {"last_attach_time", static_cast<int64_t>(seg.shm_atime)}};
    doc["library_lock"] = semaphore(gShmLibSemId, 0);
    doc["library_lock"]["set"] = gShmLibSemId;
    doc["section_lock_set"] = gShmSecSemId;
    json sections = json::array();
    for (int section = 0; section < SHM_SECTION_COUNT; ++section) {
        json entry = {{"section", section},
                      {"name", section_name(section)},
                      {"role", section_role(section)},
                      {"offset", section_offset(section)},
                      {"size", section_size(section)}};
        // Section n is guarded by member n - 1; the empty section 0 has none.
        entry["lock"] = section == 0 ? json(nullptr) : semaphore(gShmSecSemId, section - 1);
        sections.push_back(entry);
    }
    doc["sections"] = sections;
    return doc;
}

std::string pid_text(const json& pid, int self) {
    const int value = pid.get<int>();
    return std::to_string(value) + (value == self ? " (this process)" : "");
}

void print_text(const json& doc) {
    const int self = doc["self_pid"];
    const json& seg = doc["segment"];
    const int64_t key = seg["key"];
    std::printf("segment\n");
    std::printf("  %-16s %lld (0x%08llx)\n", "key", static_cast<long long>(key), static_cast<long long>(key));
    std::printf("  %-16s %d\n", "id", seg["id"].get<int>());
    std::printf("  %-16s %llu bytes, mode %03o\n", "size", seg["size"].get<unsigned long long>(),
                seg["mode"].get<unsigned>());
    std::printf("  %-16s %llu processes (this one included)\n", "attached", seg["attached"].get<unsigned long long>());
    std::printf("  %-16s %s\n", "creator pid", pid_text(seg["creator_pid"], self).c_str());
    std::printf("  %-16s pid %s at %s\n", "last attach", pid_text(seg["last_attach_pid"], self).c_str(),
                format_time(seg["last_attach_time"]).c_str());
    const json& lib = doc["library_lock"];
    std::printf("\nlibrary lock (semaphore set %d): %s, last pid %s, %d waiting\n", lib["set"].get<int>(),
                lib["state"].get<std::string>().c_str(), pid_text(lib["last_pid"], self).c_str(),
                lib["waiting"].get<int>());

    std::printf("\nsections (semaphore set %d, section n uses member n-1)\n", doc["section_lock_set"].get<int>());
    std::printf("  %3s %8s %8s  %-15s %-24s %-5s %8s %7s\n", "sec", "offset", "size", "name", "role", "lock",
                "last pid", "waiting");
    std::string held;
    for (const json& s : doc["sections"]) {
        const std::string name = s["name"];
        std::printf("  %3d %8lld %8d  %-15s %-24s", s["section"].get<int>(), s["offset"].get<long long>(),
                    s["size"].get<int>(), name.empty() ? "-" : name.c_str(), s["role"].get<std::string>().c_str());
        if (s["lock"].is_null()) {
            std::printf(" -\n");
            continue;
        }
        const json& lock = s["lock"];
        const int waiting = lock["waiting"];
        const std::string state = lock["state"];
        std::printf(" %-5s %8d %7d%s\n", state == "held" ? "HELD" : state.c_str(), lock["last_pid"].get<int>(),
                    waiting, waiting > 0 ? "  <- blocked" : "");
        if (state != "free") {
            held += "  section " + std::to_string(s["section"].get<int>()) + ": " + state + " by pid " +
                    pid_text(lock["last_pid"], self) + ", " + std::to_string(waiting) + " waiting\n";
        }
    }
    std::printf("\n%s", held.empty() ? "no section lock is held\n" : ("held locks:\n" + held).c_str());
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
