#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv::test {

/// A D-Bus daemon for one test, without access control. The destructor kills it.
class PrivateBus {
public:
    /// Starts the daemon and returns when it accepts connections. Throws std::runtime_error on failure.
    PrivateBus();
    [[nodiscard]] const std::string& address() const { return address_; }
    void kill();

private:
    TemporaryFolder folder_;
    std::unique_ptr<ChildProcess> daemon_;
    std::string address_;
};

/// A mock of the login manager on a private bus.
class MockLogind {
public:
    explicit MockLogind(const PrivateBus& bus);
    ~MockLogind();
    MockLogind(const MockLogind&) = delete;
    MockLogind& operator=(const MockLogind&) = delete;

    /// Announces that the machine is about to sleep (true) or has woken up (false). Returns when the bus has the
    /// signal.
    void prepareForSleep(bool begins);

private:
    GDBusConnection* connection_ = nullptr;
};

}  // namespace krv::test
