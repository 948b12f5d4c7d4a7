#include "PrivateBus.h"

#include <csignal>
#include <stdexcept>

namespace krv::test {
namespace {

constexpr const char* kConfiguration = R"(<!DOCTYPE busconfig PUBLIC
  "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:dir=FOLDER</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

[[noreturn]] void fail(const char* what, GError* error) {
    const std::string text = std::string(what) + ": " + (error ? error->message : "unknown");
    g_clear_error(&error);
    throw std::runtime_error(text);
}

}  // namespace

PrivateBus::PrivateBus() {
    std::string configuration = kConfiguration;
    constexpr std::string_view kPlace = "FOLDER";
    configuration.replace(configuration.find(kPlace), kPlace.size(), folder_.path().string());
    const std::string file = folder_.write("bus.conf", configuration);
    daemon_ = std::make_unique<ChildProcess>(std::vector<std::string>{"dbus-daemon", "--config-file=" + file,
                                                                      "--nofork", "--nopidfile", "--print-address=1"});
    const auto line = daemon_->readLine();
    if (!line) {
        throw std::runtime_error("the bus daemon did not start");
    }
    address_ = *line;
}

void PrivateBus::kill() {
    daemon_->signal(SIGKILL);
    daemon_->wait();
}

MockLogind::MockLogind(const PrivateBus& bus) {
    GError* error = nullptr;
    connection_ = g_dbus_connection_new_for_address_sync(
        bus.address().c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!connection_) {
        fail("cannot connect to the bus", error);
    }
    constexpr guint kDoNotQueue = 4;
    GVariant* const reply = g_dbus_connection_call_sync(connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                        "org.freedesktop.DBus", "RequestName",
                                                        g_variant_new("(su)", "org.freedesktop.login1", kDoNotQueue),
                                                        nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (!reply) {
        fail("cannot own the name of the login manager", error);
    }
    g_variant_unref(reply);
}

MockLogind::~MockLogind() {
    g_object_unref(connection_);
}

void MockLogind::prepareForSleep(bool begins) {
    GError* error = nullptr;
    if (!g_dbus_connection_emit_signal(connection_, nullptr, "/org/freedesktop/login1",
                                       "org.freedesktop.login1.Manager", "PrepareForSleep",
                                       g_variant_new("(b)", begins ? TRUE : FALSE), &error) ||
        !g_dbus_connection_flush_sync(connection_, nullptr, &error)) {
        fail("cannot send the signal", error);
    }
}

}  // namespace krv::test
