#include <cstring>
#include <span>
#include <string>

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/DiagnosticsSocket.h>
#include <KRVQTProcessClient/Platform/Linux/SocketDiagnostics.h>
#include <KRVQTProcessClient/Platform/PeerUser.h>

#include "NoDescriptors.h"

namespace krv {
namespace {

constexpr std::uint32_t kSequence = 7;

struct Reply {
    nlmsghdr header;
    inet_diag_msg message;
};

Reply goodReply() {
    Reply reply{};
    reply.header.nlmsg_len = sizeof reply;
    reply.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    reply.header.nlmsg_seq = kSequence;
    reply.message.idiag_family = AF_INET;
    reply.message.idiag_state = 1;  // connected
    reply.message.id.idiag_sport = htons(8000);
    reply.message.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
    reply.message.id.idiag_dport = htons(40000);
    reply.message.id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
    reply.message.idiag_uid = 1000;
    reply.message.idiag_inode = 4711;
    return reply;
}

std::optional<SocketOwner> owner(const Reply& reply, std::size_t size = sizeof(Reply)) {
    return ownerFromReply(std::as_bytes(std::span(&reply, 1)).first(size), *SocketEnd::from("127.0.0.1", 8000),
                          SocketEnd::from("127.0.0.1", 40000), kSequence);
}

TEST(SocketEnd, IsParsedFromANumericAddressAndAPort) {
    const auto v4 = SocketEnd::from("127.0.0.1", 8000);
    ASSERT_TRUE(v4);
    EXPECT_EQ(v4->family, AF_INET);
    EXPECT_EQ(v4->port, htons(8000));
    EXPECT_EQ(v4->address[0], std::byte{127});
    const auto v6 = SocketEnd::from("::1", 65535);
    ASSERT_TRUE(v6);
    EXPECT_EQ(v6->family, AF_INET6);
    EXPECT_EQ(v6->address[15], std::byte{1});
}

TEST(SocketEnd, IsEmptyForNamesAndForPortsOutOfRange) {
    EXPECT_FALSE(SocketEnd::from("localhost", 8000));
    EXPECT_FALSE(SocketEnd::from("", 8000));
    EXPECT_FALSE(SocketEnd::from("127.0.0.1", 0));
    EXPECT_FALSE(SocketEnd::from("127.0.0.1", 65536));
    EXPECT_FALSE(SocketEnd::from("127.0.0.1", -1));
}

TEST(SocketQuery, QueriesTheSocketWithTheseEnds) {
    const auto local = SocketEnd::from("127.0.0.1", 8000);
    const auto remote = SocketEnd::from("127.0.0.1", 40000);
    const auto bytes = socketQuery(*local, remote, kSequence);
    nlmsghdr header{};
    inet_diag_req_v2 request{};
    ASSERT_EQ(bytes.size(), sizeof header + sizeof request);
    std::memcpy(&header, bytes.data(), sizeof header);
    std::memcpy(&request, bytes.data() + sizeof header, sizeof request);
    EXPECT_EQ(header.nlmsg_len, bytes.size());
    EXPECT_EQ(header.nlmsg_seq, kSequence);
    EXPECT_EQ(header.nlmsg_flags, NLM_F_REQUEST);  // not a dump of all sockets
    EXPECT_EQ(request.sdiag_family, AF_INET);
    EXPECT_EQ(request.sdiag_protocol, IPPROTO_TCP);
    EXPECT_EQ(request.id.idiag_sport, htons(8000));
    EXPECT_EQ(request.id.idiag_dport, htons(40000));
    EXPECT_EQ(request.id.idiag_src[0], htonl(INADDR_LOOPBACK));
    EXPECT_EQ(request.id.idiag_dst[0], htonl(INADDR_LOOPBACK));
}

TEST(OwnerFromReply, ReturnsTheUserAndWhetherTheSocketIsHeld) {
    Reply reply = goodReply();
    EXPECT_EQ(owner(reply), (SocketOwner{1000, true}));
    reply.message.idiag_inode = 0;
    reply.message.idiag_uid = 0;
    EXPECT_EQ(owner(reply), (SocketOwner{0, false}));
}

TEST(OwnerFromReply, IsEmptyForEveryTruncatedReply) {
    const Reply reply = goodReply();
    for (std::size_t size = 0; size < sizeof reply; ++size) {
        EXPECT_EQ(owner(reply, size), std::nullopt) << size;
    }
}

TEST(OwnerFromReply, IsEmptyForAnErrorAndForAReplyToAnotherQuery) {
    Reply reply = goodReply();
    reply.header.nlmsg_type = NLMSG_ERROR;
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.header.nlmsg_type = NLMSG_DONE;
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.header.nlmsg_seq = kSequence + 1;
    EXPECT_EQ(owner(reply), std::nullopt);
}

TEST(OwnerFromReply, IsEmptyForAnotherSocketThanTheOneAskedFor) {
    Reply reply = goodReply();
    reply.message.idiag_state = 10;  // a listener, which the kernel reports if there is no such connection
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.message.id.idiag_sport = htons(8001);
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.message.id.idiag_dport = htons(40001);
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.message.id.idiag_src[0] = htonl(INADDR_ANY);
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.message.id.idiag_dst[0] = htonl(INADDR_LOOPBACK + 1);
    EXPECT_EQ(owner(reply), std::nullopt);
    reply = goodReply();
    reply.message.idiag_family = AF_INET6;
    EXPECT_EQ(owner(reply), std::nullopt);
}

TEST(OwnerFromReply, AcceptsMappedAddressesOfASocketForBothFamilies) {
    Reply reply = goodReply();
    reply.message.idiag_family = AF_INET6;
    for (auto* const address : {reply.message.id.idiag_src, reply.message.id.idiag_dst}) {
        address[0] = address[1] = 0;
        address[2] = htonl(0xFFFF);
        address[3] = htonl(INADDR_LOOPBACK);
    }
    EXPECT_EQ(owner(reply), (SocketOwner{1000, true}));
}

TEST(OwnerFromReply, OfAListenerNeedsItsPortAndItsState) {
    Reply reply = goodReply();
    const auto listener = [&] {
        return ownerFromReply(std::as_bytes(std::span(&reply, 1)), *SocketEnd::from("127.0.0.1", 8000), std::nullopt,
                              kSequence);
    };
    EXPECT_EQ(listener(), std::nullopt);
    reply.message.idiag_state = 10;
    reply.message.id.idiag_src[0] = htonl(INADDR_ANY);
    EXPECT_EQ(listener(), (SocketOwner{1000, true}));
    reply.message.id.idiag_sport = htons(8001);
    EXPECT_EQ(listener(), std::nullopt);
}

TEST(OwnerFromReply, IsEmptyForALengthThatDoesNotFit) {
    Reply reply = goodReply();
    for (const std::uint32_t length : {0U, 16U, static_cast<std::uint32_t>(sizeof reply) - 1,
                                       static_cast<std::uint32_t>(sizeof reply) + 1, 0xffffffffU}) {
        reply.header.nlmsg_len = length;
        EXPECT_EQ(owner(reply), std::nullopt) << length;
    }
}

/// A loopback connection with both ends in this process.
class OwnConnection {
public:
    explicit OwnConnection(const char* address) {
        const int family = SocketEnd::from(address, 1)->family;
        listener_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        client_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in6 here{};
        here.sin6_family = static_cast<sa_family_t>(family);
        const bool isV4 = family == AF_INET;
        if (isV4) {
            auto& v4 = reinterpret_cast<sockaddr_in&>(here);
            ::inet_pton(family, address, &v4.sin_addr);
        } else {
            ::inet_pton(family, address, &here.sin6_addr);
        }
        auto* any = reinterpret_cast<sockaddr*>(&here);
        socklen_t size = isV4 ? sizeof(sockaddr_in) : sizeof here;
        made_ = ::bind(listener_, any, size) == 0 && ::listen(listener_, 1) == 0 &&
                ::getsockname(listener_, any, &size) == 0 && ::connect(client_, any, size) == 0;
        // The port is at the same offset in both kinds of address.
        peer_ = SocketEnd::from(address, ntohs(here.sin6_port));
        ::getsockname(client_, any, &size);
        local_ = SocketEnd::from(address, ntohs(here.sin6_port));
    }
    ~OwnConnection() {
        ::close(client_);
        ::close(listener_);
        ::close(accepted_);
    }
    OwnConnection(const OwnConnection&) = delete;
    OwnConnection& operator=(const OwnConnection&) = delete;

    [[nodiscard]] bool isMade() const { return made_; }
    void accept() { accepted_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC); }
    [[nodiscard]] bool serverIsOurs() const { return serverBelongsToThisUser(*local_, *peer_); }
    [[nodiscard]] bool clientIsOurs() const {
        DiagnosticsSocket diagnostics;
        return clientBelongsToThisUser(diagnostics, *peer_, *local_);
    }

private:
    int listener_ = -1;
    int client_ = -1;
    int accepted_ = -1;
    bool made_ = false;
    std::optional<SocketEnd> local_;
    std::optional<SocketEnd> peer_;
};

/// Returns the addresses at which a connection of this process to itself is not recognised as its own.
std::string addressesNotTakenForOurs() {
    std::string wrong;
    for (const char* address : {"127.0.0.1", "::1"}) {
        OwnConnection connection(address);
        if (!connection.isMade()) {
            continue;  // a machine without IPv6
        }
        wrong += connection.serverIsOurs() ? "" : std::string(address) + " before it is accepted; ";
        connection.accept();
        wrong += connection.serverIsOurs() ? "" : std::string(address) + " after it is accepted; ";
        wrong += connection.clientIsOurs() ? "" : std::string(address) + " as a client; ";
    }
    return wrong;
}

TEST(PeerOwnership, RecognisesOurSocketBeforeAndAfterAccept) {
    EXPECT_EQ(addressesNotTakenForOurs(), "");
}

TEST(PeerOwnership, HoldsForAUserWithoutPrivileges) {
    // The kernel reports an unaccepted connection as root's. A user's own connection must not be rejected for it.
    if (::getuid() != 0) {
        GTEST_SKIP() << "the case above ran without privileges already";
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setuid(65534) == 0 && addressesNotTakenForOurs().empty() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(PeerOwnership, AMissingSocketBelongsToNobody) {
    const auto one = *SocketEnd::from("127.0.0.1", 1);
    const auto two = *SocketEnd::from("127.0.0.1", 2);
    EXPECT_FALSE(serverBelongsToThisUser(one, two));
    DiagnosticsSocket diagnostics;
    EXPECT_FALSE(clientBelongsToThisUser(diagnostics, one, two));
}

/// Opens a TCP socket with SO_REUSEADDR that is bound to an IPv4 address, in host byte order, and a port, 0 for any.
/// Returns the port.
std::uint16_t openBound(int& socket, std::uint32_t address, std::uint16_t port) {
    socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in here{};
    here.sin_family = AF_INET;
    here.sin_port = htons(port);
    here.sin_addr.s_addr = htonl(address);
    socklen_t size = sizeof here;
    EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&here), size), 0);
    EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&here), &size), 0);
    return ntohs(here.sin_port);
}

TEST(PeerOwnership, AClientThatHasClosedIsNotTakenForAListenerOnItsPort) {
    // Another user binds a port of another loopback address, waits until a program of ours listens on that port of
    // every address, connects, sends a request and closes at once.
    constexpr std::uint32_t kOtherLoopback = INADDR_LOOPBACK + 0x100;
    int client = -1;
    int server = -1;
    int ours = -1;
    const std::uint16_t clientPort = openBound(client, kOtherLoopback, 0);
    openBound(ours, INADDR_ANY, clientPort);
    ASSERT_EQ(::listen(ours, 1), 0);
    const std::uint16_t serverPort = openBound(server, INADDR_LOOPBACK, 0);
    ASSERT_EQ(::listen(server, 1), 0);
    sockaddr_in there{};
    there.sin_family = AF_INET;
    there.sin_port = htons(serverPort);
    there.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(client, reinterpret_cast<const sockaddr*>(&there), sizeof there), 0);
    const int accepted = ::accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(accepted, 0);
    ClientUserCheck check;
    EXPECT_TRUE(check.isThisUser(accepted));
    {
        const test::NoDescriptors none;
        EXPECT_TRUE(check.isThisUser(accepted));
    }
    ::close(client);
    EXPECT_FALSE(check.isThisUser(accepted));
    for (const int socket : {accepted, server, ours}) {
        ::close(socket);
    }
}

/// Listens on a free port of an address until it is destroyed.
class Listener {
public:
    explicit Listener(const char* address)
        : socket_(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const int both = 0;  // also accepts IPv4, as mapped IPv6 addresses
        ::setsockopt(socket_, IPPROTO_IPV6, IPV6_V6ONLY, &both, sizeof both);
        sockaddr_in6 here{};
        here.sin6_family = AF_INET6;
        ::inet_pton(AF_INET6, address, &here.sin6_addr);
        auto* const any = reinterpret_cast<sockaddr*>(&here);
        socklen_t size = sizeof here;
        if (::bind(socket_, any, size) == 0 && ::listen(socket_, 1) == 0 && ::getsockname(socket_, any, &size) == 0) {
            port_ = ntohs(here.sin6_port);
        }
    }
    ~Listener() { ::close(socket_); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    /// 0 if the machine has no such address.
    [[nodiscard]] std::uint16_t port() const { return port_; }

private:
    const int socket_;
    std::uint16_t port_ = 0;
};

TEST(ListeningPort, OfThisUserIsFoundOnEveryLoopbackAddress) {
    for (const char* address : {"::ffff:127.0.0.1", "::1", "::", "::ffff:0.0.0.0"}) {
        const Listener listener(address);
        if (listener.port() != 0) {
            EXPECT_TRUE(userListensOnPort(listener.port())) << address;
        }
    }
}

TEST(ListeningPort, ThatWasClosedIsNotFound) {
    std::uint16_t port = 0;
    {
        const Listener listener("::ffff:127.0.0.1");
        port = listener.port();
        ASSERT_NE(port, 0);
    }
    EXPECT_FALSE(userListensOnPort(port));
    EXPECT_FALSE(userListensOnPort(0));
}

TEST(ListeningPort, OfAnotherUserIsNotFound) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    const Listener listener("::ffff:127.0.0.1");
    ASSERT_NE(listener.port(), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(::setuid(65534) == 0 && !userListensOnPort(listener.port()) ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace krv
