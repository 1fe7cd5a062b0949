// shmtool sdc init / write / export / clear / register / poll / follow: the
// ring through the library's SDC calls.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "sdc.h"

namespace shmtool::sdc {

namespace {

volatile sig_atomic_t g_stop = 0;
void on_stop_signal(int) { g_stop = 1; }

void emit(const std::string& path, const Bytes& bytes, size_t length, const json& meta) {
    if (g_options.json && path == "-") {
        json doc = meta;
        doc["length"] = length;
        doc["hex"] = hex_string(bytes.data(), length);
        print_json(doc);
        return;
    }
    write_output(path, bytes.data(), length);
    if (path != "-") {
        json doc = meta;
        doc["length"] = length;
        doc["file"] = path;
        if (g_options.json) print_json(doc);
        else std::printf("%zu bytes to %s\n", length, path.c_str());
    }
}

}  // namespace

int register_app(const std::string& name) {
    check_name(name);
    attach();
    int32_t id = -1;
    const int32_t result = Vond_shm_periodic_register_sdc(name.c_str(), &id);
    if (result != 0 || id < 0) {
        const SdcHeader h = read_header();
        int taken = 0;
        for (int slot = 0; slot < SDC_MAX_APPS; ++slot) taken += registered(h, slot);
        library_failure("Vond_shm_periodic_register_sdc", result,
                        taken == SDC_MAX_APPS ? "all 8 application slots are taken"
                                              : "cannot register (header unreadable or write failed)");
    }
    return id;
}

size_t poll_once(int id, Bytes& buffer) {
    const uint32_t before = last(read_header(), id);
    uint32_t length = 0;
    const int32_t result = Vond_shm_periodic_get_sdc(&length, buffer.data(), static_cast<uint32_t>(id));
    if (result != 0) library_failure("Vond_shm_periodic_get_sdc", result, "poll failed");
    if (length == 0) return 0;
    // After the writer went round the ring's end, the library counts only the
    // bytes from the ring's start, while the buffer holds the older bytes up
    // to the end ahead of them. How far the read position moved is the number
    // of bytes actually delivered.
    const uint32_t moved = (last(read_header(), id) - before) & kIndexMask;
    return moved >= length && moved <= SDC_POLL_BUFFER_SIZE ? moved : length;
}

void follow_loop(int id, double interval, const Sink& sink) {
    struct sigaction action {};
    action.sa_handler = on_stop_signal;  // no SA_RESTART: a signal ends the sleep
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    Bytes buffer(SDC_POLL_BUFFER_SIZE);
    timespec pause{};
    pause.tv_sec = static_cast<time_t>(interval);
    pause.tv_nsec = static_cast<long>((interval - std::floor(interval)) * 1e9);
    for (;;) {
        const bool last_round = g_stop != 0;
        if (const size_t n = poll_once(id, buffer); n > 0) sink(buffer.data(), n);
        if (last_round) return;
        nanosleep(&pause, nullptr);
    }
}

uint32_t write_all(const Bytes& bytes) {
    attach();
    size_t done = 0;
    while (done < bytes.size()) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(bytes.size() - done, SDC_RING_SIZE));
        const int32_t result = Vond_shm_write_sdc(&n, bytes.data() + done);
        if (result != 0)
            library_failure("Vond_shm_write_sdc", result,
                            "write failed after " + std::to_string(done) + " bytes (header unreadable?)");
        done += n;
    }
    return static_cast<uint32_t>(done);
}

namespace {

void init() {
    attach();
    // Only the library's messages tell what became of the recovery file: a
    // copy that started, and whether it stopped part-way (a short read or a
    // failed write), after which the library checks the header and returns 0
    // over a section that may hold the image's first chunks and older bytes
    // after them.
    bool copy_started = false, copy_failed = false;
    int32_t result = 0;
    listen_to_library(
        [&](int, const std::string& text) {
            copy_started = copy_started || text.find("Read file and copy to shm") != std::string::npos;
            copy_failed = copy_failed || text.find("Restore SDC Shm failed") != std::string::npos;
        },
        [&] { result = Vond_shm_init_sdc(); });
    const std::string partly =
        "restoring from " SDC_RECOVERY_FILE " failed part-way: section 26 may now be partly overwritten by the image";
    if (result != 0)
        library_failure("Vond_shm_init_sdc", result,
                        "section 26 header unreadable or not repairable" + (copy_failed ? " (" + partly + ")" : ""));
    const SdcHeader h = read_header();
    std::printf("SDC ready: %s; ring %s, %u bytes held\n",
                copy_failed   ? (partly + ", header checked").c_str()
                : copy_started ? "restored from " SDC_RECOVERY_FILE
                               : "header checked (no recovery image restored)",
                state(h), size(h));
}

void write_command(const std::string& path) {
    const Bytes bytes = read_input(path);
    if (bytes.empty()) {
        std::printf("nothing to write (empty input)\n");
        return;
    }
    const uint32_t written = write_all(bytes);
    std::printf("wrote %u bytes to the SDC ring\n", written);
}

void export_command(const std::string& path) {
    attach();
    Bytes buffer(SDC_EXPORT_BUFFER_SIZE);
    uint32_t length = 0;
    const int32_t result = Vond_shm_export_sdc(&length, buffer.data());
    if (result != 0) library_failure("Vond_shm_export_sdc", result, "export failed (header unreadable?)");
    emit(path, buffer, length, json::object());
}

void clear() {
    attach();
    const int32_t result = Vond_shm_clear_sdc();
    if (result != 0) library_failure("Vond_shm_clear_sdc", result, "clear failed (header unreadable?)");
    std::printf("SDC ring cleared (applications and their read positions kept)\n");
}

void poll_command(const std::string& name) {
    check_name(name);
    const int id = find(read_header(), name);
    if (id < 0) failure("application '" + name + "' is not registered (shmtool sdc register " + name + ")");
    Bytes buffer(SDC_POLL_BUFFER_SIZE);
    const size_t n = poll_once(id, buffer);
    emit("-", buffer, n, {{"name", name}, {"id", id}});
}

void follow_command(const std::string& name, double interval) {
    const int id = register_app(name);
    std::fprintf(stderr, "shmtool: following the SDC ring as '%s' (id %d); interrupt to stop\n", name.c_str(), id);
    follow_loop(id, interval, [](const uint8_t* bytes, size_t n) {
        std::fwrite(bytes, 1, n, stdout);
        check_output();  // a reader that went away ends the follow
    });
}

}  // namespace
}  // namespace shmtool::sdc

namespace shmtool {

void add_sdc_commands(CLI::App& app) {
    static std::string path = "-", name;
    static double interval = 0.5;
    using namespace sdc;
    app.add_subcommand("init", "Restore section 26 from " SDC_RECOVERY_FILE " when valid, else check and sign it")
        ->callback([] { set_action(init); });

    CLI::App* w = app.add_subcommand("write", "Append the bytes of FILE (or stdin) to the ring");
    w->add_option("FILE", path, "Input file, '-' for stdin (default)");
    w->callback([] { set_action([] { write_command(path); }); });

    CLI::App* e = app.add_subcommand("export", "Copy the whole ring, oldest byte first, to FILE (or stdout)");
    e->add_option("FILE", path, "Output file, '-' for stdout (default)");
    e->callback([] { set_action([] { export_command(path); }); });

    app.add_subcommand("clear", "Empty the ring (applications and signature stay)")->callback([] {
        set_action(clear);
    });

    CLI::App* r = app.add_subcommand("register", "Register an application; prints its id");
    r->add_option("NAME", name, "Application name, 1 to 20 bytes")->required();
    r->callback([] {
        set_action([] { std::printf("%s has id %d\n", name.c_str(), register_app(name)); });
    });

    CLI::App* p = app.add_subcommand("poll", "Print the bytes written since the application's last poll");
    p->add_option("NAME", name, "A registered application's name")->required();
    p->callback([] { set_action([] { poll_command(name); }); });

    CLI::App* f = app.add_subcommand("follow", "Register, then stream new bytes to stdout until interrupted");
    f->add_option("NAME", name, "Application name, 1 to 20 bytes")->required();
    f->add_option("-i,--interval", interval, "Seconds between polls (default 0.5)")
        ->check(CLI::Range(0.01, 3600.0));
    f->callback([] { set_action([] { follow_command(name, interval); }); });
}

}  // namespace shmtool
