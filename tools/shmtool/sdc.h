// The SDC section as the tool reads it: header, ring state and application
// slots, from one locked read of the header.
#pragma once

#include <string>

#include "common.h"

namespace shmtool::sdc {

static_assert(sizeof(SdcHeader) == SDC_HEADER_SIZE, "SdcHeader must be the section's 220-byte header");
static_assert(sizeof(SdcAppEntry) == 25, "SdcAppEntry must be the section's 25-byte slot");

constexpr uint32_t kIndexMask = SDC_RING_SIZE - 1;

SdcHeader read_header();
bool indexes_valid(const SdcHeader& h);
bool signature_valid(const SdcHeader& h);
// "invalid" (indexes out of range), "full", "empty" or "filling".
const char* state(const SdcHeader& h);
// The count an export would return (0 for an invalid header).
uint32_t size(const SdcHeader& h);
// Bytes the application in `slot` has not yet been given (meaningless when
// its read position is out of range, see last_in_range).
uint32_t behind(const SdcHeader& h, int slot);
// The slot's iLast names a ring index (below SDC_RING_SIZE).
bool last_in_range(const SdcHeader& h, int slot);
bool registered(const SdcHeader& h, int slot);
std::string name(const SdcHeader& h, int slot);
uint32_t last(const SdcHeader& h, int slot);
// The slot whose name equals `name` as the library compares names, or -1.
int find(const SdcHeader& h, const std::string& name);
// Application names: 1 to 20 bytes (the library stores 20 and compares 21,
// so a longer name would never match its own slot again).
void check_name(const std::string& name);

// Registers `name` through the library; its slot, or status 1.
int register_app(const std::string& name);
// Frees slot `id` (zeroes its 25 bytes) if it still holds `name`, compared
// and written under section 26's lock; false when it holds something else.
bool release_slot(int id, const std::string& name);
// Where a follow starts: by default at what the consumer has not been given
// (a registered slot) or at the oldest byte held (no slot); `from_now` at the
// end, `back` >= 0 that many bytes before the end (at most what is there).
struct FollowStart {
    bool from_now = false;
    int64_t back = -1;
};
// How many of `available` bytes before the end a follow starts with.
uint64_t start_back(uint64_t available, const FollowStart& start);
// Receives each delivery with its stream position: the count of bytes
// written since the ring was last seen empty, as far as headers tell.
using StreamSink = std::function<void(uint64_t offset, const uint8_t*, size_t)>;
// Polls slot `id` every `interval` seconds and hands new bytes to `sink`
// until SIGINT or SIGTERM arrives; a last poll follows the signal. The polls
// are those of libshm::sdc::Consumer (libshm.hpp); overruns (bytes
// overwritten before the poll reached them), clears and moved read positions
// are reported on stderr.
void follow_loop(int id, double interval, const FollowStart& start, const StreamSink& sink);
using Sink = std::function<void(const uint8_t*, size_t)>;
inline void follow_loop(int id, double interval, const Sink& sink) {
    follow_loop(id, interval, FollowStart{}, [&sink](uint64_t, const uint8_t* bytes, size_t n) { sink(bytes, n); });
}
// The same through locked reads of the header and the ring alone, with a
// read position of its own: no application slot is taken or moved.
void follow_header_loop(double interval, const FollowStart& start, const StreamSink& sink);
uint32_t write_all(const Bytes& bytes);  // in ring-sized pieces; the count written

// Head = Tail = Written = 0: the only state a restore may overwrite unasked.
bool ring_empty(const SdcHeader& h);
// Why the file at `path` is not a recovery image ("" when it is one): opened
// without blocking, type and size from the open descriptor, signature read
// from it. With `image`, the file's bytes are read into it from the same
// descriptor (and a file that changed size meanwhile is refused).
std::string image_problem(const std::string& path, Bytes* image);
// Refuses (status 1, nothing changed) to restore over a ring holding data.
void refuse_restore_over_data(const SdcHeader& h, const std::string& image_path);

json status_json(const SdcHeader& h);
void print_status(const json& doc);

}  // namespace shmtool::sdc
