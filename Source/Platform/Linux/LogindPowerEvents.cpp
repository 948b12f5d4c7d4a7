// Sleep and wake from logind's signal PrepareForSleep on the system bus: true before the machine sleeps, false after it
// has woken.
//
// The connection is our own, not the shared one of GIO, which by default terminates the process when the bus closes it;
// a library must not do that. No inhibitor lock is taken, so the machine does not wait for us. The sleep signal may
// therefore be delivered only after the wake, directly before the wake signal. Observers must handle both together.
#include <memory>

#include <gio/gio.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Logging/Log.h>
#include <KRVQTProcessClient/Platform/FreeDescriptors.h>
#include <KRVQTProcessClient/Platform/PowerEvents.h>
#include <KRVQTProcessClient/Platform/RunLoop.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include "SocketsOfGIO.h"

namespace krv {

constinit const std::string_view kWorkspaceWillSleepNotification = "NSWorkspaceWillSleepNotification";
constinit const std::string_view kWorkspaceDidWakeNotification = "NSWorkspaceDidWakeNotification";

namespace {

using namespace std::chrono_literals;

/// More than a connection needs, because the connection is made a moment after the question.
constexpr int kDescriptorsOfABusConnection = 16;
constexpr auto kBetweenAttempts = 10s;
constexpr LogSite kSite{"Source/Platform/PowerEvents", Selector("notificationCenter")};

NotificationCenter& center() {
    static auto* instance = new NotificationCenter;
    return *instance;
}

struct FreeError {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorHolder = std::unique_ptr<GError, FreeError>;

void sayThereAreNone(const ErrorHolder& why) {
    KRV_LOG(kLogFlagInfo, kSite, "No sleep and wake events: {}", why ? why->message : "the system bus has gone");
}

/// Posts from the library's own run loop, because an observer's exception must not pass through GIO's frames.
void post(std::string_view name) {
    RunLoop::main().perform([name] { center().post({std::string(name), Value(), nullptr}); });
}

void prepareForSleep(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant* parameters,
                     gpointer) {
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(b)"))) {
        gboolean begins = FALSE;
        g_variant_get(parameters, "(b)", &begins);
        post(begins ? kWorkspaceWillSleepNotification : kWorkspaceDidWakeNotification);
    }
}

void busHasGone(GDBusConnection*, gboolean, GError*, gpointer) {
    sayThereAreNone(nullptr);
}

void connected(GObject*, GAsyncResult* result, gpointer) {
    GError* failure = nullptr;
    GDBusConnection* const bus = g_dbus_connection_new_for_address_finish(result, &failure);
    if (!bus) {
        sayThereAreNone(ErrorHolder(failure));
        return;
    }
    g_signal_connect(bus, "closed", G_CALLBACK(&busHasGone), nullptr);
    // The connection is kept until the process exits.
    g_dbus_connection_signal_subscribe(bus, "org.freedesktop.login1", "org.freedesktop.login1.Manager",
                                       "PrepareForSleep", "/org/freedesktop/login1", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                       &prepareForSleep, nullptr, nullptr);
}

void listenAgainLater();

/// Called on the main thread, so that GIO delivers the signals there.
void listen() {
    try {
        // GIO's own thread gets a context, for which GLib needs a descriptor or ends the process.
        requireFreeDescriptors(kDescriptorsOfABusConnection, "the system bus");
    } catch (const Exception& exception) {
        KRV_LOG(kLogFlagInfo, kSite, "No sleep and wake events for now: {}", exception.reason());
        listenAgainLater();
        return;
    }
    initialiseSocketsOfGIO();
    const SignalsBlocked blocked;  // in the threads that GIO starts
    GError* failure = nullptr;
    gchar* const address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure);
    if (!address) {
        sayThereAreNone(ErrorHolder(failure));
        return;
    }
    g_dbus_connection_new_for_address(address,
                                      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                                        G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                      nullptr, nullptr, &connected, nullptr);
    g_free(address);
}

void listenAgainLater() {
    static const auto target = std::make_shared<const int>(0);
    RunLoop::main().performAfterDelay(kBetweenAttempts, target, Selector("listen"), &listen);
}

}  // namespace

NotificationCenter& PowerEvents::notificationCenter() {
    static const bool listening = [] {
        RunLoop::main().perform(&listen);
        return true;
    }();
    (void)listening;
    return center();
}

}  // namespace krv
