#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "ExitStatus.h"

namespace krvqt {

/// Something is wrong with the command line. The text is a sentence in lower case without a full stop. Thrown before
/// any work has started. CommandLine reports it.
class UsageError final : public std::runtime_error {
public:
    explicit UsageError(const std::string& text)
        : std::runtime_error(text) {}
};

/// Throws UsageError. Declared with a result, so that a command can return it.
[[noreturn]] ExitStatus usage(std::string_view text);

}  // namespace krvqt
