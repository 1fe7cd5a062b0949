#include "tool_runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace tool {
namespace {

std::vector<std::string> command(const std::vector<std::string>& args) {
    std::vector<std::string> words;
    std::string all = SHMTOOL_COMMAND;
    for (size_t start = 0;;) {
        const size_t bar = all.find('|', start);
        words.push_back(all.substr(start, bar - start));
        if (bar == std::string::npos) break;
        start = bar + 1;
    }
    words.insert(words.end(), args.begin(), args.end());
    return words;
}

pid_t spawn(const std::vector<std::string>& args, int in[2], int out[2], int err[2],
            const std::string& out_path = "") {
    const std::vector<std::string> words = command(args);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    dup2(in[0], 0);
    dup2(out_path.empty() ? out[1] : open(out_path.c_str(), O_WRONLY), 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    std::vector<char*> argv;
    for (const std::string& w : words) argv.push_back(const_cast<char*>(w.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
}

double now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

int reap(pid_t pid, double deadline) {
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(5000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

Result run(const std::vector<std::string>& args, const std::string& input, int timeout_s,
           const std::string& out_path) {
    int in[2], out[2], err[2];
    if (pipe(in) || pipe(out) || pipe(err)) std::abort();
    const pid_t pid = spawn(args, in, out, err, out_path);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    signal(SIGPIPE, SIG_IGN);
    if (!input.empty() && write(in[1], input.data(), input.size()) < 0) std::abort();
    close(in[1]);
    Result result;
    const double deadline = now() + timeout_s;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    for (int open = 2; open > 0 && now() < deadline;) {
        if (poll(fds, 2, 100) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !fds[i].revents) continue;
            char buf[65536];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, size_t(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    result.status = reap(pid, deadline);
    for (const pollfd& p : fds)
        if (p.fd >= 0) close(p.fd);
    return result;
}

Running start(const std::vector<std::string>& args) {
    int in[2], out[2], err[2];
    if (pipe(in) || pipe(out) || pipe(err)) std::abort();
    Running r;
    r.pid = spawn(args, in, out, err);
    for (int fd : {in[0], in[1], out[1], err[1]}) close(fd);
    r.out = out[0];
    r.err = err[0];
    return r;
}

std::string read_until(Running& r, const std::string& wanted, int timeout_s) {
    std::string text;
    const double deadline = now() + timeout_s;
    pollfd p{r.out, POLLIN, 0};
    while (text.find(wanted) == std::string::npos && now() < deadline) {
        if (poll(&p, 1, 100) <= 0) continue;
        char buf[4096];
        const ssize_t n = read(r.out, buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, size_t(n));
    }
    return text;
}

int stop(Running& r, int signal, int timeout_s) {
    kill(r.pid, signal);
    const int status = reap(r.pid, now() + timeout_s);
    close(r.out);
    close(r.err);
    return status;
}

}  // namespace tool
