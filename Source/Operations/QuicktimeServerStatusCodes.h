#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>

/// The server's status vocabulary. Kept together for both ends; the client library reads none of it.
namespace krv {

KRV_EXPORT extern const std::string_view kOperationSend;
KRV_EXPORT extern const std::string_view kOperationStarted;
KRV_EXPORT extern const std::string_view kOperationCompleted;
KRV_EXPORT extern const std::string_view kOperationFailed;
KRV_EXPORT extern const std::string_view kOperationProgress;

}  // namespace krv
