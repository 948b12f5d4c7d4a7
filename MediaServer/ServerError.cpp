#include "ServerError.h"

#include <utility>

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

}  // namespace krv::server
