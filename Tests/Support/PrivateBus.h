#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv::test {

/// A bus daemon of the test's own, on which everybody may do everything. It ends with the object.
class PrivateBus {
public:
    /// Returns when it can be connected to.
    PrivateBus();
    [[nodiscard]] const std::string& address() const { return address_; }
    void kill();

private:
    TemporaryFolder folder_;
    std::unique_ptr<ChildProcess> daemon_;
    std::string address_;
};

/// Stands in for the login manager on a private bus.
class MockLogind {
public:
    explicit MockLogind(const PrivateBus& bus);
    ~MockLogind();
    MockLogind(const MockLogind&) = delete;
    MockLogind& operator=(const MockLogind&) = delete;

    /// Announces that the machine goes to sleep (true) or has woken up (false). Returns when the signal is with the
    /// bus.
    void prepareForSleep(bool begins);

private:
    GDBusConnection* connection_ = nullptr;
};

}  // namespace krv::test
