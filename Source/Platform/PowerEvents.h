#pragma once

#include <string_view>

#include <KRVQTProcessClient/Foundation/Export.h>
#include <KRVQTProcessClient/Platform/NotificationCenter.h>

namespace krv {

/// Notifications: the machine is about to sleep, and has woken.
KRV_EXPORT extern const std::string_view kWorkspaceWillSleepNotification;
KRV_EXPORT extern const std::string_view kWorkspaceDidWakeNotification;

/// The machine's sleep and wake, as reported by the login manager.
class KRV_EXPORT PowerEvents {
public:
    /// Returns the centre that posts the two notifications, without an object, on the main thread. The main run loop
    /// must run for them to be delivered. The first call starts to listen. Without a system bus or a login manager,
    /// nothing is ever posted and one info line is logged. Never destroyed. Thread-safe.
    [[nodiscard]] static NotificationCenter& notificationCenter();
};

}  // namespace krv
