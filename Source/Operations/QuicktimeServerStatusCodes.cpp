#include <KRVQTProcessClient/Operations/QuicktimeServerStatusCodes.h>

namespace krv {

constinit const std::string_view kOperationSend = "kOperationSend";
constinit const std::string_view kOperationStarted = "kOperationStarted";
constinit const std::string_view kOperationCompleted = "kOperationCompleted";
constinit const std::string_view kOperationFailed = "kOperationFailed";
constinit const std::string_view kOperationProgress = "kOperationProgress";

}  // namespace krv
