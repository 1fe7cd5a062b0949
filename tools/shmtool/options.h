// Options that take a number, declared once for every command: the text is
// checked before CLI11 converts it, and a bad one is refused (status 2) with a
// message a person can act on, never the parser's own wording:
//
//   --interval: 'abc' is not a number of seconds
//   --interval: 0 is out of range (0.01 to 86400 seconds)
//   --count: '1.5' is not a whole number
//   --count: 0 is out of range (1 to 1000000)
//
// Seconds are decimal, like 2, 0.5 or 1e-2: nan, inf, hexadecimal floats,
// empty text and trailing characters are not numbers; a number beyond
// [min, max] (1e300, or one beyond what a double holds) is out of range.
// Counts are decimal digits with an optional sign. The value is written to
// `target` only when it is good; main prints the message after "shmtool: ".
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace shmtool {

// NAME is CLI11's, like "-i,--interval"; the help shows "SECONDS" or "COUNT"
// as the value. The description should give the range and the default.
CLI::Option* add_seconds_option(CLI::App& app, const std::string& name, double& target,
                                const std::string& description, double min, double max);
CLI::Option* add_count_option(CLI::App& app, const std::string& name, int64_t& target,
                              const std::string& description, int64_t min, int64_t max);
CLI::Option* add_count_option(CLI::App& app, const std::string& name, int& target, const std::string& description,
                              int min, int max);

// The same checks for a text at hand: "" when good, else the message without
// the option's name ("'abc' is not a number of seconds").
std::string check_seconds(const std::string& text, double min, double max, double* value = nullptr);
std::string check_count(const std::string& text, int64_t min, int64_t max, int64_t* value = nullptr);

// Help without the parser's notation: an option's value is its option_text
// (or its long name in capitals), a positional is its name alone; no type
// names, ranges, "REQUIRED", "Needs:" or "Excludes:". Set on the top App
// before its subcommands are added: they take their parent's formatter.
std::shared_ptr<CLI::Formatter> plain_help_formatter();

}  // namespace shmtool
