#include "ServerError.h"

#include <cstring>
#include <utility>

#include <fmt/format.h>

namespace krv::server {

std::shared_ptr<const Error> makeError(ErrorCode code, std::string description, std::string reason,
                                       const std::string& path) {
    Dictionary userInfo{{NSLocalizedDescriptionKey, std::move(description)},
                        {NSLocalizedFailureReasonErrorKey, std::move(reason)}};
    if (!path.empty()) {
        userInfo.set(kFilePathKey, path);
    }
    return Error::make(std::string(kErrorDomain), static_cast<std::int64_t>(code), std::move(userInfo));
}

std::shared_ptr<const Error> unwritable(const std::string& path, int number) {
    return makeError(ErrorCode::UnwritableDestination, fmt::format("{} cannot be written.", path),
                     std::strerror(number), path);
}

}  // namespace krv::server
