// shmtool watch: a section's decoded view (platform, time, caps, power, sdc
// status) or a hex dump, drawn again every interval, with what changed since
// the last draw marked: reverse video on a terminal that shows escape
// sequences, else (not a terminal, TERM unset or "dumb") a line of '^' under
// the changed characters (or bytes, in a hex dump).
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "common.h"
#include "options.h"
#include "sdc.h"

namespace shmtool {
namespace {

constexpr int64_t kWatchMaxCount = 1000000000;

struct WatchArgs {
    std::string section, offset = "0", length;
    double interval = 1;
    int64_t count = 0;  // 0: until interrupted
    bool hex = false;
};

volatile sig_atomic_t g_watch_stop = 0;
void watch_on_signal(int) { g_watch_stop = 1; }

// What a decoded view prints, caught as text.
std::string watch_capture(void (*show)()) {
    char* text = nullptr;
    size_t length = 0;
    FILE* memory = open_memstream(&text, &length);
    if (memory == nullptr) failure("cannot capture the view: out of memory");
    FILE* saved = stdout;
    stdout = memory;
    try {
        show();
    } catch (...) {
        std::fclose(memory);
        std::free(text);
        stdout = saved;
        throw;
    }
    std::fclose(memory);
    stdout = saved;
    std::string result(text, length);
    std::free(text);
    return result;
}

void watch_show_sdc() { sdc::print_status(sdc::status_json(sdc::read_header())); }

using WatchView = void (*)();
WatchView watch_view_of(int section) {
    switch (section) {
        case SHM_SEC_PLATFORM_ID: return show_platform;
        case SHM_SEC_TIME: return show_time;
        case SHM_SEC_FEATURE_CAPS: return show_caps;
        case SHM_SEC_POWER: return show_power;
        case SHM_SEC_SDC: return watch_show_sdc;
        default: return nullptr;
    }
}

// Clearing the screen and reverse video need a terminal that shows escape
// sequences: not a file or pipe, and not one whose TERM is unset or "dumb".
bool watch_escapes_shown() {
    const char* term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && term != nullptr && *term != 0 && std::string(term) != "dumb";
}

const char* const kWatchOn = "\033[7m";
const char* const kWatchOff = "\033[0m";

// Text: each character that differs from the same place of the last draw.
void watch_print_text(const std::string& now, const std::string& before, bool first, bool escapes) {
    std::vector<std::string> old_lines;
    for (size_t start = 0; start < before.size();) {
        const size_t end = before.find('\n', start);
        old_lines.push_back(before.substr(start, end == std::string::npos ? std::string::npos : end - start));
        start = end == std::string::npos ? before.size() : end + 1;
    }
    size_t index = 0;
    for (size_t start = 0; start < now.size(); ++index) {
        const size_t end = now.find('\n', start);
        const std::string line = now.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? now.size() : end + 1;
        const std::string old = index < old_lines.size() ? old_lines[index] : "";
        std::string marks(line.size(), ' ');
        bool changed = false;
        for (size_t i = 0; i < line.size(); ++i)
            if (!first && (i >= old.size() || old[i] != line[i])) marks[i] = '^', changed = true;
        if (!escapes) {
            std::printf("%s\n", line.c_str());
            if (changed) {
                while (!marks.empty() && marks.back() == ' ') marks.pop_back();
                std::printf("%s\n", marks.c_str());
            }
            continue;
        }
        for (size_t i = 0; i < line.size(); ++i) {
            if (marks[i] == '^') std::fputs(kWatchOn, stdout);
            std::putchar(line[i]);
            if (marks[i] == '^') std::fputs(kWatchOff, stdout);
        }
        std::putchar('\n');
    }
}

// The dump's layout (print_hexdump), with changed bytes marked.
void watch_print_hex(const Bytes& now, const Bytes& before, uint64_t base, bool escapes) {
    for (size_t row = 0; row < now.size(); row += 16) {
        std::string marks(10 + 16 * 3 + 1, ' ');
        bool changed = false;
        std::printf("%08llx ", static_cast<unsigned long long>(base + row));
        for (size_t i = row; i < row + 16; ++i) {
            if (i % 8 == 0) std::putchar(' ');
            if (i >= now.size()) {
                std::printf("   ");
                continue;
            }
            const bool differs = i < before.size() && before[i] != now[i];
            if (differs) {
                const size_t column = 9 + 1 + (i - row >= 8 ? 1 : 0) + 3 * (i - row);
                marks[column] = marks[column + 1] = '^';
                changed = true;
            }
            if (differs && escapes) std::printf("%s%02x%s ", kWatchOn, now[i], kWatchOff);
            else std::printf("%02x ", now[i]);
        }
        std::printf(" |");
        for (size_t i = row; i < row + 16 && i < now.size(); ++i)
            std::putchar(now[i] >= 0x20 && now[i] < 0x7f ? now[i] : '.');
        std::printf("|\n");
        if (changed && !escapes) {
            while (marks.back() == ' ') marks.pop_back();
            std::printf("%s\n", marks.c_str());
        }
    }
}

void watch(const WatchArgs& args) {
    if (g_options.json) usage_error("watch has no JSON form (dump --json and the views' --json have)");
    const int section = parse_section(args.section);
    const WatchView view = args.hex ? nullptr : watch_view_of(section);
    const int64_t size = section_size(section);
    const int64_t offset = parse_number(args.offset, "OFFSET", 0, size - 1);
    const int64_t length = args.length.empty() ? std::min<int64_t>(size - offset, 256)
                                               : parse_number(args.length, "LENGTH", 1, size - offset);
    if (view != nullptr && (args.offset != "0" || !args.length.empty()))
        usage_error("OFFSET and LENGTH are for the hex dump: add --hex");

    struct sigaction action {};
    action.sa_handler = watch_on_signal;  // no SA_RESTART: the sleep ends at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    const bool escapes = watch_escapes_shown();
    std::string last_text;
    Bytes last_bytes;
    const char* name = section_name(section);
    for (int64_t draw = 1; !g_watch_stop; ++draw) {
        std::string text;
        Bytes bytes;
        if (view != nullptr) text = watch_capture(view);
        else bytes = read_section(section, static_cast<int32_t>(offset), static_cast<int32_t>(length));
        if (escapes) std::fputs("\033[H\033[2J", stdout);
        const time_t now = std::time(nullptr);
        std::printf("watch section %d%s%s%s, every %g s, draw %lld at %s\n", section, *name ? " (" : "", name,
                    *name ? ")" : "", args.interval, static_cast<long long>(draw), format_time(now).c_str());
        if (view != nullptr) watch_print_text(text, last_text, draw == 1, escapes);
        else watch_print_hex(bytes, draw == 1 ? bytes : last_bytes, static_cast<uint64_t>(offset), escapes);
        check_output();
        last_text = std::move(text);
        last_bytes = std::move(bytes);
        if (args.count > 0 && draw >= args.count) break;
        timespec pause{};
        pause.tv_sec = static_cast<time_t>(args.interval);
        pause.tv_nsec = static_cast<long>((args.interval - static_cast<double>(pause.tv_sec)) * 1e9);
        while (!g_watch_stop && nanosleep(&pause, &pause) != 0 && errno == EINTR) {
        }
    }
}

}  // namespace

void add_watch_command(CLI::App& app) {
    static WatchArgs args;
    CLI::App* w = app.add_subcommand(
        "watch", "Draw a section's view (platform, time, caps, power, sdc) or hex dump again every interval");
    w->add_option("SECTION", args.section, "Section number 1-33 or name")->required();
    w->add_option("OFFSET", args.offset, "Hex dump: byte offset in the section, default 0");
    w->add_option("LENGTH", args.length, "Hex dump: bytes to show; default 256 or up to the section's end");
    add_seconds_option(*w, "-i,--interval", args.interval, "Seconds between draws, 0.01 to 86400 (default 1)", 0.01,
                       86400);
    // No -n: across the tool, -n counts records or lines (demo -n, tail -n).
    add_count_option(*w, "--count", args.count, "Stop after COUNT draws (default: until interrupted)", 1,
                     kWatchMaxCount);
    w->add_flag("-x,--hex", args.hex, "A hex dump even of a section with a decoded view");
    w->callback([] { set_action([] { watch(args); }); });
}

}  // namespace shmtool
