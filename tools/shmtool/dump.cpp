// shmtool dump / poke: raw bytes of a section through the locked read and
// write (dump --unlocked: straight from the segment attached read-only). Every
// argument is checked against the section table before the store is touched,
// so bad input changes nothing.
#include <algorithm>
#include <cstdio>
#include <string>

#include "common.h"

namespace shmtool {
namespace {

constexpr int64_t kDefaultDumpLength = 256;

struct DumpArgs {
    std::string section, offset = "0", length;
    bool raw = false, force = false, unlocked = false;
};
struct PokeArgs {
    std::string section, offset, hex;
};

void dump(const DumpArgs& args) {
    const int section = parse_section(args.section);
    const int64_t size = section_size(section);
    const int64_t offset = parse_number(args.offset, "OFFSET", 0, size - 1);
    const int64_t length = args.length.empty() ? std::min(size - offset, kDefaultDumpLength)
                                               : parse_number(args.length, "LENGTH", 1, size - offset);
    if (args.raw && g_options.json) usage_error("--raw and --json exclude each other");
    if (args.raw) refuse_binary_on_terminal(args.force, "--force");
    if (args.unlocked && snapshot_active()) usage_error("--unlocked reads the store, --snapshot a file: give one");
    if (!args.unlocked && !snapshot_active()) attach_existing();
    const Bytes bytes = args.unlocked ? read_section_unlocked(section, int32_t(offset), int32_t(length))
                                      : read_section(section, int32_t(offset), int32_t(length));
    if (args.raw) return write_output("-", bytes.data(), bytes.size());
    if (g_options.json) {
        print_json({{"section", section},
                    {"offset", offset},
                    {"length", length},
                    {"hex", hex_string(bytes.data(), bytes.size())},
                    {"unlocked", args.unlocked}});
        return;
    }
    std::printf("section %d (%s), %lld of %lld bytes from offset %lld%s\n", section, section_role(section),
                static_cast<long long>(length), static_cast<long long>(size), static_cast<long long>(offset),
                args.unlocked ? ", read without its lock (may be torn)" : "");
    print_hexdump(bytes.data(), bytes.size(), static_cast<uint64_t>(offset));
}

void poke(const PokeArgs& args) {
    const int section = parse_section(args.section);
    const int64_t size = section_size(section);
    const int64_t offset = parse_number(args.offset, "OFFSET", 0, size - 1);
    const Bytes bytes = parse_hex(args.hex);
    if (offset + static_cast<int64_t>(bytes.size()) > size)
        usage_error(std::to_string(bytes.size()) + " bytes at offset " + std::to_string(offset) +
                    " run past the end of section " + std::to_string(section) + " (" + std::to_string(size) +
                    " bytes)");
    write_section(section, static_cast<int32_t>(offset), bytes);
    if (g_options.json)
        return print_json({{"section", section}, {"offset", offset}, {"written", bytes.size()}});
    std::printf("wrote %zu bytes to section %d at offset %lld\n", bytes.size(), section,
                static_cast<long long>(offset));
}

}  // namespace

void add_dump_commands(CLI::App& app) {
    static DumpArgs dump_args;
    CLI::App* d = app.add_subcommand("dump", "Hex and ASCII of a section range (locked read)");
    d->add_option("SECTION", dump_args.section, "Section number 1-33 or name (platform, sdc, ...)")->required();
    d->add_option("OFFSET", dump_args.offset, "Byte offset in the section (decimal or 0x hex), default 0");
    d->add_option("LENGTH", dump_args.length, "Bytes to show; default 256 or up to the section's end");
    d->add_flag("--raw", dump_args.raw, "The bytes themselves, in binary (refused on a terminal without --force)");
    d->add_flag("--force", dump_args.force, "With --raw: write binary even to a terminal");
    d->add_flag("--unlocked", dump_args.unlocked,
                "Read without the section's lock, the segment attached read-only (a wedged store; may be torn)");
    d->callback([] { set_action([] { dump(dump_args); }); });

    static PokeArgs poke_args;
    CLI::App* p = app.add_subcommand("poke", "Write bytes into a section (locked write)");
    p->add_option("SECTION", poke_args.section, "Section number 1-33 or name")->required();
    p->add_option("OFFSET", poke_args.offset, "Byte offset in the section (decimal or 0x hex)")->required();
    p->add_option("HEXBYTES", poke_args.hex, "Bytes as pairs of hex digits, like 0a1b2c")->required();
    p->callback([] { set_action([] { poke(poke_args); }); });
}

}  // namespace shmtool
