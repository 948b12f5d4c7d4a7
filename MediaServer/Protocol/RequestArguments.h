#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Protocol/Failure.h>

/// Checks of single arguments, from which the checks of whole requests are made. All are pure and return a failure with
/// the cause InvalidArgument, or nothing if the argument is valid.
namespace krv::server {

/// Returns an argument of the request, or null if it is absent.
[[nodiscard]] const Value* findArgument(const KRVOperationBase& request, std::string_view key);

/// Returns the failure for an argument; why continues the sentence, as in "is missing".
[[nodiscard]] std::optional<Failure> invalidArgument(std::string_view key, std::string why);

/// Checks that a value is an absolute path. which: what precedes the problem in the message, as in "entry 3 "; may be
/// empty.
[[nodiscard]] std::optional<Failure> checkPathValue(const Value& value, std::string_view key, std::string_view which);

/// Checks that an argument is present and an absolute path.
[[nodiscard]] std::optional<Failure> checkPath(const KRVOperationBase& request, std::string_view key);

/// Checks that an argument is absent or of this kind. what: the kind for a person, as in "a boolean".
[[nodiscard]] std::optional<Failure> checkKind(const KRVOperationBase& request, std::string_view key, Value::Kind kind,
                                               std::string_view what);

}  // namespace krv::server
