#include <array>
#include <cstdlib>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <KRVQTProcessClient/Platform/PeerUser.h>

#include "DiagnosticsSocket.h"
#include "SocketDiagnostics.h"

namespace krv {
namespace {

using NameFunction = int (*)(int, sockaddr*, socklen_t*);

std::optional<SocketEnd> endOf(int socket, NameFunction name) {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (name(socket, address, &size) != 0 || ::getnameinfo(address, size, host.data(), host.size(), port.data(),
                                                           port.size(), NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return std::nullopt;
    }
    return SocketEnd::from(host.data(), std::atol(port.data()));
}

}  // namespace

struct ClientUserCheck::Internals {
    DiagnosticsSocket diagnostics;
};

ClientUserCheck::ClientUserCheck()
    : internals_(std::make_unique<Internals>()) {}

ClientUserCheck::~ClientUserCheck() = default;

bool ClientUserCheck::isThisUser(int socket) {
    const auto ours = endOf(socket, &::getsockname);
    const auto theirs = endOf(socket, &::getpeername);
    return ours && theirs && clientBelongsToThisUser(internals_->diagnostics, *ours, *theirs);
}

}  // namespace krv
