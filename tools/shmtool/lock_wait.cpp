// Waiting for a section lock: what the operator is told, and --timeout
// SECONDS / --no-wait.
//
// The library's locked calls wait for a section's lock without limit. This
// tool is the only program that links this file, and it defines semop(): the
// library's calls reach the C library's semop through the dynamic linker,
// which finds the executable's definition first. Every take of a section lock
// that the library makes for this process, in every command (reads, writes,
// the typed accessors of the views, each of the SDC calls' takes and the
// explicit locks), comes through here.
//
// A take that waits more than a second says once on stderr which section it
// waits for and who holds it (with the holder's state when it is stopped),
// with or without a limit. With a limit, the take waits in slices with
// semtimedop() and gives up at the limit: the command ends with status 1.
// A take that fails for any other reason (a set removed under the tool, a
// kernel that refuses the wait) also ends the command with status 1 and the
// kernel's reason: a library call whose lock failed returns a stand-in value
// (0 for most getters), which the tool must never print as the store's.
//
// What the limit covers: a take that timed out changed nothing (the kernel
// applies a semop in whole or not at all, and records no undo for one it did
// not apply), and the process ends inside the library call. That is safe only
// before the call has changed the store, so a call that changes it runs
// inside a WholeCall: its first take has the limit, and once it holds that
// lock it runs to its end, its later takes waiting as long as they must (an
// SDC write takes section 26's lock three or four times: header, data,
// header; giving up between them would leave ring bytes the header does not
// cover). Calls that only read may be abandoned at any take.
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "common.h"
#include "ipc_state.h"
#include "options.h"
#include "section_lock.h"

namespace shmtool {

double g_lock_timeout = -1;  // seconds; below 0: wait without limit

namespace {

double lock_wait_now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string lock_wait_seconds_text(double seconds) {
    char text[32];
    if (seconds == std::floor(seconds) && seconds < 1e9) std::snprintf(text, sizeof text, "%.0f", seconds);
    else std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

// "section 6 (platform), held by pid 812 (fand)" for the member's section.
std::string lock_wait_subject(int sem_id, int member) {
    const int section = member + 1;
    const char* name = section_name(section);
    std::string text = "section " + std::to_string(section);
    if (*name != 0) text += std::string(" (") + name + ")";
    const int holder = semctl(sem_id, member, GETPID);
    if (holder > 0 && semctl(sem_id, member, GETVAL) == 0) text += ", held by " + describe_pid(holder);
    return text;
}

[[noreturn]] void lock_wait_give_up(int sem_id, int member) {
    end_command(kFailed, "timed out after " + lock_wait_seconds_text(g_lock_timeout) + " s waiting for " +
                             lock_wait_subject(sem_id, member));
}

[[noreturn]] void lock_wait_fail(int sem_id, int member, int error) {
    end_command(kFailed, "cannot take the lock of " + lock_wait_subject(sem_id, member) + ": semop: " +
                             std::strerror(error));
}

// One wait of at most `seconds` (or without limit when below 0): 0 when
// taken, else errno (EAGAIN at the limit).
int lock_wait_once(int sem_id, sembuf* op, double seconds) {
    for (;;) {
        timespec limit{};
        if (seconds >= 0) {
            limit.tv_sec = static_cast<time_t>(seconds);
            limit.tv_nsec = static_cast<long>((seconds - static_cast<double>(limit.tv_sec)) * 1e9);
        }
        if (semtimedop(sem_id, op, 1, seconds >= 0 ? &limit : nullptr) == 0) return 0;
        if (errno != EINTR) return errno;
        if (seconds >= 0) return EAGAIN;  // the caller measures what is left
    }
}

bool g_whole_call = false;     // inside a call that changes the store
int g_whole_call_takes = 0;    // takes that call has made so far

// One take of a section lock: 0 when taken; every failure ends the command.
int lock_wait_take(int sem_id, sembuf* op) {
    const int member = op->sem_num;
    const bool limited = g_lock_timeout >= 0 && !(g_whole_call && g_whole_call_takes > 0);
    if (g_whole_call) ++g_whole_call_takes;
    if (limited && g_lock_timeout == 0) {
        sembuf now = *op;
        now.sem_flg = static_cast<short>(now.sem_flg | IPC_NOWAIT);
        const int error = lock_wait_once(sem_id, &now, -1);
        if (error == 0) return 0;
        if (error == EAGAIN) lock_wait_give_up(sem_id, member);
        lock_wait_fail(sem_id, member, error);
    }
    const double start = lock_wait_now();
    bool told = false;
    for (;;) {
        const double waited = lock_wait_now() - start;
        if (limited && waited >= g_lock_timeout) lock_wait_give_up(sem_id, member);
        if (!told && waited >= 1.0) {
            std::fprintf(stderr, "shmtool: waiting for %s\n", lock_wait_subject(sem_id, member).c_str());
            told = true;
        }
        // Wake at the one-second mark while nothing has been said, then at
        // the limit (or never, without one).
        double slice = limited ? g_lock_timeout - waited : -1;
        if (!told && (slice < 0 || 1.0 - waited < slice)) slice = 1.0 - waited;
        if (slice >= 0 && slice < 0.001) slice = 0.001;
        const int error = lock_wait_once(sem_id, op, slice);
        if (error == 0) return 0;
        if (error != EAGAIN) lock_wait_fail(sem_id, member, error);
    }
}

}  // namespace

WholeCall::WholeCall() {
    g_whole_call = true;
    g_whole_call_takes = 0;
}
WholeCall::~WholeCall() { g_whole_call = false; }

// The longest limit: a day. A limit is a number of seconds that semtimedop
// can wait in slices; what is not (nan, inf, 1e300) is refused at parsing.
constexpr double kLockWaitMostSeconds = 86400;

void add_lock_wait_options(CLI::App& app) {
    add_seconds_option(app, "--timeout", g_lock_timeout,
                       "Give up (status 1) after waiting SECONDS (0 to 86400) for a section lock that another process "
                       "holds; a call that has begun changing the store still runs to its end",
                       0, kLockWaitMostSeconds);
    app.add_flag_callback(
        "--no-wait", [] { g_lock_timeout = 0; }, "Give up at once when a section lock is held (--timeout 0)");
}

}  // namespace shmtool

// The take of a section lock (one member of the section set, decreased, and
// allowed to wait) goes through lock_wait_take; every other operation is the
// C library's semop, which is semtimedop without a time limit.
extern "C" __attribute__((visibility("default"))) int semop(int sem_id, sembuf* ops, size_t count) noexcept {
    if (count == 1 && ops[0].sem_op < 0 && (ops[0].sem_flg & IPC_NOWAIT) == 0 &&
        sem_id >= 0 && sem_id == gShmSecSemId)
        return shmtool::lock_wait_take(sem_id, ops);
    return semtimedop(sem_id, ops, count, nullptr);
}
