#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// The name of an operation: all keywords with their colons, such as
/// "convertMovie:writeToFile:type:flattenOnly:progress:error:".
///
/// Log lines print exactly this text, and the test for reliable operations compares it. A selector is a constant beside
/// the method that it names. It borrows a string literal.
class Selector {
public:
    constexpr explicit Selector(std::string_view name) noexcept
        : name_(name) {}

    [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }

    friend constexpr bool operator==(Selector, Selector) noexcept = default;

private:
    std::string_view name_;
};

}  // namespace krv
