#include "SocketDiagnostics.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>

namespace krv {
namespace {

/// All socket states, as bits. An exact look-up ignores them, but the query must contain some.
constexpr std::uint32_t kAnyState = std::numeric_limits<std::uint32_t>::max();

/// The kernel's number of the state in which a socket listens.
constexpr std::uint8_t kListening = 10;

/// Returns whether an address of a reply is that of the end. A socket for both families reports IPv4 addresses as
/// mapped IPv6 addresses.
bool isAddressOf(const __be32 (&reported)[4], int family, const SocketEnd& end) {
    const auto bytes = std::as_bytes(std::span(reported));
    if (end.family == AF_INET6) {
        return family == AF_INET6 && std::equal(bytes.begin(), bytes.end(), end.address.begin());
    }
    constexpr std::size_t kIPv4Size = 4;
    const bool mapped = family == AF_INET6 && reported[0] == 0 && reported[1] == 0 && reported[2] == htonl(0xFFFF);
    if (family != AF_INET && !mapped) {
        return false;
    }
    const auto address = family == AF_INET ? bytes.first(kIPv4Size) : bytes.last(kIPv4Size);
    return std::equal(address.begin(), address.end(), end.address.begin());
}

/// Reads a structure from the start of the bytes, which need not be aligned.
template <typename T>
bool read(std::span<const std::byte>& bytes, T& into) {
    if (bytes.size() < sizeof into) {
        return false;
    }
    std::memcpy(&into, bytes.data(), sizeof into);
    bytes = bytes.subspan(sizeof into);
    return true;
}

}  // namespace

std::optional<SocketEnd> SocketEnd::from(const char* address, long port) {
    SocketEnd end;
    if (port < 1 || port > std::numeric_limits<std::uint16_t>::max()) {
        return std::nullopt;
    }
    end.port = htons(static_cast<std::uint16_t>(port));
    for (const int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, address, end.address.data()) == 1) {
            end.family = family;
            return end;
        }
    }
    return std::nullopt;
}

std::vector<std::byte> socketQuery(const SocketEnd& local, const std::optional<SocketEnd>& remote,
                                   std::uint32_t sequence) {
    struct Message {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    static_assert(sizeof message == NLMSG_LENGTH(sizeof(inet_diag_req_v2)));
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.header.nlmsg_seq = sequence;
    message.request.sdiag_family = static_cast<std::uint8_t>(local.family);
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = kAnyState;
    inet_diag_sockid& id = message.request.id;
    id.idiag_sport = local.port;
    std::memcpy(id.idiag_src, local.address.data(), sizeof id.idiag_src);
    if (remote) {
        id.idiag_dport = remote->port;
        std::memcpy(id.idiag_dst, remote->address.data(), sizeof id.idiag_dst);
    }
    id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    const auto bytes = std::as_bytes(std::span(&message, 1));
    return {bytes.begin(), bytes.end()};
}

std::optional<SocketOwner> ownerFromReply(std::span<const std::byte> reply, const SocketEnd& local,
                                          const std::optional<SocketEnd>& remote, std::uint32_t sequence) {
    const std::size_t size = reply.size();
    nlmsghdr header{};
    inet_diag_msg message{};
    if (!read(reply, header) || header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_seq != sequence ||
        header.nlmsg_len > size || header.nlmsg_len < NLMSG_LENGTH(sizeof message) || !read(reply, message)) {
        return std::nullopt;
    }
    const inet_diag_sockid& id = message.id;
    if (id.idiag_sport != local.port || (message.idiag_state == kListening) == remote.has_value()) {
        return std::nullopt;
    }
    if (remote && (id.idiag_dport != remote->port || !isAddressOf(id.idiag_src, message.idiag_family, local) ||
                   !isAddressOf(id.idiag_dst, message.idiag_family, *remote))) {
        return std::nullopt;
    }
    return SocketOwner{message.idiag_uid, message.idiag_inode != 0};
}

}  // namespace krv
