// Snapshots: the whole segment in a file (snapshot save), the differences
// between two (snapshot diff), and --snapshot FILE, which points every
// read-only command at a file instead of the store.
//
// The file, all numbers little-endian:
//   0   8 bytes   magic "SHMSNAP1"
//   8   u32       format version (1)
//   12  u64       time of the save, seconds since the epoch (UTC)
//   20  u32       SHM_SIZE of the tool that saved it
//   24  34 x u32  the section sizes, section 0 first
//   160           the segment: every section's bytes, in section order
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

#include <cerrno>
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
constexpr uint32_t kSnapVersion = 1;
constexpr size_t kSnapHeaderSize = 24 + 4 * SHM_SECTION_COUNT;

struct SnapImage {
    std::string path;
    uint32_t version = 0;
    int64_t time = 0;
    uint32_t shm_size = 0;
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
    const Bytes file = read_input(path);
    auto bad = [&](const std::string& why) { usage_error(path + " is not a usable snapshot: " + why); };
    if (file.size() < kSnapHeaderSize || std::memcmp(file.data(), kSnapMagic, 8) != 0)
        bad("no SHMSNAP1 header");
    SnapImage image;
    image.path = path;
    image.version = snap_le32(&file[8]);
    if (image.version != kSnapVersion) bad("format version " + std::to_string(image.version) + ", not 1");
    image.time = static_cast<int64_t>(snap_le64(&file[12]));
    image.shm_size = snap_le32(&file[20]);
    int64_t offset = 0;
    for (int s = 0; s < SHM_SECTION_COUNT; ++s) {
        const uint32_t size = snap_le32(&file[24 + 4 * s]);
        if (size > image.shm_size) bad("section " + std::to_string(s) + " is larger than the segment");
        image.sizes[s] = static_cast<int32_t>(size);
        image.offsets[s] = offset;
        offset += size;
    }
    if (offset > image.shm_size) bad("the sections add up to more than the segment");
    if (file.size() != kSnapHeaderSize + image.shm_size)
        bad(std::to_string(file.size() - kSnapHeaderSize) + " bytes of segment, the header says " +
            std::to_string(image.shm_size));
    image.segment.assign(file.begin() + kSnapHeaderSize, file.end());
    return image;
}

SnapImage& snap_active_image() {
    static SnapImage image = snap_load(g_snapshot_path);
    return image;
}

// The commands that only read, and so may read a snapshot.
const char* const kSnapReadOnly[] = {"dump",     "platform",    "time",        "caps",     "vr",
                                     "power",    "fru",         "dimm",        "sdc status", "sdc save",
                                     "sdc export", "watch",     "snapshot save", "snapshot diff"};

std::string snap_command_path(const CLI::App& app) {
    for (const CLI::App* sub : app.get_subcommands()) {
        const std::string rest = snap_command_path(*sub);
        return sub->get_name() + (rest.empty() ? "" : " " + rest);
    }
    return "";
}

// ------------------------------------------------------------------- save

json snap_save(const std::string& path) {
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
    // Section by section, each under its lock (section 0, empty, takes none).
    for (int s = 1; s < SHM_SECTION_COUNT; ++s) {
        const Bytes bytes = read_section(s, 0, section_size(s));
        out.insert(out.end(), bytes.begin(), bytes.end());
    }
    out.resize(kSnapHeaderSize + shm_size, 0);  // a segment longer than its sections: the rest as zeros
    write_output(path, out.data(), out.size());
    return {{"file", path}, {"version", kSnapVersion}, {"time", now}, {"shm_size", shm_size},
            {"section_sizes", sizes}, {"bytes", out.size()}};
}

// ------------------------------------------------------------------- diff

struct SnapField {
    int offset, length;
    const char* name;
};
// The platform identity record (section 6).
constexpr SnapField kSnapPlatformFields[] = {
    {0, 4, "progress"},    {4, 1, "platform_type"},        {5, 1, "system_id"},
    {6, 1, "blade_slot"},  {7, 1, "controller_type"},      {8, 1, "generation"},
    {9, 1, "modular_chassis_type"}, {10, 1, "post_update"}, {11, 1, "cpu_type"},
    {12, 1, "serial_peci_flag"},
};

uint64_t snap_field_value(const uint8_t* p, int length) {
    uint64_t v = 0;
    for (int i = length - 1; i >= 0; --i) v = v << 8 | p[i];
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
        if (s == SHM_SEC_PLATFORM_ID)
            for (const SnapField& f : kSnapPlatformFields)
                if (f.offset + f.length <= common && std::memcmp(pa + f.offset, pb + f.offset, size_t(f.length)) != 0)
                    fields.push_back({{"field", f.name},
                                      {"offset", f.offset},
                                      {"old", snap_field_value(pa + f.offset, f.length)},
                                      {"new", snap_field_value(pb + f.offset, f.length)}});
        if (runs.empty() && a.sizes[s] == b.sizes[s]) continue;
        json entry = {{"section", s}, {"name", section_name(s)}, {"role", section_role(s)}};
        if (a.sizes[s] != b.sizes[s]) entry["size"] = {{"old", a.sizes[s]}, {"new", b.sizes[s]}};
        entry["runs"] = runs;
        if (!fields.empty()) entry["fields"] = fields;
        sections.push_back(entry);
    }
    return {{"a", {{"file", a.path}, {"time", a.time}}},
            {"b", {{"file", b.path}, {"time", b.time}}},
            {"changed_sections", sections.size()},
            {"sections", sections}};
}

void snap_print_diff(const json& doc) {
    constexpr size_t kShown = 16;  // bytes of a run the text shows; --json has them all
    std::printf("a: %s (saved %s)\nb: %s (saved %s)\n", doc["a"]["file"].get<std::string>().c_str(),
                format_time(doc["a"]["time"]).c_str(), doc["b"]["file"].get<std::string>().c_str(),
                format_time(doc["b"]["time"]).c_str());
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
            for (const json& f : s["fields"])
                std::printf("  field %-22s %llu -> %llu\n", f["field"].get<std::string>().c_str(),
                            f["old"].get<unsigned long long>(), f["new"].get<unsigned long long>());
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
                std::to_string(size) + " bytes) of " + image.path);
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
            failure(image.path + " has section " + std::to_string(s) + " of " + std::to_string(image.sizes[s]) +
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

    static std::string save_path;
    CLI::App* s = snap->add_subcommand("save", "Write every section (each read under its lock) to FILE");
    s->add_option("FILE", save_path, "The snapshot file, or - for stdout")->required();
    s->callback([] {
        set_action([] {
            if (save_path == "-" && g_options.json) usage_error("--json needs the snapshot in a file, not on stdout");
            const json doc = snap_save(save_path);
            if (g_options.json) print_json(doc);
            else if (save_path != "-")
                std::printf("saved %llu bytes (%u of segment) to %s\n", doc["bytes"].get<unsigned long long>(),
                            doc["shm_size"].get<unsigned>(), save_path.c_str());
        });
    });

    static std::string diff_a, diff_b;
    CLI::App* d = snap->add_subcommand("diff", "The sections, byte runs and platform fields that differ from A to B");
    d->add_option("A", diff_a, "The older snapshot")->required();
    d->add_option("B", diff_b, "The newer snapshot")->required();
    d->callback([] {
        set_action([] {
            const json doc = snap_diff(snap_load(diff_a), snap_load(diff_b));
            if (g_options.json) print_json(doc);
            else snap_print_diff(doc);
        });
    });
}

}  // namespace shmtool
