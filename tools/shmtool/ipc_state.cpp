#include "ipc_state.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common.h"

namespace shmtool {

std::string process_name(int pid) {
    if (pid <= 0) return "";
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/comm", pid);
    FILE* file = std::fopen(path, "r");
    if (file == nullptr) return "";
    char name[64] = {};
    const bool read = std::fgets(name, sizeof name, file) != nullptr;
    std::fclose(file);
    if (!read) return "";
    name[std::strcspn(name, "\n")] = '\0';
    return name;
}

std::string describe_pid(int pid) {
    const std::string name = process_name(pid);
    if (name.empty()) return "pid " + std::to_string(pid) + " (gone)";
    const std::string note = process_state_note(pid);
    return "pid " + std::to_string(pid) + " (" + safe_text(name) + (note.empty() ? "" : ", " + note) + ")";
}

namespace {

// The small /proc file at `path`, or "" when it cannot be read.
std::string ipc_state_read_small(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "";
    char buffer[512];
    ssize_t n;
    do n = read(fd, buffer, sizeof buffer - 1);
    while (n < 0 && errno == EINTR);
    close(fd);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

bool ipc_state_numeric(const char* name) {
    if (*name == 0) return false;
    for (const char* c = name; *c != 0; ++c)
        if (!std::isdigit(static_cast<unsigned char>(*c))) return false;
    return true;
}

// The numeric entries of a /proc directory.
std::vector<int> ipc_state_ids(const char* path) {
    std::vector<int> ids;
    DIR* dir = opendir(path);
    if (dir == nullptr) return ids;
    while (const dirent* entry = readdir(dir))
        if (ipc_state_numeric(entry->d_name)) ids.push_back(std::atoi(entry->d_name));
    closedir(dir);
    return ids;
}

// A thread's blocked call: the semaphore set, its sembuf array and count, when
// the thread sits in semop or semtimedop (or the ipc multiplexer's forms).
struct IpcStateBlockedCall {
    long sem_id = -1;
    unsigned long ops = 0;
    unsigned long count = 0;
};

bool ipc_state_parse_syscall(const std::string& text, IpcStateBlockedCall& call) {
    // "NR 0xARG1 ... 0xARG6 0xSP 0xPC" while blocked in a call; "running" or
    // "-1 SP PC" otherwise.
    long number = 0;
    unsigned long a[6] = {};
    if (std::sscanf(text.c_str(), "%ld %lx %lx %lx %lx %lx %lx", &number, &a[0], &a[1], &a[2], &a[3], &a[4],
                    &a[5]) != 7)
        return false;
    bool semaphore_call = false;
#ifdef SYS_semop
    semaphore_call = semaphore_call || number == SYS_semop;
#endif
#ifdef SYS_semtimedop
    semaphore_call = semaphore_call || number == SYS_semtimedop;
#endif
#ifdef SYS_semtimedop_time64
    semaphore_call = semaphore_call || number == SYS_semtimedop_time64;
#endif
    if (semaphore_call) {
        call.sem_id = static_cast<long>(static_cast<int>(a[0]));
        call.ops = a[1];
        call.count = a[2];
        return true;
    }
#ifdef SYS_ipc
    // ipc(call, first, second, third, ptr, fifth): SEMOP 1, SEMTIMEDOP 4.
    if (number == SYS_ipc && ((a[0] & 0xffff) == 1 || (a[0] & 0xffff) == 4)) {
        call.sem_id = static_cast<long>(static_cast<int>(a[1]));
        call.ops = a[4];
        call.count = a[2];
        return true;
    }
#endif
    return false;
}

// The members the call's operations decrease, read from the process's memory;
// empty when the memory cannot be read.
std::vector<int> ipc_state_call_members(int pid, const IpcStateBlockedCall& call) {
    std::vector<int> members;
    constexpr unsigned long kMostOps = 64;
    if (call.count == 0 || call.count > kMostOps || call.ops == 0) return members;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/mem", pid);
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return members;
    sembuf ops[kMostOps];
    const size_t bytes = call.count * sizeof(sembuf);
    // The address is the offset in /proc/PID/mem: on a 32-bit system a stack
    // address above 2 GiB (0xbebc0cb0) is a negative 32-bit off_t, which
    // pread refuses (EINVAL), so the 64-bit call reads it.
    const bool read = pread64(fd, ops, bytes, static_cast<off64_t>(call.ops)) == static_cast<ssize_t>(bytes);
    close(fd);
    if (!read) return members;
    for (unsigned long i = 0; i < call.count; ++i) {
        const int member = ops[i].sem_num;
        if (ops[i].sem_op < 0 && std::find(members.begin(), members.end(), member) == members.end())
            members.push_back(member);
    }
    std::sort(members.begin(), members.end());
    return members;
}

}  // namespace

namespace {

char ipc_state_letter(const char* path) {
    // "PID (comm) S ...": the state follows the last ')', since a name may hold one.
    const std::string stat = ipc_state_read_small(path);
    const size_t close_paren = stat.rfind(')');
    if (close_paren == std::string::npos || close_paren + 2 >= stat.size()) return 0;
    return stat[close_paren + 2];
}

}  // namespace

char process_state(int pid) {
    if (pid <= 0) return 0;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", pid);
    const char leader = ipc_state_letter(path);
    if (leader != 'Z') return leader;
    // A leader that ended with pthread_exit is a zombie while its other
    // threads run: the process's state is theirs.
    std::snprintf(path, sizeof path, "/proc/%d/task", pid);
    for (const int tid : ipc_state_ids(path)) {
        std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", pid, tid);
        const char state = ipc_state_letter(path);
        if (state != 0 && state != 'Z' && state != 'X') return state;
    }
    return leader;
}

std::string process_state_note(int pid) {
    switch (process_state(pid)) {
        case 'T':
        case 't': return "stopped (send SIGCONT)";
        case 'Z': return "exited, not yet reaped";
        default: return "";
    }
}

bool process_alive(int pid) {
    if (pid <= 0) return true;  // a process this PID namespace cannot see may be alive
    if (kill(pid, 0) == 0 || errno != ESRCH) {
        // It exists. A process lives while any of its threads does: a leader
        // that ended with pthread_exit shows as a zombie while other threads
        // still run (and may hold the lock), so every task is looked at, and
        // only a process whose tasks are all zombies or dead counts as gone.
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%d/task", pid);
        const std::vector<int> tasks = ipc_state_ids(path);
        if (tasks.empty()) return true;  // unreadable: nothing proves it gone
        for (const int tid : tasks) {
            std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", pid, tid);
            errno = 0;
            const char state = ipc_state_letter(path);
            if (state == 0 && errno == ENOENT) continue;  // the thread ended while the list was read
            if (state != 'Z' && state != 'X') return true;  // running, or unreadable: may be alive
        }
        // Every task is a zombie (or ended meanwhile): the kernel has released
        // the process's semaphore adjustments, and it runs no code any more.
        return false;
    }
    return false;  // ESRCH: no process with this pid in this namespace
}

bool process_gone(int pid) { return pid > 0 && !process_alive(pid); }

std::vector<SemaphoreWaiter> semaphore_waiters(int sem_id) {
    std::vector<SemaphoreWaiter> waiters;
    if (sem_id < 0) return waiters;
    const int self = static_cast<int>(getpid());
    for (const int pid : ipc_state_ids("/proc")) {
        if (pid == self) continue;
        char path[96];
        std::snprintf(path, sizeof path, "/proc/%d/task", pid);
        SemaphoreWaiter waiter;
        bool waits = false;
        for (const int tid : ipc_state_ids(path)) {
            std::snprintf(path, sizeof path, "/proc/%d/task/%d/syscall", pid, tid);
            IpcStateBlockedCall call;
            if (!ipc_state_parse_syscall(ipc_state_read_small(path), call) || call.sem_id != sem_id) continue;
            waits = true;
            for (const int member : ipc_state_call_members(pid, call))
                if (std::find(waiter.members.begin(), waiter.members.end(), member) == waiter.members.end())
                    waiter.members.push_back(member);
        }
        if (!waits) continue;
        waiter.pid = pid;
        waiter.name = process_name(pid);
        std::sort(waiter.members.begin(), waiter.members.end());
        waiters.push_back(std::move(waiter));
    }
    return waiters;
}

}  // namespace shmtool
