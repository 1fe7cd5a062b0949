// The processes behind the store's System V objects, read from /proc without
// attaching and without taking any lock: who holds a lock, who waits for it.
#pragma once

#include <string>
#include <vector>

namespace shmtool {

// The process's name (/proc/PID/comm), or "" when there is no such process.
std::string process_name(int pid);
// "pid 812 (fand)", or "pid 812 (gone)" when no such process exists.
std::string describe_pid(int pid);
// The process's state letter from /proc/PID/stat ('R', 'S', 'D', 'T', 't',
// 'Z', ...), or 0 when it cannot be read.
char process_state(int pid);
// What an operator should know of that state: "stopped (send SIGCONT)" for a
// stopped or traced process, "" for one that runs or sleeps.
std::string process_state_note(int pid);
// Whether the process may be alive. Only evidence that cannot belong to a live
// process makes it gone: kill() finds no such pid in this namespace, or every
// one of its threads (/proc/PID/task) is a zombie. A pid of 0 or less (a
// process outside this PID namespace, as the kernel shows it) and a process
// whose /proc entries cannot be read count as alive.
bool process_alive(int pid);
// The opposite for a real pid: true only when the process is provably gone.
bool process_gone(int pid);

// A process blocked in semop or semtimedop on one semaphore set.
struct SemaphoreWaiter {
    int pid = 0;                // the process (thread group)
    std::string name;           // its name, from /proc/PID/comm
    std::vector<int> members;   // the members its blocked call decreases; empty when unknown
};
// Every process of this PID namespace that this user may inspect with one
// thread blocked in semop/semtimedop on `sem_id`, from /proc/PID/task/TID/
// syscall (call number and arguments) and /proc/PID/mem (the sembuf array the
// call was given). A process whose /proc files cannot be read is not listed,
// so the kernel's GETNCNT count may be larger than the list.
std::vector<SemaphoreWaiter> semaphore_waiters(int sem_id);

}  // namespace shmtool
