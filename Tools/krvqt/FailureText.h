#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

/// Returns what a person reads about an error: the message, then a line each for the file, the cause and what to try,
/// where the message does not say it already and where something is known to help.
[[nodiscard]] std::string failureText(const krv::Error& error);

/// Returns an object with "domain", "code", "description", "reason" and, if the error names a file, "path".
[[nodiscard]] nlohmann::json failureJSON(const krv::Error& error);

}  // namespace krvqt
