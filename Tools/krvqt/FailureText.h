#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Media.h>

#include "ExitStatus.h"

namespace krvqt {

/// Returns a failure as a person reads it: the sentence, and on further lines the file, the cause and what to try, if
/// they are known and the sentence does not contain them.
[[nodiscard]] std::string failureText(const krv::Failure& failure);

/// Returns a failure as an object: "kind", "code", "description", "reason" and, if they are known, "path" and
/// "suggestion".
[[nodiscard]] nlohmann::json failureJSON(const krv::Failure& failure);

/// Returns the exit status for a failure.
[[nodiscard]] ExitStatus statusOf(const krv::Failure& failure);

}  // namespace krvqt
