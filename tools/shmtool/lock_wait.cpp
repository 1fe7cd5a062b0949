// Waiting for a section lock with a limit: --timeout SECONDS and --no-wait.
//
// The library's locked calls wait for a section's lock without limit. This
// tool is the only program that links this file, and it defines semop(): the
// library's calls reach the C library's semop through the dynamic linker,
// which finds the executable's definition first. Every take of a section lock
// that the library makes for this process, in every command (reads, writes,
// the typed accessors of the views and each of the SDC calls' takes), comes
// through here. Without a limit it is the plain blocking system call. With
// one, the take waits in slices with semtimedop(): after a second it says once
// on stderr which section it waits for and who holds it; at the limit it
// gives up, and the command ends with status 1.
//
// A take that timed out changed nothing: the kernel applies a semop in whole
// or not at all, and records no undo for an operation it did not apply. The
// command gives up inside the library call, before the library has touched
// the section, and ends the process there: no locks taken earlier by this
// command are held at that point (the library takes one section lock at a
// time and releases it before it returns), and any the process did hold
// would be released by their SEM_UNDO at exit.
//
// So the limit covers each take on its own. An SDC call takes section 26's
// lock three times; each take has the whole limit, so a call that meets a
// holder more than once may wait up to three limits in all.
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "common.h"
#include "ipc_state.h"

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
    if (holder > 0) text += ", held by " + describe_pid(holder);
    return text;
}

[[noreturn]] void lock_wait_give_up(int sem_id, int member) {
    const std::string message = "timed out after " + lock_wait_seconds_text(g_lock_timeout) + " s waiting for " +
                                lock_wait_subject(sem_id, member);
    // What the command printed so far comes first, as main would have it.
    std::fflush(stdout);
    std::fprintf(stderr, "shmtool: %s\n", message.c_str());
    try {
        finish_output();
    } catch (const Error& e) {
        std::fprintf(stderr, "shmtool: %s\n", e.message.c_str());
    }
    std::exit(kFailed);
}

// One take of a section lock with the limit: 0 when taken, -1 with errno for
// a failure other than the limit (which does not return).
int lock_wait_take(int sem_id, sembuf* op) {
    const int member = op->sem_num;
    if (g_lock_timeout <= 0) {
        sembuf now = *op;
        now.sem_flg = static_cast<short>(now.sem_flg | IPC_NOWAIT);
        for (;;) {
            if (semtimedop(sem_id, &now, 1, nullptr) == 0) return 0;
            if (errno == EINTR) continue;
            if (errno == EAGAIN) lock_wait_give_up(sem_id, member);
            return -1;
        }
    }
    const double start = lock_wait_now();
    bool told = false;
    for (;;) {
        const double waited = lock_wait_now() - start;
        if (waited >= g_lock_timeout) lock_wait_give_up(sem_id, member);
        if (!told && waited >= 1.0) {
            std::fprintf(stderr, "shmtool: waiting for %s\n", lock_wait_subject(sem_id, member).c_str());
            told = true;
        }
        // Wake at the one-second mark while nothing has been said, else at the limit.
        double slice = g_lock_timeout - waited;
        if (!told && 1.0 - waited < slice) slice = 1.0 - waited;
        if (slice < 0.001) slice = 0.001;
        timespec limit{};
        limit.tv_sec = static_cast<time_t>(slice);
        limit.tv_nsec = static_cast<long>((slice - static_cast<double>(limit.tv_sec)) * 1e9);
        if (semtimedop(sem_id, op, 1, &limit) == 0) return 0;
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

}  // namespace

void add_lock_wait_options(CLI::App& app) {
    app.add_option("--timeout", g_lock_timeout,
                   "Give up (status 1) after waiting SECONDS for a section lock that another process holds")
        ->option_text("SECONDS")
        ->check(CLI::NonNegativeNumber);
    app.add_flag_callback(
        "--no-wait", [] { g_lock_timeout = 0; }, "Give up at once when a section lock is held (--timeout 0)");
}

}  // namespace shmtool

// The take of a section lock (one member of the section set, decreased, and
// allowed to wait) is limited while a limit is set; every other operation is
// the C library's semop, which is semtimedop without a time limit.
extern "C" __attribute__((visibility("default"))) int semop(int sem_id, sembuf* ops, size_t count) noexcept {
    if (shmtool::g_lock_timeout >= 0 && count == 1 && ops[0].sem_op < 0 && (ops[0].sem_flg & IPC_NOWAIT) == 0 &&
        sem_id >= 0 && sem_id == gShmSecSemId)
        return shmtool::lock_wait_take(sem_id, ops);
    return semtimedop(sem_id, ops, count, nullptr);
}
