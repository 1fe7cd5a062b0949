// shmtool fru / dimm: the FRU directory and data blocks (section 22), the OCP
// mezzanine FRU id (section 24), and the DIMM wear report (sections 7, 21).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "common.h"

namespace shmtool {
namespace {

static_assert(sizeof(FruEntry) == 15, "FruEntry must be the directory's 15-byte entry");
static_assert(sizeof(DimmWearEntry) == 18, "DimmWearEntry must be the report's 18-byte entry");
static_assert(SHM_FRU_DATA_MAX_LENGTH >= UINT16_MAX, "a data buffer must hold any length the entry can give");
constexpr int32_t kDirectoryHeader = 8;

const char* fru_meaning(uint32_t result) {
    switch (result) {
        case SHM_FRU_NOT_FOUND: return "no such FRU, or its data block lies outside the section";
        case SHM_FRU_NOT_INITIALIZED: return "the FRU's data is not initialised";
        case SHM_FRU_BAD_ARGUMENT: return "bad argument or corrupt directory (device count above 59)";
        default: return "unexpected result";
    }
}

json entry_json(const FruEntry& e) {
    // Packed fields are copied by value, never referenced.
    const uint16_t id = e.fruId, length = e.dataLength;
    const uint32_t offset = e.dataOffset;
    return {{"fru_id", id},
            {"status", e.status},
            {"initialised", e.status == 1},
            {"attribute", e.fruAttribute},
            {"device_type", e.deviceType},
            {"locator", e.fruLocator},
            {"data_length", length},
            {"data_offset", offset}};
}

void print_entry_header() {
    std::printf("  %6s %-11s %9s %11s %7s %11s %11s\n", "fru id", "status", "attribute", "device type", "locator",
                "data length", "data offset");
}
void print_entry(const json& e) {
    std::printf("  %6u %-11s %9u %11u %7u %11u %11u\n", e["fru_id"].get<unsigned>(),
                e["initialised"] ? "initialised" : ("raw " + std::to_string(e["status"].get<unsigned>())).c_str(),
                e["attribute"].get<unsigned>(), e["device_type"].get<unsigned>(), e["locator"].get<unsigned>(),
                e["data_length"].get<unsigned>(), e["data_offset"].get<unsigned>());
}

void fru_directory() {
    attach_existing();
    const Bytes dir = read_section(SHM_SEC_FRU_DATA, 0, kDirectoryHeader + 15 * SHM_FRU_MAX_DEVICES);
    const uint16_t count = static_cast<uint16_t>(dir[6] | dir[7] << 8);
    const bool valid = count <= SHM_FRU_MAX_DEVICES;
    json entries = json::array();
    for (int i = 0; valid && i < count; ++i) {
        FruEntry e;
        std::memcpy(&e, dir.data() + kDirectoryHeader + 15 * i, sizeof e);
        entries.push_back(entry_json(e));
    }
    const uint32_t ocp = getOCPMezzFRUID();
    const json doc = {{"device_count", count},
                      {"valid", valid},
                      {"entries", entries},
                      {"ocp_mezzanine_fru_id", ocp == 255 ? json(nullptr) : json(ocp)}};
    if (g_options.json) return print_json(doc);
    std::printf("FRU directory (section %d): %u entries%s\n", SHM_SEC_FRU_DATA, count,
                valid ? "" : " -- more than 59: the directory is corrupt");
    if (!entries.empty()) print_entry_header();
    for (const json& e : entries) print_entry(e);
    std::printf("OCP mezzanine FRU id: %s\n", ocp == 255 ? "none" : std::to_string(ocp).c_str());
}

FruInfo fru_info(uint32_t id) {
    FruInfo info{};
    if (const uint32_t r = Vond_shm_get_fruinfo(id, &info); r != SHM_FRU_OK)
        library_failure("Vond_shm_get_fruinfo", r, fru_meaning(r));
    return info;
}

// The directory is rewritten in place without a lock, so the entry can change
// between Vond_shm_get_fruinfo and the copy, and the copy takes the length the
// entry has at that moment. The buffer is therefore the largest block there
// can be (SHM_FRU_DATA_MAX_LENGTH), and the length shown is never more than
// the buffer holds. Which length the copy used is not reported, so the entry is
// read again after the copy: when it is the same as before, its length is the
// copy's and the bytes are shown with it. A writer that changes the entry
// during every one of a few tries gets the bytes both lengths cover (the
// shorter one, which a single change cannot have cut short), with a warning
// that they may mix the old block and the new. Status 0 either way: the data
// is as current as a reader without the lock can have it.
constexpr int kFruDataTries = 10;

void fru_one(uint32_t id, bool data) {
    attach_existing();
    FruInfo before = fru_info(id);
    if (!data) {
        const json entry = entry_json(before);
        if (g_options.json) return print_json(entry);
        print_entry_header();
        print_entry(entry);
        return;
    }
    Bytes bytes(SHM_FRU_DATA_MAX_LENGTH);
    FruInfo after{};
    for (int tries = 0; tries < kFruDataTries; ++tries) {
        if (tries > 0) before = after;
        if (const uint32_t r = Vond_shm_get_frudata(id, bytes.data()); r != SHM_FRU_OK)
            library_failure("Vond_shm_get_frudata", r, fru_meaning(r));
        after = fru_info(id);
        if (std::memcmp(&after, &before, sizeof after) == 0) break;
    }
    const uint16_t length_before = before.dataLength, length_after = after.dataLength;
    const uint16_t length = std::min(length_before, length_after);
    if (std::memcmp(&after, &before, sizeof after) != 0)
        std::fprintf(stderr,
                     "shmtool: warning: FRU %u's directory entry changed during each of %d copies (data length "
                     "%u, then %u): showing %u bytes, which may mix the old block and the new\n",
                     id, kFruDataTries, length_before, length_after, length);
    const json entry = entry_json(after);
    if (g_options.json) return print_json({{"fru_id", id}, {"length", length}, {"hex", hex_string(bytes.data(), length)}});
    std::printf("FRU %u: %u bytes of data at section offset %u\n", id, length, entry["data_offset"].get<unsigned>());
    print_hexdump(bytes.data(), length, 0);
}

void dimm() {
    attach_existing();
    const int32_t count = getNVDIMMApachePassCount();
    Bytes report(1 + sizeof(DimmWearEntry) * SHM_DIMM_INVENTORY_RECORDS);
    if (const uint32_t r = readDIMMWearLevel(report.data(), static_cast<uint32_t>(report.size())); r != 0)
        library_failure("readDIMMWearLevel", r, "cannot read the DIMM inventory or wear records");
    json entries = json::array();
    for (int k = 0; k < report[0]; ++k) {
        DimmWearEntry e;
        std::memcpy(&e, report.data() + 1 + sizeof e * k, sizeof e);
        const std::string fqdd = safe_text(std::string_view(e.fqdd, strnlen(e.fqdd, sizeof e.fqdd)));
        entries.push_back({{"index", e.index}, {"wear", e.wear}, {"fqdd", fqdd.empty() ? json(nullptr) : json(fqdd)}});
    }
    const json doc = {{"apache_pass_count", count}, {"wear", entries}};
    if (g_options.json) return print_json(doc);
    std::printf("Apache Pass modules in the inventory: %d\n", count);
    std::printf("wear report: %zu modules\n", entries.size());
    if (!entries.empty()) std::printf("  %5s %6s  %s\n", "slot", "wear %", "FQDD");
    for (const json& e : entries)
        std::printf("  %5u %6u  %s\n", e["index"].get<unsigned>(), e["wear"].get<unsigned>(),
                    e["fqdd"].is_null() ? "(none)" : e["fqdd"].get<std::string>().c_str());
}

}  // namespace

void add_fru_dimm_commands(CLI::App& app) {
    static std::string id;
    static bool data = false;
    CLI::App* f = app.add_subcommand("fru", "FRU directory, one FRU's entry (ID), or its data as hex (ID --data)");
    f->add_option("ID", id, "FRU id (decimal or 0x hex)");
    f->add_flag("-d,--data", data, "Show the FRU's data block as hex");
    f->callback([] {
        set_action([] {
            if (id.empty()) {
                if (data) usage_error("--data needs a FRU ID");
                return fru_directory();
            }
            fru_one(static_cast<uint32_t>(parse_number(id, "FRU ID", 0, 65535)), data);
        });
    });
    app.add_subcommand("dimm", "Apache Pass module count and wear report")->callback([] { set_action(dimm); });
}

}  // namespace shmtool
