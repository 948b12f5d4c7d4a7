#include "SocketDiagnostics.h"

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

std::optional<SocketOwner> ownerFromReply(std::span<const std::byte> reply, std::uint32_t sequence) {
    const std::size_t size = reply.size();
    nlmsghdr header{};
    inet_diag_msg message{};
    if (!read(reply, header) || header.nlmsg_type != SOCK_DIAG_BY_FAMILY || header.nlmsg_seq != sequence ||
        header.nlmsg_len > size || header.nlmsg_len < NLMSG_LENGTH(sizeof message) || !read(reply, message)) {
        return std::nullopt;
    }
    return SocketOwner{message.idiag_uid, message.idiag_inode != 0};
}

}  // namespace krv
