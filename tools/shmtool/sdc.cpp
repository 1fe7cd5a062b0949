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

size_t poll_once(int id, Bytes& buffer) {
    const uint32_t before = last(read_header(), id);
    uint32_t length = 0;
    int32_t result = 0;
    {
        const WholeCall whole;  // it moves the slot's read position last
        result = Vond_shm_periodic_get_sdc(&length, buffer.data(), static_cast<uint32_t>(id));
    }
    if (result != 0) library_failure("Vond_shm_periodic_get_sdc", result, "poll failed");
    if (length == 0) return 0;
    // After the writer went round the ring's end, the library counts only the
    // bytes from the ring's start, while the buffer holds the older bytes up
    // to the end ahead of them. How far the read position moved is the number
    // of bytes actually delivered.
    const uint32_t moved = (last(read_header(), id) - before) & kIndexMask;
    return moved >= length && moved <= SDC_POLL_BUFFER_SIZE ? moved : length;
}

namespace {

// Where the writer stands in the byte stream, followed from one header to the
// next: `end` counts the bytes written since the ring was last seen empty (or
// cleared), as far as the headers tell. The header keeps only ring indexes,
// so a writer that went round the ring a whole number of times more between
// two headers looks the same as one that did not: `end` is a lower bound.
struct SdcWriterTrack {
    bool seen = false;
    bool was_full = false;
    uint64_t end = 0;  // one past the newest byte

    // Takes a new header; true when it shows the ring was cleared since the
    // last one (it went back to empty, or Tail went back while filling).
    bool advance(const SdcHeader& h) {
        if (!indexes_valid(h))
            failure("section 26 has Head/Tail out of range (" + std::to_string(h.Head) + "/" +
                    std::to_string(h.Tail) + "): the ring cannot be followed");
        bool cleared = false;
        uint64_t next = 0;
        switch (shm::sdc::ring_state(h.Head, h.Tail, h.Written)) {
            case shm::sdc::RingState::kEmpty:
                cleared = seen && end != 0;
                break;
            case shm::sdc::RingState::kFilling:
                next = uint64_t(h.Tail) + 1;  // not wrapped yet: indexes 0 to Tail
                cleared = seen && (was_full || next < end);
                break;
            case shm::sdc::RingState::kFull: {
                // The smallest count at or past the last one (and a whole ring
                // at least) whose ring index is that of Tail + 1.
                const uint64_t base = std::max<uint64_t>(seen ? end : 0, SDC_RING_SIZE);
                const uint64_t index = (uint64_t(h.Tail) + 1) & kIndexMask;
                next = base + ((index - base) & kIndexMask);
                break;
            }
        }
        seen = true;
        was_full = shm::sdc::is_full(h.Head, h.Tail);
        end = next;
        return cleared;
    }
    // The oldest byte the ring still holds.
    uint64_t oldest(const SdcHeader& h) const { return end - size(h); }
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

namespace {

// The slot's 25 bytes in section 26 (bytes of the whole section, in place).
uint8_t* sdc_slot_at(uint8_t* section, int id) {
    return section + SDC_HEADER_OFFSET + offsetof(SdcHeader, SDCAppTable) + size_t(id) * sizeof(SdcAppEntry);
}

bool sdc_slot_holds(const uint8_t* slot, const std::string& name) {
    return slot[0] != 0 && std::strncmp(name.c_str(), reinterpret_cast<const char*>(slot), SDC_APP_NAME_SIZE) == 0;
}

// After a clear (or a read position moved by someone else), the library's
// next poll would compare the new Tail with a position in the old content
// and hand over old bytes. Instead, under section 26's lock: the ring's whole
// content goes to the sink, as the header describes it, and the slot's
// position moves to Tail, the point where the next poll continues.
void sdc_resync(int id, const std::string& name, SdcWriterTrack& writer, const StreamSink& sink) {
    Bytes bytes;
    uint64_t from = 0;
    {
        SectionLock lock(SHM_SEC_SDC);
        SdcHeader h;
        std::memcpy(&h, lock.bytes() + SDC_HEADER_OFFSET, sizeof h);
        writer.advance(h);
        uint8_t* slot = sdc_slot_at(lock.bytes(), id);
        if (!sdc_slot_holds(slot, name))
            failure("SDC application slot " + std::to_string(id) + " no longer holds '" + name +
                    "' (unregistered or taken by another name): the follow ends");
        from = writer.oldest(h);
        const uint32_t count = size(h);
        const uint32_t oldest = shm::sdc::ring_state(h.Head, h.Tail, h.Written) == shm::sdc::RingState::kFull ? h.Head : 0;
        const uint32_t first = std::min<uint32_t>(count, SDC_RING_SIZE - oldest);
        bytes.assign(lock.bytes() + oldest, lock.bytes() + oldest + first);
        bytes.insert(bytes.end(), lock.bytes(), lock.bytes() + (count - first));
        const uint32_t tail = h.Tail;
        std::memcpy(slot + SDC_APP_NAME_SIZE, &tail, sizeof tail);  // little-endian, as the section
    }
    if (!bytes.empty()) sink(from, bytes.data(), bytes.size());
}

}  // namespace

bool release_slot(int id, const std::string& name) {
    SectionLock lock(SHM_SEC_SDC);
    uint8_t* slot = sdc_slot_at(lock.bytes(), id);
    if (!sdc_slot_holds(slot, name)) return false;
    std::memset(slot, 0, sizeof(SdcAppEntry));
    return true;
}

void follow_loop(int id, double interval, const FollowStart& start, const StreamSink& sink) {
    sdc_install_stop_handlers();
    const timespec pause = sdc_pause_of(interval);
    Bytes buffer(SDC_POLL_BUFFER_SIZE);
    SdcWriterTrack writer;
    const SdcHeader first = read_header();
    const std::string own_name = name(first, id);
    writer.advance(first);
    // The stream position after the last byte the slot has been given. On an
    // empty ring a new slot's iLast (0) already stands for index 0, which it
    // is never given: its first byte is that at index 1.
    uint64_t delivered =
        ring_empty(first) ? 1 : writer.end - (last_in_range(first, id) ? behind(first, id) : 0);
    // Where this follow left the slot. An empty ring's consumers stand at its
    // Head, 0: a slot elsewhere kept a position from before a clear.
    uint32_t expected_last = ring_empty(first) ? 0 : last(first, id);
    bool first_round = true;
    for (;;) {
        const bool last_round = g_stop != 0;
        const SdcHeader before = read_header();
        const bool cleared = writer.advance(before);
        // A position this follow did not leave there (another poller, a
        // restore, a repair), or one outside what the ring holds, would make
        // the library's poll deliver bytes that are not next in the stream.
        const uint32_t now_last = last(before, id);
        const bool moved = now_last != expected_last;
        const bool outside = !last_in_range(before, id) ||
                             (shm::sdc::ring_state(before.Head, before.Tail, before.Written) !=
                                  shm::sdc::RingState::kFull &&
                              now_last > before.Tail && !ring_empty(before));
        if (cleared || moved || outside) {
            std::fflush(stdout);
            if (cleared) sdc_report_clear();
            else
                std::fprintf(stderr,
                             "shmtool: slot %d's read position moved from 0x%x to 0x%x outside this follow; "
                             "following the ring from its oldest byte\n",
                             id, expected_last, now_last);
            sdc_resync(id, own_name, writer, sink);
            const SdcHeader after = read_header();
            expected_last = last(after, id);
            delivered = writer.end == 0 ? 1 : writer.end;  // an empty ring: the next byte is at index 1
            first_round = false;
            if (last_round) return;
            nanosleep(&pause, nullptr);
            continue;
        }
        const size_t n = poll_once(id, buffer);
        const SdcHeader after = read_header();
        if (writer.advance(after)) {
            // Cleared between the header read and the poll: the poll's bytes
            // may be old content. They are dropped and the ring read afresh.
            sdc_report_clear();
            sdc_resync(id, own_name, writer, sink);
            expected_last = last(read_header(), id);
            delivered = writer.end == 0 ? 1 : writer.end;  // an empty ring: the next byte is at index 1
            first_round = false;
            if (last_round) return;
            nanosleep(&pause, nullptr);
            continue;
        }
        expected_last = last(after, id);
        // Where the library's poll ended: its Tail, now the slot's iLast.
        const uint64_t poll_end = writer.end - shm::sdc::ring_distance(expected_last, after.Tail);
        if (poll_end > delivered + n) sdc_report_overrun(poll_end - delivered - n);
        size_t skip = 0;
        if (first_round) skip = n - size_t(start_back(n, start));  // --from-now, -n: older bytes dropped
        const uint64_t offset = poll_end - (n - skip);
        if (n > skip) sink(offset, buffer.data() + skip, n - skip);
        // An empty ring: the slot's next byte is again that at index 1.
        delivered = ring_empty(after) ? 1 : poll_end;
        first_round = false;
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
    Bytes buffer(SDC_POLL_BUFFER_SIZE);
    const size_t n = poll_once(id, buffer);
    if (!g_options.json && isatty(STDOUT_FILENO) == 1) return sdc_write_for_terminal(buffer.data(), n);
    emit("-", buffer, n, {{"name", safe_text(name)}, {"id", id}});
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
