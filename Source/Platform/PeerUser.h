#pragma once

#include <memory>

#include <KRVQTProcessClient/Foundation/Export.h>

namespace krv {

/// Finds out whether the clients of a server run as our user, according to the kernel (sock_diag). Holds the one
/// descriptor that it needs, so that it works when the process has run out of descriptors. Call on one thread.
class KRV_EXPORT ClientUserCheck {
public:
    ClientUserCheck();
    ~ClientUserCheck();
    ClientUserCheck(const ClientUserCheck&) = delete;
    ClientUserCheck& operator=(const ClientUserCheck&) = delete;

    /// Returns whether the client of an accepted loopback connection runs as our user. False if the query fails, or if
    /// the client has already closed its socket.
    [[nodiscard]] bool isThisUser(int socket);

private:
    struct Internals;
    const std::unique_ptr<Internals> internals_;
};

}  // namespace krv
