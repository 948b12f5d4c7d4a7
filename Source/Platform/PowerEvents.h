#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>

namespace krv {

/// Posted shortly before the machine goes to sleep, and after it has woken up.
KRV_EXPORT extern const std::string_view kWorkspaceWillSleepNotification;
KRV_EXPORT extern const std::string_view kWorkspaceDidWakeNotification;

/// The machine's sleep and wake, as the login manager announces them.
class KRV_EXPORT PowerEvents {
public:
    /// The centre on which the two notifications are posted, without an object, on the main thread: the main run loop
    /// has to turn for them to arrive. The first call begins to listen. Where there is no system bus or no login
    /// manager nothing is ever posted, and one info line says so. Any thread; lives as long as the process.
    [[nodiscard]] static NotificationCenter& notificationCenter();
};

}  // namespace krv
