#include <KRVQTProcessClient/Operations/OperationErrors.h>

namespace krv {

constinit const std::string_view kMediaServerErrorDomain = "KRVQuicktimeProcess";
constinit const std::string_view kErrorFilePath = "KRVFilePath";

}  // namespace krv
