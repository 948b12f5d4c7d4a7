#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <KRVQTProcessClient/KRVQTProcessClient.h>

#include <MediaServer/Front/ListeningSockets.h>

namespace krv::server {

/// Speaks HTTP on the listening sockets: hands posted records to the server and its replies back, and keeps everybody
/// else out. A reply that is held keeps its connection, but no thread.
class HTTPFront {
public:
    using Reply = std::function<void(const KRVOperationBase::Ref&)>;
    struct Handlers {
        /// Must call the reply exactly once, on any thread, before the front is stopped.
        std::function<void(const KRVOperationBase::Ref& request, const Reply& reply)> operation;
        /// The status page.
        std::function<std::string()> status;
    };

    explicit HTTPFront(Handlers handlers);
    ~HTTPFront();
    HTTPFront(const HTTPFront&) = delete;
    HTTPFront& operator=(const HTTPFront&) = delete;

    /// Begins to serve, with threads of its own. Takes the sockets over. False when the library refuses.
    [[nodiscard]] bool start(ListeningSockets sockets);
    /// Closes the connections on which a request, head or body, has been arriving for more than ten seconds. A
    /// connection on which nothing arrives is only idle. To be called every second or two.
    void dropSlowSenders();
    /// Takes no more connections, lets the answers that are on their way reach their askers (three seconds at most),
    /// and ends every connection. All replies must have been given.
    void stop();

private:
    struct Internals;
    std::unique_ptr<Internals> internals_;
};

}  // namespace krv::server
