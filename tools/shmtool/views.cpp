// Decoded views of the platform state: identity record and predicates, time
// records, capability words, VR sensor enablement, power and form factor.
// Everything comes from the library's typed accessors.
#include <cstdio>
#include <cstring>
#include <string>

#include "common.h"

namespace shmtool {
namespace {

constexpr uint32_t kRequiredProgress = 0x00402062;  // bits 1, 5, 6, 13, 22 make the summary bit

// The platform predicates: the JSON key (the call's name in snake_case, as
// every key of the tool is) and the library call the text view names.
struct Predicate {
    const char* key;
    const char* call;
    bool (*answer)();
};
const Predicate kPredicates[] = {
    {"is_amd", "isAMD", [] { return isAMD() != 0; }},
    {"is_14g_amd", "is14GAMD", [] { return is14GAMD() != 0; }},
    {"is_15g_amd", "is15GAMD", [] { return is15GAMD() != 0; }},
    {"is_16g", "is16G", [] { return is16G() != 0; }},
    {"is_qv", "isQV", [] { return isQV() != 0; }},
    {"is_varduna", "isVarduna", [] { return isVarduna() != 0; }},
    {"is_tesk", "isTesk", [] { return isTesk() != 0; }},
    {"is_morvast", "isMorvast", [] { return isMorvast() != 0; }},
    {"is_qillan", "isQillan", [] { return isQillan() != 0; }},
    {"is_dunmarch", "isDunmarch", [] { return isDunmarch() != 0; }},
    {"is_ngm", "is_ngm", [] { return is_ngm() != 0; }},
    {"is_modular_brask_chassis", "is_modular_brask_chassis", [] { return is_modular_brask_chassis() != 0; }},
    {"is_boot_first_policy_enabled", "IsBootFirstPolicyEnabled", [] { return IsBootFirstPolicyEnabled() != 0; }},
    {"is_power_on_hook_available", "isPowerOnHookAvailable", [] { return isPowerOnHookAvailable() != 0; }},
    {"is_cp_dimm_polling_supported", "IsCPDimmPollingSupported", [] { return IsCPDimmPollingSupported() != 0; }},
    {"is_cp_cpu_cups_supported", "IsCPCpuCupsSupported", [] { return IsCPCpuCupsSupported() != 0; }},
    {"is_bios_done_post", "isBiosDonePost", [] { return isBiosDonePost() != 0; }},
    {"serial_peci_present", "serialPECIPresent", [] { return serialPECIPresent() != 0; }},
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
    record["controller_type"] = Vond_get_quorx_type();
    record["generation"] = Vond_get_generation();
    record["modular_chassis_type"] = Vond_get_modular_chassis_type();
    record["post_update"] = Vond_get_post_update();
    record["cpu_type"] = Vond_get_cpu_type();
    record["serial_peci_flag"] = read_section(SHM_SEC_PLATFORM_ID, 12, 1)[0];

    uint32_t progress = 0;
    for (int bit = 0; bit < 32; ++bit)
        if (Vond_get_quorx_progress(bit)) progress |= 1u << bit;
    json predicates;
    for (const Predicate& p : kPredicates) predicates[p.key] = p.answer();
    return {{"record", record},
            {"progress",
             {{"word", progress},
              {"bits", bits_array(progress)},
              {"summary", (progress & 1) != 0},
              {"required_missing", bits_array(kRequiredProgress & ~progress)}}},
            {"predicates", predicates},
            {"product_type", Vond_get_product_type()},
            // The product type comes from the marker file /tmp/ec of the host
            // the tool runs on, not from the store: offline, it is this host's.
            {"product_type_from_this_host", snapshot_active()}};
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
    std::printf("  %-20s %u%s\n", "platform type", r["platform_type"].get<unsigned>(),
                r["platform_type"] == 2 ? " (modular)" : "");
    std::printf("  %-20s %u\n", "system id", r["system_id"].get<unsigned>());
    std::printf("  %-20s %s\n", "blade slot",
                r["blade_slot"].is_null() ? "none (not modular)" : std::to_string(r["blade_slot"].get<unsigned>()).c_str());
    std::printf("  %-20s %u\n", "controller type", r["controller_type"].get<unsigned>());
    std::printf("  %-20s %u (%s)\n", "generation", r["generation"].get<unsigned>(),
                generation_text(r["generation"]).c_str());
    std::printf("  %-20s %u (0x%02x%s)\n", "modular chassis type", chassis, chassis, chassis_notes.c_str());
    std::printf("  %-20s %u\n", "post update", r["post_update"].get<unsigned>());
    std::printf("  %-20s %u%s\n", "cpu type", r["cpu_type"].get<unsigned>(), r["cpu_type"] == 1 ? " (AMD)" : "");
    std::printf("  %-20s %u\n", "serial PECI flag", r["serial_peci_flag"].get<unsigned>());
    std::printf("  %-20s %u (/tmp/ec %s%s)\n", "product type", doc["product_type"].get<unsigned>(),
                doc["product_type"] == 1 ? "present" : "absent",
                doc["product_type_from_this_host"] ? " on this host, not in the snapshot" : "");

    const json& p = doc["progress"];
    const uint32_t word = p["word"];
    std::printf("\nprogress word 0x%08x\n", word);
    std::printf("  %-18s %s\n", "bits set", bit_list(word).c_str());
    const uint32_t missing = kRequiredProgress & ~word;
    std::printf("  %-18s %s (%s)\n", "summary bit 0", p["summary"] ? "set" : "clear",
                missing == 0 ? "bits 1 5 6 13 22 all set" : ("missing " + bit_list(missing)).c_str());

    std::printf("\npredicates\n");
    const json& answers = doc["predicates"];
    for (const Predicate& predicate : kPredicates)
        std::printf("  %-26s %s\n", predicate.call, yes_no(answers[predicate.key].get<bool>()).c_str());
}

// ----------------------------------------------------------------- time

// The OS data collection date as the library gives it: "yyyymmddhhmmss",
// ".", six digits of microseconds, and the offset from UTC in minutes ("+000"
// in every date the library writes). True with the seconds since the epoch
// (UTC, microseconds dropped) for a real date; false for "N/A" (never
// collected) and for anything else.
bool views_collection_date(const std::string& text, int64_t& seconds) {
    if (text.size() != 25 || text[14] != '.' || (text[21] != '+' && text[21] != '-')) return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (i != 14 && i != 21 && (text[i] < '0' || text[i] > '9')) return false;
    const auto field = [&text](size_t at, size_t length) { return std::stoi(text.substr(at, length)); };
    const int year = field(0, 4), month = field(4, 2), day = field(6, 2);
    const int hour = field(8, 2), minute = field(10, 2), second = field(12, 2), offset = field(22, 3);
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1] + (month == 2 && leap) || hour > 23 ||
        minute > 59 || second > 59)
        return false;
    // Days from 1970-01-01 to the date in the proleptic Gregorian calendar.
    const int64_t y = year - (month <= 2), era = (y >= 0 ? y : y - 399) / 400, year_of_era = y - era * 400;
    const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    const int64_t days = era * 146097 + day_of_era - 719468;
    seconds = days * 86400 + hour * 3600 + minute * 60 + second - (text[21] == '-' ? -1 : 1) * offset * 60;
    return true;
}

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
    const std::string collected_text(collected, strnlen(collected, sizeof collected));
    int64_t collected_seconds = 0;
    const bool dated = views_collection_date(collected_text, collected_seconds);
    // The boot time is the EOP time, which the library gives as ctime text in
    // local time: the ISO form is made from the number, not from that text.
    return {{"eop_time", eop == 0 ? json(nullptr) : json(iso_time(eop))},
            {"eop_time_seconds", eop},
            {"boot_time", eop == 0 ? json(nullptr) : json(iso_time(eop))},
            {"boot_time_text", eop == 0 ? json(nullptr) : json(safe_text(boot))},
            {"uptime_seconds", eop == 0 ? json(nullptr) : json(Vond_get_SysUpTime())},
            {"os_data_collection_date", dated ? json(iso_time(collected_seconds)) : json(nullptr)},
            {"os_data_collection_date_seconds", dated ? json(collected_seconds) : json(nullptr)},
            {"os_data_collection_date_text", safe_text(collected_text)}};
}

void print_time(const json& doc) {
    const unsigned eop = doc["eop_time_seconds"];
    std::printf("%-24s %u%s\n", "EOP time", eop, eop == 0 ? " (not set)" : "");
    if (!doc["boot_time"].is_null()) {
        const int uptime = doc["uptime_seconds"];
        std::printf("%-24s %s\n", "boot time", doc["boot_time_text"].get<std::string>().c_str());
        std::printf("%-24s %d s (%dd %02d:%02d:%02d)\n", "up-time", uptime, uptime / 86400, uptime / 3600 % 24,
                    uptime / 60 % 60, uptime % 60);
    }
    const std::string stored = doc["os_data_collection_date_text"];
    const json& seconds = doc["os_data_collection_date_seconds"];
    std::printf("%-24s %s\n", "OS data collection date",
                !seconds.is_null() ? (format_time(seconds.get<int64_t>()) + " (" + stored + ")").c_str()
                : stored == "N/A"  ? "never (N/A)"
                                   : (stored + " (not a date)").c_str());
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
