// Shared plumbing of shmtool: options, errors, argument parsing, output.
#pragma once

#include <sys/sem.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "libshm.h"

namespace shmtool {

using json = nlohmann::ordered_json;
using Bytes = std::vector<uint8_t>;

struct Options {
    bool json = false;
    bool verbose = false;
    bool private_store = false;
};
extern Options g_options;

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;  // the library (or the system) reported a failure
constexpr int kUsage = 2;   // bad command line or bad input; nothing was changed

// Thrown by commands; main prints "shmtool: message" and exits with status.
struct Error {
    int status;
    std::string message;
};
[[noreturn]] void usage_error(const std::string& message);
[[noreturn]] void failure(const std::string& message);
// A library call that returned `result`: what it means, and exit status 1.
[[noreturn]] void library_failure(const char* call, long result, const std::string& meaning);

// The action a subcommand selected; main runs it after parsing and after the
// global options have taken effect.
using Action = std::function<void()>;
void set_action(Action action);
void run_action();

// Command groups, each in its own file.
void add_info_command(CLI::App& app);
void add_dump_commands(CLI::App& app);
void add_view_commands(CLI::App& app);
void add_fru_dimm_commands(CLI::App& app);
// The sdc group: `sdc_image.cpp` adds status and save, `sdc.cpp` the rest.
void add_sdc_image_commands(CLI::App& sdc);
void add_sdc_commands(CLI::App& sdc);
void add_demo_command(CLI::App& app);
// The info and platform commands' output, for the demo.
void show_info();
void show_platform();

// ------------------------------------------------------------------ store
// The store's System V objects, as the library makes them.
constexpr key_t kSegmentKey = 77777779;
constexpr key_t kLibrarySemKey = 77777777;
constexpr key_t kSectionSemKey = 77777812;
// semctl's fourth argument, which callers define.
union SemArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};
// Attaches through the library (creating the store if no process has yet);
// failure ends the command with status 1.
void attach();
// For read-only commands (info, dump, the views, sdc status/export, doctor):
// attaches only a store that exists, and never creates one. Without a store
// it ends the command with status 1 and "no store: segment key 77777779 does
// not exist", and leaves no IPC object behind; a segment without one of its
// semaphore sets is named the same way.
void attach_existing();
// Locked read / write of a whole range; failure ends the command with status 1.
Bytes read_section(int section, int32_t offset, int32_t length);
// --unlocked (dump, snapshot save): a post-mortem read for a store whose locks
// are stuck. The segment is found by its key (never created) and attached
// read-only, no semaphore is touched and the library is not called, so bytes
// being written meanwhile may be torn; the first call says so on stderr.
// Without a store: status 1, "no store: ...", as attach_existing().
Bytes read_section_unlocked(int section, int32_t offset, int32_t length);
void write_section(int section, int32_t offset, const Bytes& bytes);
int32_t section_size(int section);
int64_t section_offset(int section);  // from the start of the segment
const char* section_role(int section);
const char* section_name(int section);  // short name accepted on the command line, or ""

// --------------------------------------------------------------- parsing
// SECTION: a number 1 to 33 or a short name (platform, sdc, ...).
int parse_section(const std::string& text);
// Decimal, or hexadecimal with 0x; within [min, max].
int64_t parse_number(const std::string& text, const char* what, int64_t min, int64_t max);
// Pairs of hex digits, like 0a1b2c.
Bytes parse_hex(const std::string& text);

// ---------------------------------------------------------------- output
// Everything a command prints goes to stdout, which route_output() (the first
// thing main does) points at a stream that remembers why the first write to
// standard output failed. check_output() flushes it and, if any write failed,
// now or earlier, ends the command with status 1 and "cannot write output:
// REASON"; finish_output() does the same and then closes standard output.
void route_output();
void check_output();
void finish_output();
// Prints one document with "schema": 1 as its first field. JSON conventions:
// times are ISO 8601 in UTC (iso_time), modes octal strings (mode_string).
// Untrusted strings go in through safe_text, which makes them valid UTF-8; a
// string that still is not is printed with U+FFFD in place of its bad bytes
// rather than failing the document.
void print_json(const json& document);
// What a command that changes the store did: `document` under --json, else
// the line `text`.
void print_result(const json& document, const std::string& text);
std::string iso_time(int64_t seconds);   // "2026-11-23T12:00:00Z"; JSON null is the caller's for "never"
std::string mode_string(unsigned mode);  // "0666"
// Binary on standard output: refused (status 2) when it is a terminal unless
// `asked` (--raw, --force); the caller's flag is named in the message.
void refuse_binary_on_terminal(bool asked, const char* flag = "--raw");
std::string hex_string(const uint8_t* bytes, size_t length);
// Classic 16 bytes per line dump, addresses starting at `base`.
void print_hexdump(const uint8_t* bytes, size_t length, uint64_t base);
// A fixed-size text field of the store (a name, a signature): its bytes up to
// the first NUL, at most `max`, through safe_text.
std::string printable(const char* text, size_t max);
// Bytes from outside the tool (process names, file names, stored strings) as
// text that is safe on a terminal and valid UTF-8 in JSON: printable ASCII
// and well-formed UTF-8 stay as they are, a backslash becomes "\\", every
// control byte (C0, DEL, C1) and every byte of an ill-formed sequence becomes
// "\xNN".
std::string safe_text(std::string_view bytes);
std::string format_time(int64_t seconds);  // "YYYY-MM-DD HH:MM:SS" local, or "never" for 0
std::string yes_no(bool value);

// ---------------------------------------------------- global option effects
void install_log_hook();          // -v: library messages to stderr with levels
// Runs `body` with the library's messages (formatted, with their levels) also
// handed to `listener`; -v still prints them. The hook in place before is put
// back afterwards.
using MessageListener = std::function<void(int level, const std::string& text)>;
void listen_to_library(const MessageListener& listener, const std::function<void()>& body);
void enter_private_store();       // --private: fresh IPC namespace, or status 1

// The end of every command: its output is checked once (finish_output); a
// write that failed at any point (a full disk, /dev/full, a closed pipe's
// EPIPE with SIGPIPE ignored) turns status 0 into 1 with the reason, said
// after the command's own message. Returns the status to exit with.
int finish_command(int status);
// Ends the command now: "shmtool: MESSAGE" on stderr (none when empty),
// after what it printed so far, then finish_command. A quiet status 1 is how
// diff and cmp say "different"; a lock wait that gives up inside a library
// call ends here too.
[[noreturn]] void end_command(int status, const std::string& message = "");

// A file the tool reads but did not write (a snapshot, a recovery image):
// opened without blocking and without becoming the controlling terminal,
// kept only when the open descriptor is a regular file (type and size from
// its fstat, so a path renamed meanwhile cannot pass the checks as one file
// and be read as another), and read in exact ranges. No file can make the
// tool wait, nor allocate more than its caller decides from size().
class UntrustedFile {
public:
    UntrustedFile() = default;
    UntrustedFile(const UntrustedFile&) = delete;
    UntrustedFile& operator=(const UntrustedFile&) = delete;
    ~UntrustedFile();
    // "" once `path` ("-": standard input) is open as a regular file, else
    // why not, naming the path through safe_text: "P does not exist",
    // "cannot open P: REASON", "P is not a regular file (a FIFO)".
    std::string open(const std::string& path);
    const std::string& shown() const { return shown_; }  // the path, safe to print
    int64_t size() const { return size_; }               // at the open
    // Exactly `length` bytes at `offset`; false on an error or a short read.
    bool read(void* to, size_t length, int64_t offset) const;
    // Nothing can be read at `length`: the file has not grown past it.
    bool ends_at(int64_t length) const;

private:
    int fd_ = -1;
    int64_t size_ = 0;
    std::string shown_;
};

// Reading a whole file (or stdin for "-") and writing one (or stdout for "-";
// its errors are reported by check_output, like every other output's).
Bytes read_input(const std::string& path);
void write_output(const std::string& path, const uint8_t* bytes, size_t length);

// ------------------------------ waiting with a limit, watch, snapshots (wts)
// --timeout / --no-wait: seconds a section lock take may wait (lock_wait.cpp);
// below 0, without limit.
extern double g_lock_timeout;
void add_lock_wait_options(CLI::App& app);
// --snapshot FILE (snapshot.cpp): the read path's source switch. While active,
// read_section, section_size and section_offset read the file, and attach()
// loads it into a private store for the library's typed accessors.
extern std::string g_snapshot_path;
bool snapshot_active();
Bytes snapshot_read(int section, int32_t offset, int32_t length);
int32_t snapshot_section_size(int section);
int64_t snapshot_section_offset(int section);
void snapshot_attach();
void add_snapshot_option(CLI::App& app);
void add_snapshot_commands(CLI::App& app);
// After parsing: a command that writes refuses --snapshot (status 2).
void check_snapshot_command(const CLI::App& app);
void add_watch_command(CLI::App& app);
// The time, caps and power views' output, for watch (views.cpp).
void show_time();
void show_caps();
void show_power();

// ---------------------------------------------- doctor (doc): find and repair
void add_doctor_command(CLI::App& app);

}  // namespace shmtool
