#pragma once

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krvqt {

/// What happened, why, and what to try, in up to three lines.
[[nodiscard]] std::string failureText(const krv::Error& error);

/// The error's keys "domain", "code", "description", "reason" and, where it names a file, "path".
[[nodiscard]] nlohmann::json failureJSON(const krv::Error& error);

}  // namespace krvqt
