// Decoded views of the platform state: identity record and predicates, time
// records, capability words, VR sensor enablement, power and form factor.
// Everything comes from the library's typed accessors.
#include <cstdio>
#include <string>

#include "common.h"

namespace shmtool {
namespace {

constexpr uint32_t kRequiredProgress = 0x00402062;  // bits 1, 5, 6, 13, 22 make the summary bit

struct Predicate {
    const char* name;
    int (*answer)();
};
const Predicate kPredicates[] = {
    {"isAMD", [] { return int(isAMD()); }},
    {"is14GAMD", [] { return int(is14GAMD()); }},
    {"is15GAMD", [] { return int(is15GAMD()); }},
    {"is16G", [] { return int(is16G()); }},
    {"isQV", [] { return int(isQV()); }},
    {"isVarduna", [] { return int(isVarduna()); }},
    {"isTesk", [] { return int(isTesk()); }},
    {"isMorvast", [] { return int(isMorvast()); }},
    {"isQillan", [] { return int(isQillan()); }},
    {"isDunmarch", [] { return int(isDunmarch()); }},
    {"is_ngm", [] { return int(is_ngm()); }},
    {"is_modular_brask_chassis", [] { return int(is_modular_brask_chassis()); }},
    {"IsBootFirstPolicyEnabled", [] { return int(IsBootFirstPolicyEnabled()); }},
    {"isPowerOnHookAvailable", [] { return int(isPowerOnHookAvailable()); }},
    {"IsCPDimmPollingSupported", [] { return int(IsCPDimmPollingSupported()); }},
    {"IsCPCpuCupsSupported", [] { return int(IsCPCpuCupsSupported()); }},
    {"isBiosDonePost", [] { return int(isBiosDonePost()); }},
    {"serialPECIPresent", [] { return int(serialPECIPresent()); }},
};

std::string bit_list(uint32_t word) {
    std::string out;
    for (int bit = 0; bit < 32; ++bit)
        if (word & (1u << bit)) out += (out.empty() ? "" : " ") + std::to_string(bit);
    return out.empty() ? "none" : out;
}

json bits_array(uint32_t word) {
    json bits = json::array();
    for (int bit = 0; bit < 32; ++bit)
        if (word & (1u << bit)) bits.push_back(bit);
    return bits;
}

// ------------------------------------------------------------- platform

json collect_platform() {
    attach_existing();
    json record;
    const uint32_t platform_type = Vond_get_platform_type();
    record["platform_type"] = platform_type;
    record["system_id"] = Vond_get_system_id();
    uint8_t slot = 0;
    // The slot is meaningful on a modular platform only (the library refuses otherwise).
    record["blade_slot"] = platform_type == 2 && Vond_get_blade_slot_num(&slot) == 0 ? json(slot) : json(nullptr);
    record["quorx_type"] = Vond_get_quorx_type();
    record["generation"] = Vond_get_generation();
    record["modular_chassis_type"] = Vond_get_modular_chassis_type();
    record["post_update"] = Vond_get_post_update();
    record["cpu_type"] = Vond_get_cpu_type();
    record["serial_peci_flag"] = read_section(SHM_SEC_PLATFORM_ID, 12, 1)[0];

    uint32_t progress = 0;
    for (int bit = 0; bit < 32; ++bit)
        if (Vond_get_quorx_progress(bit)) progress |= 1u << bit;
    json predicates;
    for (const Predicate& p : kPredicates) predicates[p.name] = p.answer();
    return {{"record", record},
            {"progress",
             {{"word", progress},
              {"bits", bits_array(progress)},
              {"summary", (progress & 1) != 0},
              {"required_missing", bits_array(kRequiredProgress & ~progress)}}},
            {"predicates", predicates},
            {"product_type", Vond_get_product_type()}};
}

std::string generation_text(unsigned generation) {
    if (generation == 3) return "14G";
    if (generation == 4) return "15G";
    if (generation >= 5) return "16G or later";
    return "unknown";
}

void print_platform(const json& doc) {
    const json& r = doc["record"];
    const unsigned chassis = r["modular_chassis_type"];
    std::string chassis_notes;
    if (chassis == 1 || chassis == 3 || chassis == 5) chassis_notes += ", brask";
    if (chassis & 8) chassis_notes += ", ngm bit";
    std::printf("platform identity (section %d)\n", SHM_SEC_PLATFORM_ID);
    std::printf("  %-18s %u%s\n", "platform type", r["platform_type"].get<unsigned>(),
                r["platform_type"] == 2 ? " (modular)" : "");
    std::printf("  %-18s %u\n", "system id", r["system_id"].get<unsigned>());
    std::printf("  %-18s %s\n", "blade slot",
                r["blade_slot"].is_null() ? "- (not modular)" : std::to_string(r["blade_slot"].get<unsigned>()).c_str());
    std::printf("  %-18s %u\n", "controller type", r["quorx_type"].get<unsigned>());
    std::printf("  %-18s %u (%s)\n", "generation", r["generation"].get<unsigned>(),
                generation_text(r["generation"]).c_str());
    std::printf("  %-18s %u (0x%02x%s)\n", "chassis type", chassis, chassis, chassis_notes.c_str());
    std::printf("  %-18s %u\n", "post update", r["post_update"].get<unsigned>());
    std::printf("  %-18s %u%s\n", "cpu type", r["cpu_type"].get<unsigned>(), r["cpu_type"] == 1 ? " (AMD)" : "");
    std::printf("  %-18s %u\n", "serial PECI flag", r["serial_peci_flag"].get<unsigned>());
    std::printf("  %-18s %u (/tmp/ec %s)\n", "product type", doc["product_type"].get<unsigned>(),
                doc["product_type"] == 1 ? "present" : "absent");

    const json& p = doc["progress"];
    const uint32_t word = p["word"];
    std::printf("\nprogress word 0x%08x\n", word);
    std::printf("  %-18s %s\n", "bits set", bit_list(word).c_str());
    const uint32_t missing = kRequiredProgress & ~word;
    std::printf("  %-18s %s (%s)\n", "summary bit 0", p["summary"] ? "set" : "clear",
                missing == 0 ? "bits 1 5 6 13 22 all set" : ("missing " + bit_list(missing)).c_str());

    std::printf("\npredicates\n");
    for (const auto& [name, answer] : doc["predicates"].items())
        std::printf("  %-26s %s\n", name.c_str(), yes_no(answer == 1).c_str());
}

// ----------------------------------------------------------------- time

json collect_time() {
    attach_existing();
    uint32_t eop = 0;
    if (const int32_t r = Vond_get_EOPTime(&eop); r != 0)
        library_failure("Vond_get_EOPTime", r, "cannot read the EOP time (section 9)");
    char boot[64] = "";
    if (const int32_t r = Vond_get_BootTime(boot); r != 0)
        library_failure("Vond_get_BootTime", r, "cannot read the EOP time (section 9)");
    char collected[32] = "";
    if (const int32_t r = Vond_get_OSDataCollectionDate(collected); r != 0)
        library_failure("Vond_get_OSDataCollectionDate", r, "cannot read the OS data section (19)");
    return {{"eop_time", eop == 0 ? json(nullptr) : json(iso_time(eop))},
            {"eop_time_seconds", eop},
            {"boot_time", eop == 0 ? json(nullptr) : json(boot)},
            {"uptime_seconds", eop == 0 ? json(nullptr) : json(Vond_get_SysUpTime())},
            {"os_data_collection_date", collected}};
}

void print_time(const json& doc) {
    const unsigned eop = doc["eop_time_seconds"];
    std::printf("%-24s %u%s\n", "EOP time", eop, eop == 0 ? " (not set)" : "");
    if (!doc["boot_time"].is_null()) {
        const int uptime = doc["uptime_seconds"];
        std::printf("%-24s %s\n", "boot time", doc["boot_time"].get<std::string>().c_str());
        std::printf("%-24s %d s (%dd %02d:%02d:%02d)\n", "up-time", uptime, uptime / 86400, uptime / 3600 % 24,
                    uptime / 60 % 60, uptime % 60);
    }
    std::printf("%-24s %s\n", "OS data collection date", doc["os_data_collection_date"].get<std::string>().c_str());
}

// ------------------------------------------------------------ capability words

json collect_caps() {
    attach_existing();
    json words = json::array();
    for (uint32_t index = 0; index < 9; ++index) {
        uint16_t value = 0;
        if (const int32_t r = Get_SHM_feature_capabilities(index, &value); r != 0)
            library_failure("Get_SHM_feature_capabilities", r, "cannot read capability word " + std::to_string(index));
        words.push_back({{"index", index}, {"value", value}, {"bits", bits_array(value)}});
    }
    return {{"capabilities", words}};
}

void print_caps(const json& doc) {
    std::printf("feature capability words (section %d)\n", SHM_SEC_FEATURE_CAPS);
    for (const json& w : doc["capabilities"]) {
        const unsigned value = w["value"];
        std::printf("  word %u  0x%04x  bits %s\n", w["index"].get<unsigned>(), value,
                    value ? bit_list(value).c_str() : "none");
    }
}

// -------------------------------------------------------- VR sensor enablement

const char* vr_state(int code) {
    switch (code) {
        case 0: return "disabled";
        case 1: return "enabled";
        case 2: return "table not initialised";
        default: return "error";
    }
}

json collect_vr() {
    attach_existing();
    auto lookup = [](uint32_t type, uint32_t count) {
        json list = json::array();
        for (uint32_t index = 0; index < count; ++index) {
            const int32_t code = Get_VR_Sensor_Enablement(type, index);
            list.push_back({{"index", index}, {"code", code}, {"state", vr_state(code)}});
        }
        return list;
    };
    return {{"cpu", lookup(5, MAX_CPU_VR_ENTRIES)}, {"memory", lookup(3, MAX_MEM_VR_ENTRIES)}};
}

void print_vr(const json& doc) {
    std::printf("VR sensor enablement (platform table, section %d)\n", SHM_SEC_PBT);
    for (const char* kind : {"cpu", "memory"})
        for (const json& vr : doc[kind])
            std::printf("  %-6s VR %u  %s\n", kind, vr["index"].get<unsigned>(), vr["state"].get<std::string>().c_str());
}

// ---------------------------------------------------------------- power

json collect_power() {
    attach_existing();
    uint8_t form_factor = 0;
    if (const int32_t r = Get_blade_form_factor(&form_factor); r != 0)
        library_failure("Get_blade_form_factor", r, "cannot read the blade section (16)");
    json map = json::array();
    for (const auto& row : powerInputMap) map.push_back({row[0], row[1]});
    return {{"system_power_status", GetSystemPowerStatusSHM()},
            {"blade_form_factor", form_factor},
            {"power_input_map", map}};
}

void print_power(const json& doc) {
    const unsigned status = doc["system_power_status"];
    std::printf("%-22s %u%s\n", "system power status", status,
                status == 255 ? " (255: also what a failed read gives)" : "");
    std::printf("%-22s %u\n", "blade form factor", doc["blade_form_factor"].get<unsigned>());
    std::printf("power input map (row: first, second)\n");
    int row = 0;
    for (const json& r : doc["power_input_map"])
        std::printf("  %2d: %d %d\n", row++, r[0].get<int>(), r[1].get<int>());
}

void add_view(CLI::App& app, const char* name, const char* description, json (*collect)(),
              void (*print)(const json&)) {
    app.add_subcommand(name, description)->callback([collect, print] {
        set_action([collect, print] {
            const json doc = collect();
            if (g_options.json) print_json(doc);
            else print(doc);
        });
    });
}

}  // namespace

void show_platform() {
    const json doc = collect_platform();
    if (g_options.json) print_json(doc);
    else print_platform(doc);
}

// For watch (wts): the text views of the time, caps and power commands.
void show_time() { print_time(collect_time()); }
void show_caps() { print_caps(collect_caps()); }
void show_power() { print_power(collect_power()); }

void add_view_commands(CLI::App& app) {
    add_view(app, "platform", "Identity record, progress bits, every predicate, product type", collect_platform,
             print_platform);
    add_view(app, "time", "EOP time, boot time, up-time, OS data collection date", collect_time, print_time);
    add_view(app, "caps", "The nine feature capability words", collect_caps, print_caps);
    add_view(app, "vr", "CPU and memory VR sensor enablement from the platform table", collect_vr, print_vr);
    add_view(app, "power", "System power status, blade form factor, power input map", collect_power, print_power);
}

}  // namespace shmtool
