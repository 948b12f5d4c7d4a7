#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {

constinit const std::string_view kMediaServerErrorDomain = kMediaServerName;
constinit const std::string_view kErrorFilePath = "KRVFilePath";
constinit const std::string_view kErrorNumber = "KRVErrorNumber";

}  // namespace krv
