#pragma once

#include <cstdint>
#include <optional>

#include "SocketDiagnostics.h"

namespace krv {

/// A netlink socket to the kernel's socket diagnostics. Use on one thread.
class DiagnosticsSocket {
public:
    DiagnosticsSocket();
    ~DiagnosticsSocket();
    DiagnosticsSocket(const DiagnosticsSocket&) = delete;
    DiagnosticsSocket& operator=(const DiagnosticsSocket&) = delete;

    /// Returns the owner of a TCP socket: see socketQuery(). Empty if there is no such socket or the query fails.
    [[nodiscard]] std::optional<SocketOwner> ask(const SocketEnd& local, const std::optional<SocketEnd>& remote);

private:
    const int socket_;
    std::uint32_t sequence_ = 0;
};

/// Returns whether the client of a connection that this process has accepted runs as this process's user. `local` is
/// this process's end. False if the query fails, and if the client has closed its socket: then nobody can tell whose it
/// was. The client has chosen its port, so a listener on that port proves nothing.
[[nodiscard]] bool clientBelongsToThisUser(DiagnosticsSocket& diagnostics, const SocketEnd& local,
                                           const SocketEnd& client);

}  // namespace krv
