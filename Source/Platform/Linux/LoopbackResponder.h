#pragma once

#include <memory>
#include <string_view>

struct AvahiServer;
struct AvahiThreadedPoll;

namespace krv {

/// An embedded multicast-DNS responder that hears and speaks on the loopback interface only, with a thread of its own.
///
/// It publishes nothing by itself. The library below has one lock for everything; call-backs come on the
/// responder's thread with it held.
class LoopbackResponder {
public:
    /// Null when the machine does not let it run.
    [[nodiscard]] static std::unique_ptr<LoopbackResponder> start();
    /// Joins the thread; not on that thread.
    ~LoopbackResponder();
    LoopbackResponder(const LoopbackResponder&) = delete;
    LoopbackResponder& operator=(const LoopbackResponder&) = delete;

    [[nodiscard]] AvahiServer* server() const noexcept { return server_; }
    /// Whether it has given up for good; then it must be replaced.
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
