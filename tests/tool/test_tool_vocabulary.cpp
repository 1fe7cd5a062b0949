// One vocabulary across the tool: the parser's messages, the JSON documents'
// shapes (times, booleans, names, "none") and what watch draws on a terminal
// that cannot show escape sequences.
#include <fcntl.h>
#include <stdlib.h>

#include "tool_run.h"

namespace {

using namespace tool;

// A number option's bad text is named with the option, wherever the option
// stands: never the parser's notation, never "unknown command".
TEST(ToolVocabulary, NumberOptionsSayWhatIsWrong) {
    const std::string timeout = "shmtool: --timeout: ";
    const std::string timeout_range = " is out of range \\(0 to [0-9.e+]+ seconds\\)\n";
    const struct { Args args; std::string err; } rows[] = {
        {{"--timeout", "abc", "info"}, timeout + "'abc' is not a number of seconds\n"},
        {{"info", "--timeout", "abc"}, timeout + "'abc' is not a number of seconds\n"},
        {{"--json", "--timeout", "x", "info"}, timeout + "'x' is not a number of seconds\n"},
        {{"--timeout", "nan", "info"}, timeout + "'nan' is not a number of seconds\n"},
        {{"info", "--timeout", "0x1p3"}, timeout + "'0x1p3' is not a number of seconds\n"},
        {{"--timeout", "1e300", "info"}, timeout + "1e300" + timeout_range},
        {{"info", "--timeout", "-1"}, timeout + "-1" + timeout_range},
        {{"watch", "platform", "-i", "0"}, "shmtool: --interval: 0 is out of range \\(0.01 to 86400 seconds\\)\n"},
        {{"watch", "platform", "--interval", "1s"}, "shmtool: --interval: '1s' is not a number of seconds\n"},
        {{"watch", "platform", "--count", "0"}, "shmtool: --count: 0 is out of range \\(1 to [0-9]+\\)\n"},
        {{"watch", "platform", "-n", "2"}, "shmtool: [^\n]*-n[^\n]*\n"},  // -n counts records (demo, tail)
        {{"demo", "--records", "1.5"}, "shmtool: --records: '1.5' is not a whole number\n"},
        {{"demo", "-i", "inf"}, "shmtool: --interval: 'inf' is not a number of seconds\n"},
    };
    for (const auto& row : rows) {
        const Result r = run(row.args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(row.args);
        EXPECT_TRUE(std::regex_match(r.err, std::regex(row.err))) << testing::PrintToString(row.args) << r.err;
    }
    for (const char* command : {"demo", "watch", "doctor"}) {  // nor does the help show the parser's notation
        ASSERT_EQ(run({command, "--help"}).status, 0);
        const std::string help = slurp(kOut);
        EXPECT_FALSE(std::regex_search(help, std::regex("(INT|FLOAT|TEXT)\\b|in \\[|REQUIRED|Needs:|Excludes:")))
            << help;
    }
}

// Every document of the views: snake_case keys, null (never "" or "-") for
// none, times in ISO 8601 UTC or null, with the stored text beside them.
TEST(ToolVocabulary, JsonDocumentsShareOneShape) {
    const json iso = "ISO 8601 UTC", boolean = "true or false";
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const struct { bool filled; Args args; json want; } rows[] = {
        {false, {"time"}, {{"/eop_time", nullptr}, {"/boot_time", nullptr}, {"/boot_time_text", nullptr},
                           {"/os_data_collection_date", nullptr}, {"/os_data_collection_date_text", "N/A"}}},
        {true, {"time"}, {{"/eop_time", iso}, {"/boot_time", "2023-11-14T22:13:20Z"},
                          {"/os_data_collection_date", "2023-11-14T22:13:20Z"},
                          {"/os_data_collection_date_text", "20231114221320.000000+000"}}},
        {true, {"platform"}, {{"/record/controller_type", 7}, {"/predicates/is_amd", boolean},
                              {"/predicates/is_dunmarch", true}, {"/progress/summary", boolean}}},
        {true, {"fru"}, {{"/valid", boolean}, {"/ocp_mezzanine_fru_id", nullptr}}},
        {true, {"dimm"}, {{"/wear/0/index", 4}, {"/wear/0/fqdd", nullptr}}},
        {true, {"caps"}, json::object()}, {true, {"vr"}, json::object()}, {true, {"power"}, json::object()},
    };
    const std::regex iso_text("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");
    const std::regex key_style("[a-z0-9_]+");
    std::function<void(const json&, const std::string&, std::string&)> walk;
    walk = [&](const json& value, const std::string& where, std::string& wrong) {
        if (value.is_string() && (value == "" || value == "-")) wrong += where + " is " + value.dump() + "; ";
        if (value.is_array())
            for (size_t i = 0; i < value.size(); ++i) walk(value[i], where + "/" + std::to_string(i), wrong);
        if (!value.is_object()) return;
        for (const auto& [key, item] : value.items()) {
            if (!std::regex_match(key, key_style)) wrong += where + "/" + key + " is not snake_case; ";
            const bool time = key.ends_with("_time") || key.ends_with("_date");
            if (time && !item.is_null() && !(item.is_string() && std::regex_match(item.get<std::string>(), iso_text)))
                wrong += where + "/" + key + " is not ISO 8601 or null; ";
            walk(item, where + "/" + key, wrong);
        }
    };
    bool filled = false;
    for (const auto& row : rows) {
        if (row.filled && !filled) {
            filled = true;
            test::put_bytes(SHM_SEC_PLATFORM_ID, 4, {2, 61, 3, 7, 5, 0x0c, 9, 1, 0});
            test::put_le32(SHM_SEC_TIME, 0, 1700000000);
            test::put_le32(SHM_SEC_OS_DATA, 153, 1700000000);
            test::put(SHM_SEC_OCP_MEZZ, 1, 255);
            Bytes record(SHM_DIMM_INVENTORY_RECORD_SIZE);  // an Apache Pass module in slot 4, without FQDD
            record[1] = 4, record[2] = 1, record[14] = 1, record[18] = 1, record[19] = 7;
            test::put_bytes(SHM_SEC_DIMM_INVENTORY, SHM_DIMM_INVENTORY_OFFSET, record);
            test::put(SHM_SEC_DIMM_WEAR, SHM_DIMM_WEAR_OFFSET + 36, 4);
        }
        Args args = row.args;
        args.push_back("--json");
        const Result r = run(args);
        ASSERT_EQ(r.status, 0) << testing::PrintToString(args) << r.err;
        const std::string out = slurp(kOut);  // r.out may miss it: see run()
        const json doc = json::parse(out);
        std::string wrong;
        walk(doc, "", wrong);
        for (const auto& [pointer, want] : row.want.items()) {
            const json::json_pointer at(pointer);
            const bool good = !doc.contains(at)    ? false
                              : want == iso        ? doc[at].is_string() && std::regex_match(doc[at].get<std::string>(), iso_text)
                              : want == boolean    ? doc[at].is_boolean()
                                                   : doc[at] == want;
            if (!good) wrong += pointer + " is not " + want.dump() + "; ";
        }
        EXPECT_EQ(wrong, "") << testing::PrintToString(args) << out;
    }
}

// watch on a terminal that cannot show escape sequences (TERM dumb or
// unset) marks changes with '^' lines as it does off a terminal.
TEST(ToolVocabulary, WatchWritesNoEscapesForADumbTerminal) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    const Terminal terminal;
    const struct { const char* term; bool escapes; } rows[] = {{"dumb", false}, {nullptr, false}, {"xterm", true}};
    for (const auto& row : rows) {
        if (row.term != nullptr) setenv("TERM", row.term, 1);
        else unsetenv("TERM");
        const Result r = run({"watch", "6", "0", "13", "-x", "--count", "2", "-i", "0.01"}, terminal.path());
        EXPECT_EQ(r.status, 0) << r.err;
        const std::string out = terminal.read_all();
        EXPECT_NE(out.find("draw 2"), std::string::npos) << out;
        EXPECT_EQ(out.find('\033') != std::string::npos, row.escapes) << (row.term ? row.term : "unset") << "\n" << out;
    }
}

}  // namespace
