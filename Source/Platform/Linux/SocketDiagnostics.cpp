#include "SocketDiagnostics.h"

#include <array>
#include <cstdint>
#include <cstring>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <unistd.h>

#include <KRVQTProcessClient/Platform/PeerUser.h>

namespace krv {
namespace {

struct Request {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

/// Writes one end's port and address where the request wants them.
void put(const sockaddr_storage& address, __be16& port, __be32 (&words)[4]) {
    if (address.ss_family == AF_INET) {
        sockaddr_in v4{};
        std::memcpy(&v4, &address, sizeof v4);
        port = v4.sin_port;
        words[0] = v4.sin_addr.s_addr;
    } else {
        sockaddr_in6 v6{};
        std::memcpy(&v6, &address, sizeof v6);
        port = v6.sin6_port;
        std::memcpy(words, &v6.sin6_addr, sizeof words);
    }
}

}  // namespace

std::vector<std::byte> socketDiagnosticsRequest(const Connection& connection) {
    Request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.body.sdiag_family = static_cast<__u8>(connection.source.ss_family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0U;
    put(connection.source, request.body.id.idiag_sport, request.body.id.idiag_src);
    put(connection.destination, request.body.id.idiag_dport, request.body.id.idiag_dst);
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    std::vector<std::byte> bytes(sizeof request);
    std::memcpy(bytes.data(), &request, sizeof request);
    return bytes;
}

std::optional<uid_t> ownerInAnswer(std::span<const std::byte> answer) {
    nlmsghdr header{};
    inet_diag_msg message{};
    if (answer.size() < NLMSG_HDRLEN + sizeof message) {
        return std::nullopt;
    }
    std::memcpy(&header, answer.data(), sizeof header);
    if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_len < NLMSG_HDRLEN + sizeof message) {
        return std::nullopt;
    }
    std::memcpy(&message, answer.data() + NLMSG_HDRLEN, sizeof message);
    return message.idiag_uid;
}

std::optional<uid_t> ownerOf(const Connection& connection) {
    const int kernel = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (kernel < 0) {
        return std::nullopt;
    }
    std::optional<uid_t> owner;
    const auto request = socketDiagnosticsRequest(connection);
    std::array<std::byte, 8192> answer{};
    if (::send(kernel, request.data(), request.size(), 0) == static_cast<ssize_t>(request.size())) {
        const ssize_t received = ::recv(kernel, answer.data(), answer.size(), 0);
        if (received > 0) {
            owner = ownerInAnswer(std::span(answer).first(static_cast<std::size_t>(received)));
        }
    }
    ::close(kernel);
    return owner;
}

std::optional<sockaddr_storage> socketAddress(const char* address, int port) {
    sockaddr_storage storage{};
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const auto networkPort = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, address, &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        v4.sin_port = networkPort;
        std::memcpy(&storage, &v4, sizeof v4);
    } else if (::inet_pton(AF_INET6, address, &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        v6.sin6_port = networkPort;
        std::memcpy(&storage, &v6, sizeof v6);
    } else {
        return std::nullopt;
    }
    return storage;
}

std::optional<uid_t> peerUser(int socket) {
    Connection peer;  // seen from the other end
    socklen_t size = sizeof peer.destination;
    if (::getsockname(socket, reinterpret_cast<sockaddr*>(&peer.destination), &size) != 0) {
        return std::nullopt;
    }
    size = sizeof peer.source;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer.source), &size) != 0) {
        return std::nullopt;
    }
    return ownerOf(peer);
}

}  // namespace krv
