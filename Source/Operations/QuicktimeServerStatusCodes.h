#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

/// Names of the server's states. Exported for applications; the client library does not use them.
namespace krv {

KRV_EXPORT extern const std::string_view kOperationSend;
KRV_EXPORT extern const std::string_view kOperationStarted;
KRV_EXPORT extern const std::string_view kOperationCompleted;
KRV_EXPORT extern const std::string_view kOperationFailed;
KRV_EXPORT extern const std::string_view kOperationProgress;

}  // namespace krv
