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
// Bytes the application in `slot` has not yet been given.
uint32_t behind(const SdcHeader& h, int slot);
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
// One poll of slot `id` into `buffer` (SDC_POLL_BUFFER_SIZE bytes); the
// number of bytes delivered, counted from the slot's read position.
size_t poll_once(int id, Bytes& buffer);
// Polls every `interval` seconds and hands new bytes to `sink` until SIGINT
// or SIGTERM arrives; a last poll follows the signal.
using Sink = std::function<void(const uint8_t*, size_t)>;
void follow_loop(int id, double interval, const Sink& sink);
uint32_t write_all(const Bytes& bytes);  // in ring-sized pieces; the count written

json status_json(const SdcHeader& h);
void print_status(const json& doc);

}  // namespace shmtool::sdc
