#pragma once

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Sets the logging gate from the user defaults "krv_loggingEnabled", "qtClientLogLevel", "applicationLogLevel",
/// "additionalApplicationLogLevel" and "quicktimeLoggingLevel". A key that is not set leaves its value alone; a level
/// that is set opens the gate unless "krv_loggingEnabled" says otherwise. Any thread.
KRV_EXPORT void applyLoggingDefaults();

}  // namespace krv
