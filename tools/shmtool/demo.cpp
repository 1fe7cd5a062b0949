// shmtool demo: the store's main job in one command, on a private store. It
// brings the store up, fills a sample platform record, shows it decoded, runs
// an SDC producer and a following consumer as separate processes, exports
// the ring and ends with the info view.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "options.h"
#include "sdc.h"

namespace shmtool {
namespace {

constexpr const char* kConsumer = "demo-consumer";

void step(const char* title) { std::printf("\n==== %s\n", title); }

void check(const char* call, int32_t result) {
    if (result != 0) library_failure(call, result, "the demo cannot go on");
}

// Waits for a child; one that outlives `timeout_s` is killed.
int wait_for(pid_t pid, int timeout_s) {
    int status = 0;
    for (int waited_ms = 0; waitpid(pid, &status, WNOHANG) == 0; waited_ms += 10) {
        if (waited_ms > timeout_s * 1000) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        usleep(10000);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <typename Body>
pid_t spawn(Body body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) failure("fork failed");
    if (pid > 0) return pid;
    int status = kOk;
    try {
        body();
        check_output();
    } catch (const Error& e) {
        std::fprintf(stderr, "shmtool: %s\n", e.message.c_str());
        status = e.status;
    }
    std::fflush(nullptr);
    _exit(status);
}

void fill_platform() {
    // platform type 2 (modular), system id 61, blade slot 3, controller type 7,
    // generation 4 (15G), chassis 0x0c (ngm bit), post update 0, cpu type 0.
    write_section(SHM_SEC_PLATFORM_ID, 4, {2, 61, 3, 7, 4, 0x0c, 0, 0, 0});
    for (int bit : {1, 5, 6, 13, 22}) check("Vond_set_quorx_progress", Vond_set_quorx_progress(bit, 1));
    check("Vond_set_EOPTime", Vond_set_EOPTime(1, static_cast<uint32_t>(time(nullptr) - 3 * 3600)));
    check("Set_SHM_feature_capabilities", Set_SHM_feature_capabilities(0, 0x0015));
    std::printf("section 6: platform type 2, system id 61, slot 3, generation 4, chassis 0x0c\n"
                "progress bits 1 5 6 13 22 set (the summary bit follows); EOP time 3 hours ago; capability word 0 = "
                "0x0015\n");
}

void print_lines(const char* who, std::string& pending, const uint8_t* bytes, size_t n) {
    pending.append(reinterpret_cast<const char*>(bytes), n);
    for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1))
        std::printf("  %s | %s\n", who, pending.substr(0, end).c_str());
}

void run_sdc(int records, double interval) {
    // A one-byte first write keeps the ring's indexes exact from the start:
    // a first write of more bytes would leave Tail one index past its data.
    sdc::write_all({'\n'});
    const int id = sdc::register_app(kConsumer);
    std::printf("consumer registered as '%s' (id %d); producer writes %d records\n", kConsumer, id, records);

    const pid_t consumer = spawn([&] {
        std::string pending;
        sdc::follow_loop(id, interval / 2, [&](const uint8_t* bytes, size_t n) {
            print_lines("consumer", pending, bytes, n);
        });
    });
    const pid_t producer = spawn([&] {
        const useconds_t pause = static_cast<useconds_t>(interval * 1e6);
        for (int i = 1; i <= records; ++i) {
            const std::string record = "record " + std::to_string(i) + " of " + std::to_string(records) +
                                       ": temperature " + std::to_string(40 + i) + " C\n";
            sdc::write_all(Bytes(record.begin(), record.end()));
            std::printf("  producer | wrote record %d (%zu bytes)\n", i, record.size());
            usleep(pause);
        }
    });
    const int produced = wait_for(producer, 60);
    usleep(static_cast<useconds_t>(interval * 2e6));  // let the consumer catch up
    kill(consumer, SIGINT);
    const int consumed = wait_for(consumer, 30);
    if (produced != 0 || consumed != 0)
        failure("producer or consumer failed (" + std::to_string(produced) + ", " + std::to_string(consumed) + ")");
}

void export_ring() {
    Bytes buffer(SDC_EXPORT_BUFFER_SIZE);
    uint32_t length = 0;
    check("Vond_shm_export_sdc", Vond_shm_export_sdc(&length, buffer.data()));
    std::printf("%u bytes, oldest first (the first is the one-byte start marker):\n", length);
    std::string pending;
    print_lines("export", pending, buffer.data(), length);
}

void demo(int records, double interval) {
    if (!g_options.private_store) enter_private_store();
    g_options.json = false;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // producer and consumer share stdout

    step("bringing the store up (private IPC namespace: the machine's store is not touched)");
    attach();
    check("Vond_shm_init_sdc", Vond_shm_init_sdc());
    std::printf("attached segment id %d, %d sections; SDC section signed\n", gShmId, SHM_SECTION_COUNT);

    step("filling a sample platform record (shmtool poke 6 4 023d0307040c000000)");
    fill_platform();

    step("shmtool platform");
    show_platform();

    step("SDC: a producer process writes, a consumer process follows (shmtool sdc follow)");
    run_sdc(records, interval);

    step("shmtool sdc export");
    export_ring();

    step("shmtool sdc status");
    sdc::print_status(sdc::status_json(sdc::read_header()));

    step("shmtool info");
    show_info();
}

}  // namespace

void add_demo_command(CLI::App& app) {
    static int records = 5;
    static double interval = 0.2;
    CLI::App* d = app.add_subcommand("demo", "Tour of the store's main job on a private store");
    add_count_option(*d, "-n,--records", records, "SDC records the producer writes, 1 to 1000 (default 5)", 1, 1000);
    add_seconds_option(*d, "-i,--interval", interval, "Seconds between records, 0.01 to 10 (default 0.2)", 0.01, 10);
    // A tour for people: its output is the other commands' text, with no
    // document of its own, so --json is refused as watch refuses it.
    d->callback([] {
        if (g_options.json) usage_error("demo has no JSON form (it is a tour; run the commands it shows with --json)");
        set_action([] { demo(records, interval); });
    });
}

}  // namespace shmtool
