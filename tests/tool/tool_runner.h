// Runs shmtool as its own process (through the emulator of a cross build),
// with a time limit on everything.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tool {

struct Result {
    int status = -1;  // exit status; -1 when killed or timed out
    std::string out, err;
};

// Runs the tool with `args`, feeding `input` on stdin; with `out_path`, its
// stdout goes to that file instead of `out`.
Result run(const std::vector<std::string>& args, const std::string& input = "", int timeout_s = 60,
           const std::string& out_path = "");

// A tool process left running, its stdout readable.
struct Running {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
};
Running start(const std::vector<std::string>& args);
// Reads stdout until it contains `wanted` or `timeout_s` passes; all read so far.
std::string read_until(Running& r, const std::string& wanted, int timeout_s = 30);
// Sends `signal` (0: none), then waits; the exit status, or -1 (killed after the time limit).
int stop(Running& r, int signal, int timeout_s = 30);

}  // namespace tool
