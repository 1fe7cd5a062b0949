#include "harness.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace test {
namespace {

std::mutex g_mutex;
std::vector<Message> g_messages;

int capture_hook(int32_t level, int32_t module, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_messages.push_back({level, module, text});
    return 0;
}

}  // namespace

void install_hook() {
    (void)SHML_get_per_thread_data();
    SHML_vondprintf = capture_hook;
}

std::vector<Message> messages() {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_messages;
}

void clear_messages() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_messages.clear();
}

int count(int level, std::string_view function, std::string_view tail) {
    int n = 0;
    for (const Message& m : messages()) {
        const std::string fn_mark = "." + std::string(function) + ": ";
        if (m.level == level && m.module == 37 && m.text.find(fn_mark) != std::string::npos &&
            m.text.size() >= tail.size() &&
            m.text.compare(m.text.size() - tail.size(), tail.size(), tail) == 0)
            ++n;
    }
    return n;
}

SyslogCapture::SyslogCapture() {
    unlink("/dev/log");
    fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, "/dev/log");
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::perror("bind /dev/log (run inside tests/sandbox.sh)");
        std::abort();
    }
}

SyslogCapture::~SyslogCapture() {
    close(fd_);
    unlink("/dev/log");
}

std::vector<std::string> SyslogCapture::drain(int wait_ms) {
    std::vector<std::string> out;
    pollfd p{fd_, POLLIN, 0};
    while (poll(&p, 1, wait_ms) == 1) {
        char buf[2048];
        const ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n <= 0) break;
        out.emplace_back(buf, static_cast<size_t>(n));
    }
    return out;
}

pid_t start_child(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

ChildResult wait_child(pid_t pid, int timeout_s) {
    ChildResult result;
    const time_t deadline = time(nullptr) + timeout_s;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) break;
        if (done < 0 && errno != EINTR) return result;
        if (time(nullptr) > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.timed_out = true;
            return result;
        }
        usleep(2000);
    }
    result.exited = WIFEXITED(status);
    result.code = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

ChildResult run_child(const std::function<int()>& body, int timeout_s) {
    return wait_child(start_child(body), timeout_s);
}

std::vector<int> section_semaphore_values() {
    std::vector<int> values;
    for (int member = 0; member < 34; ++member) values.push_back(semctl(gShmSecSemId, member, GETVAL));
    return values;
}

pid_t start_u16_flipper(int32_t section, int32_t offset, uint16_t a, uint16_t b) {
    if (Vond_shm_init_shm() != 0) return -1;
    return start_child([=] {
        auto* field = static_cast<uint8_t*>(gShmData[section]) + offset;
        for (uint32_t i = 0;; ++i) {
            const uint16_t value = i % 2 ? b : a;
            __atomic_store_n(field, static_cast<uint8_t>(value), __ATOMIC_RELAXED);
            __atomic_store_n(field + 1, static_cast<uint8_t>(value >> 8), __ATOMIC_RELAXED);
        }
        return 0;
    });
}

void touch(const char* path) {
    const int fd = open(path, O_CREAT | O_WRONLY, 0644);
    if (fd >= 0) close(fd);
}

void put(int32_t section, int32_t offset, uint8_t byte) {
    ASSERT_EQ(Vond_shm_memwrite(section, &byte, offset, 1), 0);
}

void put_bytes(int32_t section, int32_t offset, const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(Vond_shm_memwrite(section, bytes.data(), offset, static_cast<int32_t>(bytes.size())), 0);
}

void put_le32(int32_t section, int32_t offset, uint32_t value) {
    put_bytes(section, offset, {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                                static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)});
}

int quiet_hook(int32_t, int32_t, const char*, ...) { return 0; }

void attach_quietly() {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    (void)SHML_get_per_thread_data();
    SHML_vondprintf = quiet_hook;
}

std::string locks_left_taken() {
    const struct { int32_t key, count; const char* name; } sets[] = {
        {77777777, 1, "library"}, {77777812, 34, "section"}};
    for (const auto& set : sets) {
        const int id = semget(set.key, set.count, 0);
        if (id < 0) return std::string(set.name) + " semaphore set missing";
        for (int member = 0; member < set.count; ++member) {
            const int value = semctl(id, member, GETVAL);
            if (value != 1)
                return std::string(set.name) + " semaphore " + std::to_string(member) + " left at " +
                       std::to_string(value);
        }
    }
    return {};
}

void break_section_locks() { ASSERT_EQ(semctl(gShmSecSemId, 0, IPC_RMID), 0); }

std::vector<uint8_t> pattern(size_t n, uint32_t seed) {
    std::vector<uint8_t> b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i + seed) * 2654435761u >> 13);
    return b;
}

void write_file(const char* path, const std::vector<uint8_t>& bytes) {
    FILE* f = std::fopen(path, "w");
    ASSERT_NE(f, nullptr) << path;
    ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
    ASSERT_EQ(std::fclose(f), 0);
}

SdcHeader sdc_header() {
    SdcHeader h;
    EXPECT_EQ(Vond_shm_memread(SHM_SEC_SDC, &h, SDC_HEADER_OFFSET, sizeof h), 0);
    return h;
}

void set_sdc_indexes(uint32_t head, uint32_t tail, uint32_t written) {
    put_le32(SHM_SEC_SDC, SDC_HEADER_OFFSET, head);
    put_le32(SHM_SEC_SDC, SDC_HEADER_OFFSET + 4, tail);
    put_le32(SHM_SEC_SDC, SDC_HEADER_OFFSET + 8, written);
}

int rounds(int n) {
#if defined(__SANITIZE_ADDRESS__)
    long percent = 40;
#else
    long percent = 100;
#endif
    if (const char* text = std::getenv("SHM_TEST_ROUNDS")) {
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        if (end != text && *end == 0 && value >= 1 && value <= 100) percent = value;
    }
    return static_cast<int>(std::max(1L, n * percent / 100));
}

}  // namespace test
