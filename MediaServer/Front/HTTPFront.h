#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Front/ListeningSockets.h>
#include <MediaServer/Front/Page.h>
#include <MediaServer/Front/RequestPolicy.h>
#include <MediaServer/Operations/RequestSender.h>

namespace krv::server {

/// The server's HTTP end: passes posted records to a handler and its replies back, and refuses all that the request
/// policy refuses. A reply that is held keeps its connection open, but occupies no thread.
class HTTPFront {
public:
    using Reply = std::function<void(const KRVOperationBase::Ref&)>;
    struct Handlers {
        /// Must call reply exactly once, on any thread, before the front is stopped.
        std::function<void(const KRVOperationBase::Ref& request, const RequestSender& sender, const Reply& reply)>
            operation;
        /// Returns a page as it is at this moment. Called on the front's event loop, so it must not block.
        std::function<Page(PageName name)> page;
    };

    explicit HTTPFront(Handlers handlers);
    ~HTTPFront();
    HTTPFront(const HTTPFront&) = delete;
    HTTPFront& operator=(const HTTPFront&) = delete;

    /// Starts serving on threads of its own. Takes ownership of the sockets. Returns false if the HTTP library fails.
    [[nodiscard]] bool start(ListeningSockets sockets);
    /// Closes connections whose current request, headers or body, has been arriving for more than 10 s. A connection
    /// without a request is merely idle. Call this every second or two.
    void dropSlowSenders();
    /// Stops accepting connections, waits until the responses that are being sent have arrived (at most 3 s), and
    /// closes every connection. All replies must have been given.
    void stop();

private:
    struct Internals;
    std::unique_ptr<Internals> internals_;
};

}  // namespace krv::server
