#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <KRVQTProcessClient/Platform/HTTPClient.h>

namespace krv {

/// A thread that sends requests to servers of this machine, without waiting for the response of one before it sends the
/// next, and runs tasks and timers in between. Whoever uses it keeps its state on that thread, so it needs no locks.
///
/// Connections and responses are treated as HTTPClient describes. Connections stay open and are shared by all requests.
///
/// Every callback runs on the loop's thread, which blocks all signals. If one throws, the exception is logged at error
/// level. All members but post() are for the loop's thread.
class HTTPLoop {
public:
    using Task = std::function<void()>;
    using Reply = std::function<void(HTTPResponse response)>;
    /// Names a timer or a request. Never 0.
    using Token = std::uint64_t;

    /// Starts the thread. name: at most 15 bytes. Throws Exception "HTTPLoop" if the thread cannot be created or memory
    /// runs out, and "OutOfDescriptors" if too few file descriptors are left.
    [[nodiscard]] static std::unique_ptr<HTTPLoop> start(const char* name);
    /// Stops the thread and waits until it has exited. Drops all tasks, timers and requests. Not for the loop's thread.
    virtual ~HTTPLoop();

    /// Runs a task soon, after those posted before. Thread-safe.
    virtual void post(Task task) = 0;
    /// Runs a task once, not earlier than after this time.
    virtual Token after(Clock::Duration delay, Task task) = 0;
    /// Sends a request. The reply is called exactly once, never before this function returns, unless the request is
    /// dropped first.
    virtual Token send(HTTPRequest request, Reply reply) = 0;
    /// Drops a timer or a request, whose connection is closed. Does nothing if it has been called already.
    virtual void drop(Token token) = 0;
};

}  // namespace krv
