#pragma once

#include <functional>
#include <memory>

#include <MediaServer/Front/ListeningSockets.h>
#include <MediaServer/Protocol/Descriptor.h>

namespace krv::server {

/// Accepts connections on a thread of its own and refuses those of other users.
///
/// A connection of another user gets a response with status 403 and is closed, whatever it sends or does not send. So
/// it occupies no place among the connections that are served.
class ConnectionAcceptor {
public:
    struct Handlers {
        /// Receives each connection of this user, non-blocking. Called on the acceptor's thread.
        std::function<void(Descriptor connection)> accepted;
        /// Closes a connection that can be spared, because there is no descriptor left for the next one. Called on the
        /// acceptor's thread.
        std::function<void()> outOfDescriptors;
    };

    /// Takes ownership of the sockets and starts the thread. Throws std::system_error if it cannot be started.
    ConnectionAcceptor(ListeningSockets sockets, Handlers handlers);
    /// Ends the thread and closes the sockets.
    ~ConnectionAcceptor();
    ConnectionAcceptor(const ConnectionAcceptor&) = delete;
    ConnectionAcceptor& operator=(const ConnectionAcceptor&) = delete;

private:
    struct Internals;
    const std::unique_ptr<Internals> internals_;
};

}  // namespace krv::server
