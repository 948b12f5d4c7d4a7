#pragma once

#include <limits>
#include <string>
#include <type_traits>

#include <CLI/App.hpp>

namespace krvqt {

/// The numbers that an option takes.
struct NumberRange {
    double least = 0;
    /// No limit by default.
    double most = std::numeric_limits<double>::infinity();
    bool whole = false;
};

constexpr NumberRange kFrameRates{.least = 0, .most = 1000};
constexpr NumberRange kQualities{.least = 0, .most = 1};

/// Throws UsageError if the text is not a number in this range. option: its name.
void checkNumber(const std::string& option, const NumberRange& range, const std::string& text);

/// Adds an option that takes a number. Other texts and numbers are refused when the arguments are parsed.
template <typename Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& number, NumberRange range,
                       const std::string& description) {
    const auto check = [name, range](const std::string& text) {
        checkNumber(name, range, text);
        return std::string();
    };
    return command.add_option(name, number, description)->check(check)->type_name("N");
}

}  // namespace krvqt
