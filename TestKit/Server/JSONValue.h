#pragma once

#include <nlohmann/json.hpp>

#include <KRVQTProcessClient/Foundation/Value.h>

namespace krv::test_kit {

/// Returns the value that a script describes. Kinds that JSON does not have are objects with one key: {"$size": [width,
/// height]}, {"$date": seconds since 2001} and {"$data": "text"}. Throws ScriptError. Pure.
[[nodiscard]] Value valueFromJSON(const nlohmann::json& json);

}  // namespace krv::test_kit
