// shmtool sdc init / write / export / clear / register / unregister / poll /
// follow: the ring through the library's SDC calls, and (follow
// --no-register, unregister) through locked reads and writes of section 26.
#include <dirent.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include "ipc_state.h"
#include "options.h"
#include "sdc.h"
#include "section_lock.h"

namespace shmtool::sdc {

namespace {

volatile sig_atomic_t g_stop = 0;
void on_stop_signal(int) { g_stop = 1; }

// Ring bytes for a terminal: printable text, tabs and line ends as they are,
// every other byte (escape sequences first of all) as \xNN.
void sdc_write_for_terminal(const uint8_t* bytes, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const uint8_t c = bytes[i];
        if ((c >= 0x20 && c < 0x7f && c != '\\') || c == '\n' || c == '\t') std::putc(c, stdout);
        else std::printf(c == '\\' ? "\\\\" : "\\x%02x", c);
    }
}

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
    int32_t result = 0;
    {
        const WholeCall whole;
        result = Vond_shm_periodic_register_sdc(name.c_str(), &id);
    }
    if (result != 0 || id < 0) {
        const SdcHeader h = read_header();
        std::string names;
        int taken = 0;
        for (int slot = 0; slot < SDC_MAX_APPS; ++slot) {
            if (!registered(h, slot)) continue;
            ++taken;
            names += (names.empty() ? "" : ", ") + ("'" + sdc::name(h, slot) + "'");
        }
        library_failure("Vond_shm_periodic_register_sdc", result,
                        taken == SDC_MAX_APPS
                            ? "all 8 application slots are taken (by " + names +
                                  "); free one with: shmtool sdc unregister NAME"
                            : "cannot register (header unreadable or write failed)");
    }
    return id;
}

namespace {

// The binding's consumer (libshm.hpp) is the tool's one copy of the consumer
// semantics: exact bytes across the ring's end, overruns, clears and moved
// read positions. Its failures, as the tool says them.
[[noreturn]] void sdc_consumer_failure(const libshm::sdc::Consumer* consumer, const libshm::Result& r, int id,
                                       const std::string& name) {
    const std::string meaning = r.meaning();
    if (meaning == libshm::sdc::meaning::kIndexesOutOfRange && consumer != nullptr)
        failure("section 26 has Head/Tail out of range (" + std::to_string(consumer->header().Head) + "/" +
                std::to_string(consumer->header().Tail) + "): the ring cannot be followed");
    if (meaning == libshm::sdc::meaning::kSlotLost)
        failure("SDC application slot " + std::to_string(id) + " no longer holds '" + safe_text(name) +
                "' (unregistered or taken by another name): the follow ends");
    if (meaning == libshm::sdc::meaning::kPositionChanged)
        failure("slot " + std::to_string(id) + "'s read position was changed by another process during the poll: "
                "the bytes it delivered cannot be told (the follow ends)");
    const std::string call = r.call();
    if (call == "Vond_shm_periodic_get_sdc" && r.code() != 0) library_failure(r.call(), long(r.code()), "poll failed");
    if (call == "Vond_shm_memread")
        library_failure(r.call(), long(r.code()), "cannot read section 26 (its lock or the store failed)");
    if (call == "Vond_shm_get_shm" || call == "Vond_shm_lock_shm") lock_failure(r, SHM_SEC_SDC);
    library_failure(r.call(), long(r.code()), meaning);
}

// The consumer of slot `id`, which the header names.
libshm::sdc::Consumer sdc_open_consumer(int id) {
    const SdcHeader h = read_header();
    const char* stored = h.SDCAppTable[id].Name;
    const std::string name(stored, strnlen(stored, SDC_APP_NAME_SIZE - 1));
    libshm::Expected<libshm::sdc::Consumer> consumer = libshm::sdc::Consumer::open(name);
    if (!consumer) sdc_consumer_failure(nullptr, consumer.result(), id, name);
    if (consumer->id() != id)
        failure("application '" + safe_text(name) + "' moved from slot " + std::to_string(id) + " to slot " +
                std::to_string(consumer->id()) + " (unregistered and registered again meanwhile)");
    return std::move(*consumer);
}

// One poll. It moves the slot's read position, so --timeout limits only its
// first take: once begun it runs to its end.
libshm::sdc::Poll sdc_poll(libshm::sdc::Consumer& consumer) {
    libshm::Expected<libshm::sdc::Poll> polled = [&] {
        const WholeCall whole;
        return consumer.poll();
    }();
    if (!polled) sdc_consumer_failure(&consumer, polled.result(), consumer.id(), std::string(consumer.name()));
    return *polled;
}

// Where the writer stands in the byte stream (libshm::sdc::WriterTrack), for
// the follow without a slot; a header whose indexes are out of range ends it.
struct SdcWriterTrack {
    libshm::sdc::WriterTrack track;
    uint64_t end = 0;  // one past the newest byte

    // Takes a new header; true when it shows the ring was cleared since the
    // last one.
    bool advance(const SdcHeader& h) {
        if (!indexes_valid(h))
            failure("section 26 has Head/Tail out of range (" + std::to_string(h.Head) + "/" +
                    std::to_string(h.Tail) + "): the ring cannot be followed");
        const bool cleared = track.advance(h);
        end = track.end();
        return cleared;
    }
    // The oldest byte the ring still holds.
    uint64_t oldest(const SdcHeader& h) const { return track.oldest(h); }
};

void sdc_report_overrun(uint64_t lost) {
    std::fflush(stdout);
    std::fprintf(stderr, "shmtool: overrun: at least %llu bytes were overwritten before they were read\n",
                 static_cast<unsigned long long>(lost));
}

void sdc_report_clear() {
    std::fflush(stdout);
    std::fprintf(stderr, "shmtool: the SDC ring was cleared; following it from its new start\n");
}

void sdc_install_stop_handlers() {
    struct sigaction action {};
    action.sa_handler = on_stop_signal;  // no SA_RESTART: a signal ends the sleep
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // A reader that went away makes the next write fail with EPIPE, which
    // ends the follow through its normal path (and frees its slot), instead
    // of killing the process where it stands.
    signal(SIGPIPE, SIG_IGN);
}

timespec sdc_pause_of(double interval) {
    timespec pause{};
    pause.tv_sec = static_cast<time_t>(interval);
    pause.tv_nsec = static_cast<long>((interval - std::floor(interval)) * 1e9);
    return pause;
}

// Ring bytes of stream positions [from, to) (at most a ring), oldest first,
// in one or two locked reads.
Bytes sdc_read_stream(uint64_t from, uint64_t to) {
    const uint32_t start = uint32_t(from & kIndexMask);
    const uint32_t length = uint32_t(to - from);
    const uint32_t first = std::min<uint32_t>(length, SDC_RING_SIZE - start);
    Bytes bytes = read_section(SHM_SEC_SDC, int32_t(start), int32_t(first));
    if (first < length) {
        const Bytes rest = read_section(SHM_SEC_SDC, 0, int32_t(length - first));
        bytes.insert(bytes.end(), rest.begin(), rest.end());
    }
    return bytes;
}

}  // namespace

uint64_t start_back(uint64_t available, const FollowStart& start) {
    if (start.from_now) return 0;
    if (start.back >= 0) return std::min<uint64_t>(available, uint64_t(start.back));
    return available;
}

bool release_slot(int id, const std::string& name) {
    const libshm::Expected<bool> released = libshm::sdc::release_slot(id, name);
    if (!released) lock_failure(released.result(), SHM_SEC_SDC);
    return *released;
}

void follow_loop(int id, double interval, const FollowStart& start, const StreamSink& sink) {
    sdc_install_stop_handlers();
    const timespec pause = sdc_pause_of(interval);
    libshm::sdc::Consumer consumer = sdc_open_consumer(id);
    for (bool first_round = true;; first_round = false) {
        const bool last_round = g_stop != 0;
        const libshm::sdc::Poll p = sdc_poll(consumer);
        const auto* bytes = reinterpret_cast<const uint8_t*>(p.data.data());
        const size_t n = p.data.size();
        size_t skip = 0;
        if (p.moved) {
            // Another poller, a restore or a repair moved it, or it names no
            // ring index: the consumer read the ring from its oldest byte.
            std::fflush(stdout);
            std::fprintf(stderr,
                         "shmtool: slot %d's read position moved from 0x%x to 0x%x outside this follow; "
                         "following the ring from its oldest byte\n",
                         id, p.expected_position, p.found_position);
        } else if (p.cleared) {
            sdc_report_clear();
        } else {
            if (p.overrun > 0) sdc_report_overrun(p.overrun);
            if (first_round) skip = n - size_t(start_back(n, start));  // --from-now, -c: older bytes dropped
        }
        if (n > skip) sink(p.offset + skip, bytes + skip, n - skip);
        if (last_round) return;
        nanosleep(&pause, nullptr);
    }
}

void follow_header_loop(double interval, const FollowStart& start, const StreamSink& sink) {
    sdc_install_stop_handlers();
    const timespec pause = sdc_pause_of(interval);
    SdcWriterTrack writer;
    SdcHeader h = read_header();
    writer.advance(h);
    uint64_t next = writer.end - start_back(size(h), start);  // the next stream position to deliver
    for (bool first_round = true;; first_round = false) {
        const bool last_round = g_stop != 0;
        if (!first_round) {
            h = read_header();
            if (writer.advance(h)) {
                sdc_report_clear();
                next = writer.oldest(h);
            }
        }
        if (next < writer.oldest(h)) {
            sdc_report_overrun(writer.oldest(h) - next);
            next = writer.oldest(h);
        }
        if (next < writer.end) {
            const uint64_t end = writer.end;
            const Bytes bytes = sdc_read_stream(next, end);
            // The writer may have gone on while the bytes were read: what it
            // has overwritten since (by the header read after them) is dropped.
            const SdcHeader again = read_header();
            uint64_t from = next;
            if (writer.advance(again)) {
                sdc_report_clear();
                next = writer.oldest(again);
                h = again;
                continue;  // the bytes may mix old and new content: read again
            }
            if (const uint64_t valid_from = writer.end > SDC_RING_SIZE ? writer.end - SDC_RING_SIZE : 0;
                valid_from > from) {
                const uint64_t lost = std::min(valid_from, end) - from;
                sdc_report_overrun(lost);
                from += lost;
            }
            if (from < end) sink(from, bytes.data() + (from - next), size_t(end - from));
            next = end;
            h = again;
        }
        if (last_round) return;
        nanosleep(&pause, nullptr);
    }
}

uint32_t write_all(const Bytes& bytes) {
    attach();
    size_t done = 0;
    while (done < bytes.size()) {
        const uint32_t n = static_cast<uint32_t>(std::min<size_t>(bytes.size() - done, SDC_RING_SIZE));
        int32_t result = 0;
        {
            const WholeCall whole;  // data, then header: never abandoned between them
            result = Vond_shm_write_sdc(&n, bytes.data() + done);
        }
        if (result != 0)
            library_failure("Vond_shm_write_sdc", result,
                            "write failed after " + std::to_string(done) + " bytes (header unreadable?)");
        done += n;
    }
    return static_cast<uint32_t>(done);
}

namespace {

void init(bool force) {
    attach();
    // The library restores a valid image over whatever the section holds and
    // says little about a file it passed over: the file is checked here first.
    const std::string problem = image_problem(SDC_RECOVERY_FILE, nullptr);
    if (!problem.empty()) {
        std::fprintf(stderr, "shmtool: no recovery image restored: %s\n", problem.c_str());
    } else if (!force) {
        refuse_restore_over_data(read_header(), SDC_RECOVERY_FILE);
    }
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
        [&] {
            const WholeCall whole;  // a restore copies in chunks: never abandoned part-way
            result = Vond_shm_init_sdc();
        });
    const std::string partly =
        "restoring from " SDC_RECOVERY_FILE " failed part-way: section 26 may now be partly overwritten by the image";
    if (result != 0)
        library_failure("Vond_shm_init_sdc", result,
                        "section 26 header unreadable or not repairable" + (copy_failed ? " (" + partly + ")" : ""));
    if (problem.empty() && !copy_started)
        std::fprintf(stderr, "shmtool: no recovery image restored: the library passed over %s (it changed after "
                             "the check?; -v shows why)\n", SDC_RECOVERY_FILE);
    const SdcHeader h = read_header();
    const std::string how = copy_failed   ? partly + ", header checked"
                            : copy_started ? "restored from " SDC_RECOVERY_FILE
                                           : "header checked (no recovery image restored)";
    print_result({{"restored", copy_started && !copy_failed}, {"restore_failed_part_way", copy_failed},
                  {"state", state(h)}, {"size", size(h)}},
                 "SDC ready: " + how + "; ring " + state(h) + ", " + std::to_string(size(h)) + " bytes held");
}

void write_command(const std::string& path) {
    const Bytes bytes = read_input(path);
    if (bytes.empty()) {
        print_result({{"written", 0}}, "nothing to write (empty input)");
        return;
    }
    const uint32_t written = write_all(bytes);
    print_result({{"written", written}}, "wrote " + std::to_string(written) + " bytes to the SDC ring");
}

bool g_export_force = false;  // binary ring bytes to a terminal, asked for

void export_command(const std::string& path) {
    // Binary to a terminal only when asked for; checked before the store is touched.
    if (path == "-" && !g_options.json) refuse_binary_on_terminal(g_export_force, "--force");
    attach_existing();
    Bytes buffer(SDC_EXPORT_BUFFER_SIZE);
    uint32_t length = 0;
    const int32_t result = Vond_shm_export_sdc(&length, buffer.data());
    if (result != 0) library_failure("Vond_shm_export_sdc", result, "export failed (header unreadable?)");
    emit(path, buffer, length, json::object());
}

void clear() {
    attach();
    int32_t result = 0;
    {
        const WholeCall whole;
        result = Vond_shm_clear_sdc();
    }
    if (result != 0) library_failure("Vond_shm_clear_sdc", result, "clear failed (header unreadable?)");
    print_result({{"cleared", true}}, "SDC ring cleared (applications and their read positions kept)");
}

// The processes whose name is `name` (as /proc/PID/comm holds it, cut at 15
// bytes): the likely owners of an application slot of that name.
std::string sdc_likely_owners(const std::string& name) {
    std::string found;
    DIR* dir = opendir("/proc");
    if (dir == nullptr) return found;
    const std::string wanted = name.substr(0, 15);
    while (const dirent* entry = readdir(dir)) {
        const int pid = std::atoi(entry->d_name);
        if (pid <= 0 || pid == getpid() || process_name(pid) != wanted) continue;
        found += (found.empty() ? "" : ", ") + describe_pid(pid);
    }
    closedir(dir);
    return found;
}

// A registered name belongs to the consumer that polls its slot: its bytes
// are handed out once, so a second poller takes them from it. The tool uses
// an existing registration only when the operator says they are that
// consumer.
[[noreturn]] void sdc_refuse_registered(const std::string& name, int id, const char* command) {
    const std::string owners = sdc_likely_owners(name);
    usage_error("application '" + safe_text(name) + "' is registered (slot " + std::to_string(id) +
                "): its bytes belong to the consumer that polls it" +
                (owners.empty() ? std::string(" (no process of that name runs now)")
                                : " (running: " + owners + ")") +
                ", and " + command + " would take them from it; nothing was changed. Watch the ring with "
                "'shmtool sdc follow --no-register' (or see how far behind it is with 'shmtool sdc status'); "
                "give --as-consumer only if you are that consumer");
}

void poll_command(const std::string& name, bool as_consumer) {
    check_name(name);
    attach_existing();
    const int id = find(read_header(), name);
    if (id < 0) failure("application '" + safe_text(name) + "' is not registered (shmtool sdc register NAME)");
    if (!as_consumer) sdc_refuse_registered(name, id, "a poll");
    libshm::sdc::Consumer consumer = sdc_open_consumer(id);
    const libshm::sdc::Poll p = sdc_poll(consumer);
    if (p.moved) {
        std::fflush(stdout);
        std::fprintf(stderr, "shmtool: slot %d's read position 0x%x named no place in the ring's content; "
                             "the poll delivers the ring from its oldest byte\n", id, p.found_position);
    } else if (p.cleared) {
        sdc_report_clear();
    } else if (p.overrun > 0) {
        sdc_report_overrun(p.overrun);
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(p.data.data());
    const Bytes buffer(bytes, bytes + p.data.size());
    if (!g_options.json && isatty(STDOUT_FILENO) == 1) return sdc_write_for_terminal(buffer.data(), buffer.size());
    emit("-", buffer, buffer.size(), {{"name", safe_text(name)}, {"id", id}});
}

void unregister_command(const std::string& name) {
    check_name(name);
    attach_existing();
    const int id = find(read_header(), name);
    if (id < 0 || !release_slot(id, name))
        failure("application '" + safe_text(name) +
                "' is not registered (shmtool sdc status lists the registered ones)");
    print_result({{"name", safe_text(name)}, {"id", id}, {"unregistered", true}},
                 safe_text(name) + " unregistered (id " + std::to_string(id) + " is free)");
}

// "2026-01-31T12:34:56.789+01:00", local time with its offset, or UTC ("Z").
std::string sdc_iso_time(bool utc) {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm parts{};
    if ((utc ? gmtime_r(&now.tv_sec, &parts) : localtime_r(&now.tv_sec, &parts)) == nullptr) return "?";
    char date[32], zone[8] = "Z";
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    if (!utc && std::strftime(zone, sizeof zone, "%z", &parts) == 5) {
        zone[6] = 0, zone[5] = zone[4], zone[4] = zone[3], zone[3] = ':';  // +hhmm -> +hh:mm
    }
    char text[64];
    std::snprintf(text, sizeof text, "%s.%03ld%s", date, static_cast<long>(now.tv_usec / 1000), zone);
    return text;
}

struct FollowOptions {
    bool no_register = false;
    bool as_consumer = false;  // NAME is registered and the operator is its consumer
    bool keep_slot = false;    // a slot this follow registered stays when it ends
    bool timestamps = false;
    FollowStart start;
};

// Frees the slot a follow registered for itself when the follow ends, however
// it ends (interrupted, its reader gone, an error), as tail -f leaves nothing
// behind. A slot the follow found registered is the consumer's, and stays.
class SdcOwnSlot {
public:
    SdcOwnSlot(int id, std::string name) : id_(id), name_(std::move(name)) {}
    ~SdcOwnSlot() {
        try {
            std::fflush(stdout);
            if (release_slot(id_, name_))
                std::fprintf(stderr, "shmtool: freed application slot %d ('%s')\n", id_, safe_text(name_).c_str());
        } catch (const Error& e) {
            std::fprintf(stderr, "shmtool: slot %d ('%s') is still registered: %s (shmtool sdc unregister %s)\n", id_,
                         safe_text(name_).c_str(), e.message.c_str(), safe_text(name_).c_str());
        }
    }
    SdcOwnSlot(const SdcOwnSlot&) = delete;
    SdcOwnSlot& operator=(const SdcOwnSlot&) = delete;

private:
    int id_;
    std::string name_;
};

void follow_command(const std::string& name, double interval, const FollowOptions& options) {
    bool line_start = true;
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    const StreamSink sink = [&](uint64_t offset, const uint8_t* bytes, size_t n) {
        if (g_options.json) {
            const json doc = {{"schema", 1}, {"time", sdc_iso_time(true)}, {"offset", offset},
                              {"length", n}, {"data_hex", hex_string(bytes, n)}};
            std::printf("%s\n", doc.dump().c_str());
        } else if (options.timestamps) {
            // Each line starts with the arrival time of its first byte.
            const std::string stamp = sdc_iso_time(false) + " ";
            for (size_t i = 0; i < n; ++i) {
                if (line_start) std::fputs(stamp.c_str(), stdout);
                if (terminal) sdc_write_for_terminal(bytes + i, 1);
                else std::putc(bytes[i], stdout);
                line_start = bytes[i] == '\n';
            }
        } else if (terminal) {
            sdc_write_for_terminal(bytes, n);
        } else {
            std::fwrite(bytes, 1, n, stdout);
        }
        check_output();  // a reader that went away ends the follow
    };
    attach_existing();  // following needs a ring that exists
    if (options.no_register) {
        std::fprintf(stderr, "shmtool: following the SDC ring without an application slot; interrupt to stop\n");
        return follow_header_loop(interval, options.start, sink);
    }
    const SdcHeader h = read_header();
    const int found = find(h, name);
    if (found >= 0 && !options.as_consumer) sdc_refuse_registered(name, found, "a follow under its name");
    if (found < 0 && options.as_consumer)
        usage_error("application '" + safe_text(name) + "' is not registered: --as-consumer continues an existing "
                    "registration (without it, follow registers NAME and frees the slot when it ends)");
    // The stop signals end the follow through its normal path from before the
    // slot exists: a signal between registering and following frees it too.
    sdc_install_stop_handlers();
    const int id = found >= 0 ? found : register_app(name);
    std::optional<SdcOwnSlot> own;
    if (found < 0 && !options.keep_slot) own.emplace(id, name);
    std::fprintf(stderr, "shmtool: following the SDC ring as '%s' (id %d%s); interrupt to stop\n",
                 safe_text(name).c_str(), id,
                 found >= 0 ? ", its consumer's slot" : options.keep_slot ? ", kept when the follow ends" : ", freed when the follow ends");
    follow_loop(id, interval, options.start, sink);
}

}  // namespace
}  // namespace shmtool::sdc

namespace shmtool {

void add_sdc_commands(CLI::App& app) {
    static std::string path = "-", name;
    static double interval = 0.5;
    static bool init_force = false;
    static sdc::FollowOptions follow_options;
    using namespace sdc;
    CLI::App* i = app.add_subcommand(
        "init", "Restore section 26 from " SDC_RECOVERY_FILE " when valid and the ring empty, else check and sign it");
    i->add_flag("--force", init_force, "Restore a valid image even over a ring that holds data");
    i->callback([] { set_action([] { init(init_force); }); });

    CLI::App* w = app.add_subcommand("write", "Append the bytes of FILE (or stdin) to the ring");
    w->add_option("FILE", path, "Input file, '-' for stdin (default)");
    w->callback([] { set_action([] { write_command(path); }); });

    CLI::App* e = app.add_subcommand("export", "Copy the whole ring, oldest byte first, to FILE (or stdout)");
    e->add_option("FILE", path, "Output file, '-' for stdout (default)");
    e->add_flag("--force", g_export_force, "Write the binary bytes even when stdout is a terminal");
    e->callback([] { set_action([] { export_command(path); }); });

    app.add_subcommand("clear", "Empty the ring (applications and signature stay)")->callback([] {
        set_action(clear);
    });

    CLI::App* r = app.add_subcommand("register", "Register an application; prints its id");
    r->add_option("NAME", name, "Application name, 1 to 20 bytes")->required();
    r->callback([] {
        set_action([] {
            const int id = register_app(name);
            print_result({{"name", name}, {"id", id}}, name + " has id " + std::to_string(id));
        });
    });

    CLI::App* u = app.add_subcommand("unregister", "Free an application's slot (its name and read position)");
    u->add_option("NAME", name, "A registered application's name")->required();
    u->callback([] { set_action([] { unregister_command(name); }); });

    static bool poll_as_consumer = false;
    CLI::App* p = app.add_subcommand(
        "poll", "As the consumer NAME: print the bytes written since its last poll (they are then taken from it)");
    p->add_option("NAME", name, "A registered application's name")->required();
    p->add_flag("--as-consumer", poll_as_consumer,
                "Required: you are the consumer registered as NAME, and take its unread bytes");
    p->callback([] { set_action([] { poll_command(name, poll_as_consumer); }); });

    CLI::App* f = app.add_subcommand("follow", "Register, then stream new bytes to stdout until interrupted");
    f->add_option("NAME", name, "Application name, 1 to 20 bytes (none with --no-register)");
    add_seconds_option(*f, "-i,--interval", interval, "Seconds between polls, 0.01 to 3600 (default 0.5)", 0.01, 3600);
    f->add_flag("--no-register", follow_options.no_register,
                "Follow through the header alone, taking no application slot");
    CLI::Option* from_now = f->add_flag("--from-now", follow_options.start.from_now,
                                        "Start at the end: print nothing already in the ring");
    f->add_flag("--as-consumer", follow_options.as_consumer,
                "NAME is registered and you are its consumer: continue its registration (its slot stays)");
    f->add_flag("--keep-slot", follow_options.keep_slot, "Keep the slot this follow registers when it ends");
    add_count_option(*f, "-c,--bytes", follow_options.start.back,
                     "Start BYTES bytes back from the end (0 to 524288), as tail -c", 0, SDC_RING_SIZE)
        ->option_text("BYTES")
        ->excludes(from_now);
    f->add_flag("--timestamps", follow_options.timestamps,
                "Start each line with the local time its first byte arrived (ISO 8601)");
    f->callback([] {
        set_action([] {
            if (follow_options.no_register && !name.empty()) usage_error("--no-register takes no NAME");
            if (!follow_options.no_register && name.empty()) usage_error("follow needs a NAME, or --no-register");
            if (!follow_options.no_register) check_name(name);
            follow_command(name, interval, follow_options);
        });
    });
}

}  // namespace shmtool
