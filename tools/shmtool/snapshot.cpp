// Snapshots: the whole segment in a file (snapshot save), the differences
// between two (snapshot diff), and --snapshot FILE, which points every
// read-only command at a file instead of the store.
//
// The file, all numbers little-endian:
//   0   8 bytes   magic "SHMSNAP1"
//   8   u32       format version (2; version 1 files are read too)
//   12  u64       time of the save, seconds since the epoch (UTC)
//   20  u32       SHM_SIZE of the tool that saved it
//   24  34 x u32  the section sizes, section 0 first
//   160 u32       flags (version 2 only): bit 0, read without the locks
//   164           the segment: every section's bytes, in section order
//                 (at 160 in version 1)
//
// A snapshot file comes from anywhere: it is opened without blocking, read
// only when it is a regular file, its header checked before its body, and
// the body read only when the file is exactly as long as the header says,
// for a segment of at most kSnapMaxSegment bytes.
//
// With --snapshot, the tool's own reads (read_section, section_size,
// section_offset) come from the file. Commands that decode through the
// library's typed accessors need a store: the first attach() then enters a
// private IPC namespace (as --private does), brings a fresh store up there and
// copies the file's segment into it, so the library reads the snapshot; this
// needs the file's section table to be the library's.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "common.h"

namespace shmtool {

std::string g_snapshot_path;

namespace {

constexpr char kSnapMagic[8] = {'S', 'H', 'M', 'S', 'N', 'A', 'P', '1'};
constexpr uint32_t kSnapVersion = 2;
constexpr size_t kSnapHeaderSizeV1 = 24 + 4 * SHM_SECTION_COUNT;
constexpr size_t kSnapHeaderSize = kSnapHeaderSizeV1 + 4;
constexpr uint32_t kSnapUnlocked = 1;  // flag: read without the section locks, may be torn
// A segment larger than this is no store of this library's family.
constexpr uint32_t kSnapMaxSegment = 4u * SHM_SIZE;

struct SnapImage {
    std::string path;  // as given, for messages through safe_text
    uint32_t version = 0;
    int64_t time = 0;
    uint32_t shm_size = 0;
    uint32_t flags = 0;
    int32_t sizes[SHM_SECTION_COUNT] = {};
    int64_t offsets[SHM_SECTION_COUNT] = {};
    Bytes segment;
};

uint32_t snap_le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint64_t snap_le64(const uint8_t* p) { return snap_le32(p) | uint64_t(snap_le32(p + 4)) << 32; }
void snap_put32(Bytes& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
void snap_put64(Bytes& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

SnapImage snap_load(const std::string& path) {
    UntrustedFile file;
    if (const std::string problem = file.open(path); !problem.empty()) usage_error(problem);
    auto bad = [&](const std::string& why) { usage_error(file.shown() + " is not a usable snapshot: " + why); };
    uint8_t header[kSnapHeaderSize] = {};
    if (file.size() < int64_t(kSnapHeaderSizeV1) || !file.read(header, kSnapHeaderSizeV1, 0) ||
        std::memcmp(header, kSnapMagic, 8) != 0)
        bad("no SHMSNAP1 header");
    SnapImage image;
    image.path = path;
    image.version = snap_le32(&header[8]);
    if (image.version != 1 && image.version != kSnapVersion)
        bad("format version " + std::to_string(image.version) + ", not 1 or 2");
    const size_t header_size = image.version == 1 ? kSnapHeaderSizeV1 : kSnapHeaderSize;
    if (image.version != 1) {
        if (file.size() < int64_t(header_size) || !file.read(&header[kSnapHeaderSizeV1], 4, kSnapHeaderSizeV1))
            bad("its header ends early");
        image.flags = snap_le32(&header[kSnapHeaderSizeV1]);
        if ((image.flags & ~kSnapUnlocked) != 0) bad("unknown flags " + std::to_string(image.flags));
    }
    image.time = static_cast<int64_t>(snap_le64(&header[12]));
    image.shm_size = snap_le32(&header[20]);
    if (image.shm_size > kSnapMaxSegment)
        bad("the header gives a segment of " + std::to_string(image.shm_size) + " bytes, more than the " +
            std::to_string(kSnapMaxSegment) + " a snapshot may hold");
    int64_t offset = 0;
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) {
        const uint32_t size = snap_le32(&header[24 + 4 * s]);
        if (size > image.shm_size) bad("section " + std::to_string(s) + " is larger than the segment");
        image.sizes[s] = static_cast<int32_t>(size);
        image.offsets[s] = offset;
        offset += size;
    }
    if (offset > image.shm_size) bad("the sections add up to more than the segment");
    const int64_t expected = int64_t(header_size) + image.shm_size;
    if (file.size() != expected)
        bad("the file is " + std::to_string(file.size()) + " bytes, the header says " + std::to_string(header_size) +
            " + " + std::to_string(image.shm_size));
    image.segment.resize(image.shm_size);
    if (!file.read(image.segment.data(), image.segment.size(), int64_t(header_size)) || !file.ends_at(expected))
        bad("it changed size while it was read");
    return image;
}

SnapImage& snap_active_image() {
    static SnapImage image = snap_load(g_snapshot_path);
    return image;
}

// The commands that only read, and so may read a snapshot.
const char* const kSnapReadOnly[] = {"dump",     "platform",    "time",        "caps",     "vr",
                                     "power",    "fru",         "dimm",        "sdc status", "sdc save",
                                     "sdc export", "doctor", "watch",     "snapshot save", "snapshot diff"};

std::string snap_command_path(const CLI::App& app) {
    for (const CLI::App* sub : app.get_subcommands()) {
        const std::string rest = snap_command_path(*sub);
        return sub->get_name() + (rest.empty() ? "" : " " + rest);
    }
    return "";
}

json snap_time(int64_t seconds) { return seconds != 0 ? json(iso_time(seconds)) : json(nullptr); }

// ------------------------------------------------------------------- save

struct SnapSaveArgs {
    std::string path;
    bool force = false, unlocked = false;
};

json snap_save(const SnapSaveArgs& args) {
    if (args.unlocked && snapshot_active()) usage_error("--unlocked reads the store, --snapshot a file: give one");
    if (!args.unlocked && !snapshot_active()) attach_existing();  // a store is saved, never created
    Bytes out(kSnapMagic, kSnapMagic + 8);
    snap_put32(out, kSnapVersion);
    const int64_t now = static_cast<int64_t>(std::time(nullptr));
    snap_put64(out, static_cast<uint64_t>(now));
    int64_t total = 0;
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) total += section_size(s);
    const uint32_t shm_size = static_cast<uint32_t>(total > SHM_SIZE ? total : SHM_SIZE);
    snap_put32(out, shm_size);
    json sizes = json::array();
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) {
        snap_put32(out, static_cast<uint32_t>(section_size(s)));
        sizes.push_back(section_size(s));
    }
    const uint32_t flags = args.unlocked ? kSnapUnlocked : 0;
    snap_put32(out, flags);
    // Section by section, each under its lock (section 0, empty, takes none),
    // or with --unlocked straight from the segment.
    for (int s = 1; s < SHM_SECTION_COUNT; ++s) {
        const Bytes bytes = args.unlocked ? read_section_unlocked(s, 0, section_size(s)) : read_section(s, 0, section_size(s));
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    out.resize(kSnapHeaderSize + shm_size, 0);  // a segment longer than its sections: the rest as zeros
    write_output(args.path, out.data(), out.size());
    return {{"file", safe_text(args.path)}, {"version", kSnapVersion}, {"time", snap_time(now)},
            {"shm_size", shm_size}, {"section_sizes", sizes}, {"unlocked", args.unlocked}, {"bytes", out.size()}};
}

// ------------------------------------------------------------------- diff

// A field of a record whose change the diff names. Numbers are little-endian
// (Hex ones shown in hex); texts are fixed-size fields up to their first NUL.
enum class SnapKind { Number, Hex, Text };
struct SnapField {
    int section;
    int64_t offset;
    int length;
    std::string name;  // as the platform and sdc status documents name it
    SnapKind kind;
};

const std::vector<SnapField>& snap_fields() {
    static const std::vector<SnapField> fields = [] {
        const int p = SHM_SEC_PLATFORM_ID;
        std::vector<SnapField> list = {
            {p, 0, 4, "progress", SnapKind::Hex},       {p, 4, 1, "platform_type", SnapKind::Number},
            {p, 5, 1, "system_id", SnapKind::Number},   {p, 6, 1, "blade_slot", SnapKind::Number},
            {p, 7, 1, "controller_type", SnapKind::Number}, {p, 8, 1, "generation", SnapKind::Number},
            {p, 9, 1, "modular_chassis_type", SnapKind::Number}, {p, 10, 1, "post_update", SnapKind::Number},
            {p, 11, 1, "cpu_type", SnapKind::Number},   {p, 12, 1, "serial_peci_flag", SnapKind::Number},
        };
        // The SDC header at the end of section 26.
        const int64_t h = SDC_HEADER_OFFSET;
        list.push_back({SHM_SEC_SDC, h + int64_t(offsetof(SdcHeader, Head)), 4, "head", SnapKind::Number});
        list.push_back({SHM_SEC_SDC, h + int64_t(offsetof(SdcHeader, Tail)), 4, "tail", SnapKind::Number});
        list.push_back({SHM_SEC_SDC, h + int64_t(offsetof(SdcHeader, Written)), 4, "written", SnapKind::Number});
        for (int slot = 0; slot < SDC_MAX_APPS; ++slot) {
            const int64_t entry = h + int64_t(offsetof(SdcHeader, SDCAppTable)) + slot * int64_t(sizeof(SdcAppEntry));
            const std::string app = "applications[" + std::to_string(slot) + "].";
            list.push_back({SHM_SEC_SDC, entry, SDC_APP_NAME_SIZE, app + "name", SnapKind::Text});
            list.push_back({SHM_SEC_SDC, entry + int64_t(offsetof(SdcAppEntry, iLast)), 4, app + "last",
                            SnapKind::Number});
        }
        list.push_back({SHM_SEC_SDC, h + int64_t(offsetof(SdcHeader, Signature)), 8, "signature", SnapKind::Text});
        return list;
    }();
    return fields;
}

json snap_field_value(const SnapField& f, const uint8_t* p) {
    if (f.kind == SnapKind::Text) return printable(reinterpret_cast<const char*>(p), size_t(f.length));
    uint64_t v = 0;
    for (int i = f.length - 1; i >= 0; --i) v = v << 8 | p[i];
    return v;
}

json snap_diff(const SnapImage& a, const SnapImage& b) {
    json sections = json::array();
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) {
        const int64_t common = std::min(a.sizes[s], b.sizes[s]);
        const uint8_t* pa = a.segment.data() + a.offsets[s];
        const uint8_t* pb = b.segment.data() + b.offsets[s];
        json runs = json::array();
        json fields = json::array();
        for (int64_t i = 0; i < common;) {
            if (pa[i] == pb[i]) {
                ++i;
                continue;
            }
            int64_t end = i;
            while (end < common && pa[end] != pb[end]) ++end;
            runs.push_back({{"offset", i},
                            {"length", end - i},
                            {"old", hex_string(pa + i, size_t(end - i))},
                            {"new", hex_string(pb + i, size_t(end - i))}});
            i = end;
        }
        for (const SnapField& f : snap_fields())
            if (f.section == s && f.offset + f.length <= common &&
                std::memcmp(pa + f.offset, pb + f.offset, size_t(f.length)) != 0)
                fields.push_back({{"field", f.name},
                                  {"offset", f.offset},
                                  {"old", snap_field_value(f, pa + f.offset)},
                                  {"new", snap_field_value(f, pb + f.offset)}});
        if (runs.empty() && a.sizes[s] == b.sizes[s]) continue;
        json entry = {{"section", s}, {"name", section_name(s)}, {"role", section_role(s)}};
        if (a.sizes[s] != b.sizes[s]) entry["size"] = {{"old", a.sizes[s]}, {"new", b.sizes[s]}};
        entry["runs"] = runs;
        if (!fields.empty()) entry["fields"] = fields;
        sections.push_back(entry);
    }
    const auto file = [](const SnapImage& image) {
        return json{{"file", safe_text(image.path)},
                    {"time", snap_time(image.time)},
                    {"unlocked", (image.flags & kSnapUnlocked) != 0}};
    };
    return {{"a", file(a)}, {"b", file(b)}, {"changed_sections", sections.size()}, {"sections", sections}};
}

std::string snap_value_text(const std::string& field, const json& value) {
    if (value.is_string()) return "\"" + value.get<std::string>() + "\"";
    char text[32];
    if (field == "progress") std::snprintf(text, sizeof text, "0x%08llx", value.get<unsigned long long>());
    else std::snprintf(text, sizeof text, "%llu", value.get<unsigned long long>());
    return text;
}

// The text keeps local time, as every command's text does.
void snap_print_diff(const json& doc, const SnapImage& a, const SnapImage& b) {
    constexpr size_t kShown = 16;  // bytes of a run the text shows; --json has them all
    for (const SnapImage* image : {&a, &b})
        std::printf("%s: %s (saved %s%s)\n", image == &a ? "a" : "b", safe_text(image->path).c_str(),
                    format_time(image->time).c_str(),
                    (image->flags & kSnapUnlocked) != 0 ? ", without the locks: may be torn" : "");
    if (doc["sections"].empty()) {
        std::printf("no section changed\n");
        return;
    }
    for (const json& s : doc["sections"]) {
        const std::string name = s["name"];
        std::printf("section %d%s: %zu changed run%s\n", s["section"].get<int>(),
                    name.empty() ? "" : (" (" + name + ", " + s["role"].get<std::string>() + ")").c_str(),
                    s["runs"].size(), s["runs"].size() == 1 ? "" : "s");
        if (s.contains("size"))
            std::printf("  size %d -> %d\n", s["size"]["old"].get<int>(), s["size"]["new"].get<int>());
        for (const json& r : s["runs"]) {
            std::string old_hex = r["old"], new_hex = r["new"];
            const bool cut = old_hex.size() > 2 * kShown;
            if (cut) old_hex = old_hex.substr(0, 2 * kShown) + "...", new_hex = new_hex.substr(0, 2 * kShown) + "...";
            std::printf("  offset %lld (0x%llx), %lld byte%s: %s -> %s\n", r["offset"].get<long long>(),
                        r["offset"].get<unsigned long long>(), r["length"].get<long long>(),
                        r["length"] == 1 ? "" : "s", old_hex.c_str(), new_hex.c_str());
        }
        if (s.contains("fields"))
            for (const json& f : s["fields"]) {
                const std::string field = f["field"];
                std::printf("  field %-22s %s -> %s\n", field.c_str(), snap_value_text(field, f["old"]).c_str(),
                            snap_value_text(field, f["new"]).c_str());
            }
    }
}

}  // namespace

// ------------------------------------------------------ the read path's switch

bool snapshot_active() { return !g_snapshot_path.empty(); }

Bytes snapshot_read(int section, int32_t offset, int32_t length) {
    const SnapImage& image = snap_active_image();
    Bytes bytes(static_cast<size_t>(length < 0 ? 0 : length), 0);
    const int32_t size = image.sizes[section];
    if (offset < 0 || (length > 0 && offset >= size))
        failure("offset " + std::to_string(offset) + " is outside section " + std::to_string(section) + " (" +
                std::to_string(size) + " bytes) of " + safe_text(image.path));
    // Like the library's read: a range running past the end is clipped, the tail stays zero.
    const int64_t count = std::min<int64_t>(length, int64_t(size) - offset);
    if (count > 0) std::memcpy(bytes.data(), image.segment.data() + image.offsets[section] + offset, size_t(count));
    return bytes;
}

int32_t snapshot_section_size(int section) { return snap_active_image().sizes[section]; }
int64_t snapshot_section_offset(int section) { return snap_active_image().offsets[section]; }

void snapshot_attach() {
    static bool loaded = false;
    if (loaded) return;
    const SnapImage& image = snap_active_image();
    for (int s = 0; s < SHM_SECTION_COUNT; ++s)
        if (image.sizes[s] != gShmSecSize[s])
            failure(safe_text(image.path) + " has section " + std::to_string(s) + " of " + std::to_string(image.sizes[s]) +
                    " bytes, the library " + std::to_string(gShmSecSize[s]) +
                    ": this command decodes through the library, which needs its own layout (dump reads any)");
    enter_private_store();
    const int32_t result = Vond_shm_init_shm();
    if (result != 0) library_failure("Vond_shm_init_shm", result, "cannot bring up the store for the snapshot");
    for (int s = 1; s < SHM_SECTION_COUNT; ++s) {
        void* base = nullptr;
        if (image.sizes[s] == 0) continue;
        if (Vond_shm_get_shm(s, &base) != 0 || base == nullptr)
            failure("cannot reach section " + std::to_string(s) + " of the snapshot's store");
        std::memcpy(base, image.segment.data() + image.offsets[s], size_t(image.sizes[s]));
    }
    loaded = true;
}

void check_snapshot_command(const CLI::App& app) {
    if (!snapshot_active()) return;
    const std::string command = snap_command_path(app);
    for (const char* allowed : kSnapReadOnly)
        if (command == allowed) {
            (void)snap_active_image();  // a bad file is reported before anything runs
            return;
        }
    usage_error("--snapshot works with the commands that only read the store, not '" + command + "'");
}

void add_snapshot_option(CLI::App& app) {
    app.add_option("--snapshot", g_snapshot_path,
                   "Read-only commands read FILE (from 'snapshot save') instead of the store")
        ->option_text("FILE");
}

void add_snapshot_commands(CLI::App& app) {
    CLI::App* snap = app.add_subcommand("snapshot", "Save the whole segment to a file, or compare two saves");
    snap->require_subcommand(1);

    static SnapSaveArgs save;
    CLI::App* s = snap->add_subcommand("save", "Write every section (each read under its lock) to FILE");
    s->add_option("FILE", save.path, "The snapshot file, or - for stdout")->required();
    s->add_flag("--force", save.force, "With -: write binary even to a terminal");
    s->add_flag("--unlocked", save.unlocked,
                "Read without the section locks, the segment attached read-only (a wedged store; may be torn)");
    s->callback([] {
        set_action([] {
            if (save.path == "-" && g_options.json) usage_error("--json needs the snapshot in a file, not on stdout");
            if (save.path == "-") refuse_binary_on_terminal(save.force, "--force");
            const json doc = snap_save(save);
            if (g_options.json) print_json(doc);
            else if (save.path != "-")
                std::printf("saved %llu bytes (%u of segment%s) to %s\n", doc["bytes"].get<unsigned long long>(),
                            doc["shm_size"].get<unsigned>(), save.unlocked ? ", read without the locks" : "",
                            doc["file"].get<std::string>().c_str());
        });
    });

    static std::string diff_a, diff_b;
    CLI::App* d = snap->add_subcommand("diff", "Sections, byte runs and platform and SDC header fields that differ from A to B (status 1 if any)");
    d->add_option("A", diff_a, "The older snapshot")->required();
    d->add_option("B", diff_b, "The newer snapshot")->required();
    d->callback([] {
        set_action([] {
            const SnapImage a = snap_load(diff_a);  // A first: its problem is the one reported
            const SnapImage b = snap_load(diff_b);
            const json doc = snap_diff(a, b);
            if (g_options.json) print_json(doc);
            else snap_print_diff(doc, a, b);
            // As diff and cmp: 0 the same, 1 different, 2 bad input.
            if (!doc["sections"].empty()) end_command(kFailed);
        });
    });
}

}  // namespace shmtool
