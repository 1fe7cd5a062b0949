// Helpers shared by the benchmark files.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>

namespace bench {

inline uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000u + uint64_t(ts.tv_nsec);
}

// Runs body() in a forked child; the child's exit code is body's result.
template <typename Body>
pid_t fork_child(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// True when the child exited with code 0.
inline bool child_ok(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Entry points of the cases that live in their own files.
void register_stream_benchmarks();
void register_peer_benchmarks();
// Handles "--first-attach=..." in a re-executed child; returns -1 when argv is
// not such a call, else the exit code.
int first_attach_child(int argc, char** argv);

}  // namespace bench
