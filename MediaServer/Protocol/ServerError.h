#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

namespace krv::server {

/// description: a sentence for a person, which names the file if one is meant. reason: the cause. path: the file, or
/// empty.
[[nodiscard]] std::shared_ptr<const Error> makeError(OperationErrorCode code, std::string description,
                                                     std::string reason, const std::string& path = {});

/// A destination that cannot be written, for this error number.
[[nodiscard]] std::shared_ptr<const Error> unwritable(const std::string& path, int number);

}  // namespace krv::server
