#include <cstring>
#include <utility>

#include <fmt/format.h>

#include <MediaServer/Protocol/ServerError.h>

namespace krv::server {

std::shared_ptr<const Error> makeError(OperationErrorCode code, std::string description, std::string reason,
                                       const std::string& path) {
    Dictionary userInfo{{NSLocalizedDescriptionKey, std::move(description)},
                        {NSLocalizedFailureReasonErrorKey, std::move(reason)}};
    if (!path.empty()) {
        userInfo.set(kErrorFilePath, path);
    }
    return Error::make(std::string(kMediaServerErrorDomain), static_cast<std::int64_t>(code), std::move(userInfo));
}

std::shared_ptr<const Error> unwritable(const std::string& path, int number) {
    return makeError(OperationErrorCode::UnwritableDestination, fmt::format("{} cannot be written.", path),
                     std::strerror(number), path);
}

}  // namespace krv::server
