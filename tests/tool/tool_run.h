// Running shmtool as an operator does, for the tool's test programs: its own
// process (through the cross build's emulator where there is one), stdin from
// /dev/null, stdout and stderr to files the test reads back.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "harness.h"

namespace tool {

using json = nlohmann::json;
using Args = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;
// Arrays, so every file of the program sees one address (run() compares it).
inline constexpr char kOut[] = "/tmp/tool.out";
inline constexpr char kErr[] = "/tmp/tool.err";

inline std::string slurp(const char* path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

// Whether the armhf build runs on the ARM kernel's guest (tests/arm-system),
// where the emulator's words in the commands reach a stand-in and every
// program runs natively.
inline bool on_arm_kernel() { return getenv("SHM_TEST_NATIVE") != nullptr; }

// The tool (after the emulator's words, if any) with `args`: stdin from
// /dev/null, stdout to `out`, stderr to kErr; with `environment`
// ("NAME=value ...") added to its environment, and its stdout through the
// shell command `pipe_to` (whose own output goes to `out`) when one is given.
// On the ARM kernel the tool starts without the emulator's stand-in.
inline pid_t start_in(const Args& args, const std::string& environment, const std::string& pipe_to = "",
                      const char* out = kOut) {
    std::string command = SHMTOOL_COMMAND;
    if (on_arm_kernel()) command.erase(0, command.rfind('|') + 1);
    std::string line = std::string(pipe_to.empty() ? "exec " : "") + (environment.empty() ? "" : "env " + environment + " ") +
                       "'" + std::regex_replace(command, std::regex("\\|"), "' '") + "'";
    for (const std::string& arg : args) line += " '" + arg + "'";
    line += " </dev/null 2>" + std::string(kErr) + (pipe_to.empty() ? "" : " | " + pipe_to) + " >" + out;
    return test::start_child([&] { return execl("/bin/sh", "sh", "-c", line.c_str(), nullptr); });
}
inline pid_t start(const Args& args, const char* out = kOut) { return start_in(args, "", "", out); }

// Whether the tool runs under a user-mode emulator, where a preloaded library
// would meet the emulator first and /proc shows the host's call numbers. On
// an ARM kernel the emulator's word is a stand-in that runs the program
// itself, and the guest says so (SHM_TEST_NATIVE).
inline bool emulated() {
    return std::string(SHMTOOL_COMMAND).find('|') != std::string::npos && !on_arm_kernel();
}

// A pseudo-terminal for the tool's stdout (run(args, terminal.path())):
// what the tool wrote reaches read_all(). The other side stays open, so the
// terminal does not hang up between runs.
class Terminal {
public:
    Terminal() {
        master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
        EXPECT_TRUE(master_ >= 0 && grantpt(master_) == 0 && unlockpt(master_) == 0);
        path_ = ptsname(master_);
        slave_ = open(path_.c_str(), O_RDWR | O_NOCTTY);
    }
    ~Terminal() {
        close(slave_);
        close(master_);
    }
    const char* path() const { return path_.c_str(); }
    std::string read_all() const {
        std::string out;
        char buffer[4096];
        for (ssize_t n; (n = read(master_, buffer, sizeof buffer)) > 0;) out.append(buffer, size_t(n));
        return out;
    }

private:
    int master_ = -1, slave_ = -1;
    std::string path_;
};

struct Result { int status; std::string out, err; };  // status -1: killed, or at the time limit
inline Result run(const Args& args, const char* out = kOut) {
    const test::ChildResult c = test::wait_child(start(args, out), 100);
    return {c.exited ? c.code : -1, out == kOut ? slurp(kOut) : "", slurp(kErr)};
}

// The running tool's stdout once it holds `size` bytes, or after a minute.
inline std::string output_of_size(size_t size) {
    std::string out;
    for (int i = 0; i < 6000 && (out = slurp(kOut)).size() < size; ++i) usleep(10000);
    return out;
}

inline Bytes section(int32_t sec) {
    Bytes b(size_t(gShmSecSize[sec]));
    EXPECT_EQ(Vond_shm_memread(sec, b.data(), 0, int32_t(b.size())), 0);
    return b;
}

inline void sdc_write(const std::string& text) {
    const uint32_t n = uint32_t(text.size());
    ASSERT_EQ(Vond_shm_write_sdc(&n, text.data()), 0);
}

}  // namespace tool
