// The alternative a team would otherwise pick for sharing one value: a D-Bus
// property get. The benchmark starts its own dbus-daemon on a socket in a
// temporary directory with its own configuration, a server process that
// answers the property "SystemId" with Vond_get_system_id(), and times the
// client's sd_bus_get_property_trivial round trip (client, daemon, server,
// daemon, client). The store getter answering the same question is
// "store/get_system_id".
//
// Without sd-bus at build time, or without dbus-daemon at run time, the case
// says so and is skipped.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "bench.h"
#include "libshm.h"

#ifdef SHM_BENCH_HAVE_SDBUS
#include <signal.h>
#include <systemd/sd-bus.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr char kService[] = "org.libshm.Bench";
constexpr char kPath[] = "/org/libshm/Bench";
constexpr char kInterface[] = "org.libshm.Bench";

struct Bus {
    std::string dir;
    std::string address;
    pid_t daemon = -1;
    pid_t server = -1;
};

int get_system_id(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                  sd_bus_error*) {
    const uint8_t id = uint8_t(Vond_get_system_id());
    return sd_bus_message_append(reply, "y", id);
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("SystemId", "y", get_system_id, 0, 0),
    SD_BUS_VTABLE_END,
};

sd_bus* connect(const std::string& address) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

// The server: owns the name, then answers until killed. Writes one byte to
// `ready` once the name is owned.
int serve(const std::string& address, int ready) {
    sd_bus* bus = connect(address);
    sd_bus_slot* slot = nullptr;
    if (bus == nullptr || sd_bus_add_object_vtable(bus, &slot, kPath, kInterface, kVtable, nullptr) < 0 ||
        sd_bus_request_name(bus, kService, 0) < 0)
        return 1;
    const char byte = 1;
    if (write(ready, &byte, 1) != 1) return 1;
    close(ready);
    for (;;) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0) return 1;
        if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) return 1;
    }
}

bool start_bus(Bus& bus, std::string& why) {
    if (access("/usr/bin/dbus-daemon", X_OK) != 0) {
        why = "dbus-daemon not installed (apt-get install dbus-daemon)";
        return false;
    }
    char dir[] = "/tmp/shm-bench-bus.XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        why = "mkdtemp";
        return false;
    }
    bus.dir = dir;
    const std::string config = bus.dir + "/bus.conf";
    if (FILE* file = std::fopen(config.c_str(), "w")) {
        std::fprintf(file,
                     "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                     " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                     "<busconfig>\n  <type>session</type>\n"
                     "  <listen>unix:path=%s/socket</listen>\n"
                     "  <auth>EXTERNAL</auth>\n"
                     "  <policy context=\"default\">\n"
                     "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                     "    <allow eavesdrop=\"true\"/>\n    <allow own=\"*\"/>\n"
                     "  </policy>\n</busconfig>\n",
                     bus.dir.c_str());
        std::fclose(file);
    } else {
        why = "cannot write the bus configuration";
        return false;
    }
    int address_pipe[2];
    if (pipe(address_pipe) != 0) {
        why = "pipe";
        return false;
    }
    bus.daemon = fork();
    if (bus.daemon == 0) {
        close(address_pipe[0]);
        const std::string config_arg = "--config-file=" + config;
        const std::string print_arg = "--print-address=" + std::to_string(address_pipe[1]);
        execl("/usr/bin/dbus-daemon", "dbus-daemon", config_arg.c_str(), "--nofork", "--nopidfile",
              "--nosyslog", print_arg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(address_pipe[1]);
    char text[512];
    const ssize_t got = read(address_pipe[0], text, sizeof text - 1);
    close(address_pipe[0]);
    if (got <= 0) {
        why = "dbus-daemon did not start";
        return false;
    }
    text[got] = '\0';
    bus.address.assign(text, std::strcspn(text, "\n"));

    int ready[2];
    if (pipe(ready) != 0) {
        why = "pipe";
        return false;
    }
    bus.server = bench::fork_child([&]() {
        close(ready[0]);
        return serve(bus.address, ready[1]);
    });
    close(ready[1]);
    char byte = 0;
    const bool up = read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!up) why = "the bus server did not start";
    return up;
}

void stop_bus(Bus& bus) {
    for (pid_t pid : {bus.server, bus.daemon}) {
        if (pid > 0) {
            kill(pid, SIGTERM);
            (void)bench::child_ok(pid);
        }
    }
    if (!bus.dir.empty()) {
        unlink((bus.dir + "/socket").c_str());
        unlink((bus.dir + "/bus.conf").c_str());
        rmdir(bus.dir.c_str());
    }
}

void peer_dbus_get(benchmark::State& state) {
    Bus bus;
    std::string why;
    if (!start_bus(bus, why)) {
        std::fprintf(stderr, "peer/dbus_get skipped: %s\n", why.c_str());
        stop_bus(bus);
        state.SkipWithError(("skipped: " + why).c_str());
        return;
    }
    sd_bus* client = connect(bus.address);
    if (client == nullptr) {
        stop_bus(bus);
        state.SkipWithError("skipped: client cannot connect");
        return;
    }
    const uint8_t expected = uint8_t(Vond_get_system_id());
    for (auto _ : state) {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        uint8_t value = 0;
        const int r = sd_bus_get_property_trivial(client, kService, kPath, kInterface, "SystemId",
                                                  &error, 'y', &value);
        sd_bus_error_free(&error);
        if (r < 0 || value != expected) {
            state.SkipWithError("property get failed");
            break;
        }
    }
    sd_bus_flush_close_unref(client);
    stop_bus(bus);
}

}  // namespace

void bench::register_peer_benchmarks() {
    benchmark::RegisterBenchmark("peer/dbus_get", peer_dbus_get)->Unit(benchmark::kMicrosecond);
}

#else

void bench::register_peer_benchmarks() {
    std::fprintf(stderr, "peer/dbus_get not built: libsystemd-dev was missing at configure time\n");
}

#endif
