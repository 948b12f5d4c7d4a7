#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Sets the logging gate from the user defaults "krv_loggingEnabled", "qtClientLogLevel", "applicationLogLevel",
/// "additionalApplicationLogLevel" and "quicktimeLoggingLevel". A missing key leaves its value unchanged. If a level is
/// set and "krv_loggingEnabled" is not, enables logging. Thread-safe.
KRV_EXPORT void applyLoggingDefaults();

}  // namespace krv
