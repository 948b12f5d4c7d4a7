#pragma once

#include <string_view>

namespace krv {

/// The name of an operation as the system writes it: all keywords with their colons,
/// such as "convertMovie:writeToFile:type:flattenOnly:progress:error:".
///
/// Log lines and the reliable-operation test compare and print exactly this text. A selector is a constant
/// that stands beside the method it names; it refers to a string literal and owns nothing.
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
