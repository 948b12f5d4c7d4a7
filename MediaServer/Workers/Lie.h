#pragma once

#include <cmath>
#include <string>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// Thrown for a record that no honest worker sends. The reason follows "the worker sent ".
struct Lie {
    std::string reason;
};

inline bool isKind(const Value* value, Value::Kind kind) {
    return value && value->kind() == kind;
}

/// Returns whether a value is a finite 64-bit float.
inline bool isTime(const Value* value) {
    return isKind(value, Value::Kind::Float64) && std::isfinite(value->doubleValue());
}

}  // namespace krv::server
