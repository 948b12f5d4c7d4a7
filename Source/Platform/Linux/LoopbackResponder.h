#pragma once

#include <memory>
#include <string_view>

struct AvahiServer;
struct AvahiThreadedPoll;

namespace krv {

/// An embedded multicast-DNS responder on the loopback interface, with a thread of its own.
///
/// Publishes nothing by itself. libavahi-core has one lock for everything; callbacks run on the responder's thread with
/// the lock held.
class LoopbackResponder {
public:
    /// Starts a responder. Returns null if the machine does not permit it.
    [[nodiscard]] static std::unique_ptr<LoopbackResponder> start();
    /// Joins the thread, so it must not be called on it.
    ~LoopbackResponder();
    LoopbackResponder(const LoopbackResponder&) = delete;
    LoopbackResponder& operator=(const LoopbackResponder&) = delete;

    [[nodiscard]] AvahiServer* server() const noexcept { return server_; }
    /// Returns whether it has failed permanently and must be replaced.
    [[nodiscard]] bool hasFailed();

    /// Holds the responder's lock.
    class Lock {
    public:
        explicit Lock(LoopbackResponder& responder);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        LoopbackResponder& responder_;
    };

private:
    LoopbackResponder() = default;

    AvahiThreadedPoll* poll_ = nullptr;
    AvahiServer* server_ = nullptr;
};

}  // namespace krv
