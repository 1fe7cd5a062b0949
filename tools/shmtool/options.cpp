// Number options with messages of the tool's own, and help without the
// parser's notation (options.h).
#include "options.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common.h"

namespace shmtool {
namespace {

// [+-] digits [. digits] [e [+-] digits], at least one digit before the
// exponent; with `fraction` false, [+-] digits only.
bool options_decimal(const std::string& text, bool fraction) {
    size_t i = 0, digits = 0;
    const auto run = [&] {
        const size_t start = i;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i;
        return i - start;
    };
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    digits = run();
    if (!fraction) return digits > 0 && i == text.size();
    if (i < text.size() && text[i] == '.') {
        ++i;
        digits += run();
    }
    if (digits == 0) return false;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
        if (run() == 0) return false;
    }
    return i == text.size();
}

// 0.01, 3600, 86400: a bound as a person writes it.
std::string options_bound(double value) {
    char text[32];
    if (value == std::floor(value) && std::fabs(value) < 1e15) std::snprintf(text, sizeof text, "%.0f", value);
    else std::snprintf(text, sizeof text, "%g", value);
    return text;
}

// The validator runs on the option's text before CLI11 converts it, and
// hands CLI11 the value in a form its conversion reads back exactly (its
// integer conversion would take "010" as octal).
CLI::Validator options_seconds_validator(double min, double max) {
    return CLI::Validator(
        [min, max](std::string& text) {
            double value = 0;
            std::string problem = check_seconds(text, min, max, &value);
            if (problem.empty()) {
                char normal[40];
                std::snprintf(normal, sizeof normal, "%.17g", value);
                text = normal;
            }
            return problem;
        },
        "");
}

CLI::Validator options_count_validator(int64_t min, int64_t max) {
    return CLI::Validator(
        [min, max](std::string& text) {
            int64_t value = 0;
            std::string problem = check_count(text, min, max, &value);
            if (problem.empty()) text = std::to_string(value);
            return problem;
        },
        "");
}

class OptionsPlainHelp : public CLI::Formatter {
   public:
    std::string make_option_opts(const CLI::Option* option) const override {
        if (!option->get_option_text().empty()) return " " + option->get_option_text();
        if (option->get_expected_max() == 0 || !option->nonpositional()) return "";  // a flag, a positional
        std::string label = option->get_lnames().empty() ? option->get_snames().front() : option->get_lnames().front();
        for (char& c : label) c = c == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return " " + label;
    }
};

}  // namespace

std::string check_seconds(const std::string& text, double min, double max, double* value) {
    if (!options_decimal(text, true)) return "'" + safe_text(text) + "' is not a number of seconds";
    const double number = std::strtod(text.c_str(), nullptr);  // HUGE_VAL past a double's range
    if (!std::isfinite(number) || number < min || number > max)
        return safe_text(text) + " is out of range (" + options_bound(min) + " to " + options_bound(max) + " seconds)";
    if (value != nullptr) *value = number;
    return "";
}

std::string check_count(const std::string& text, int64_t min, int64_t max, int64_t* value) {
    if (!options_decimal(text, false)) return "'" + safe_text(text) + "' is not a whole number";
    errno = 0;
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || number < min || number > max)
        return safe_text(text) + " is out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")";
    if (value != nullptr) *value = number;
    return "";
}

CLI::Option* add_seconds_option(CLI::App& app, const std::string& name, double& target,
                                const std::string& description, double min, double max) {
    return app.add_option(name, target, description)->option_text("SECONDS")->check(options_seconds_validator(min, max));
}

CLI::Option* add_count_option(CLI::App& app, const std::string& name, int64_t& target,
                              const std::string& description, int64_t min, int64_t max) {
    return app.add_option(name, target, description)->option_text("COUNT")->check(options_count_validator(min, max));
}

CLI::Option* add_count_option(CLI::App& app, const std::string& name, int& target, const std::string& description,
                              int min, int max) {
    return app.add_option(name, target, description)->option_text("COUNT")->check(options_count_validator(min, max));
}

std::shared_ptr<CLI::Formatter> plain_help_formatter() { return std::make_shared<OptionsPlainHelp>(); }

}  // namespace shmtool
