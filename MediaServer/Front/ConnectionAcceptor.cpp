#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include <KRVQTProcessClient/Foundation/MediaServerName.h>
#include <KRVQTProcessClient/KRVQTProcessClient.h>
#include <KRVQTProcessClient/Platform/PeerUser.h>
#include <KRVQTProcessClient/Platform/SignalsBlocked.h>

#include <MediaServer/Front/ConnectionAcceptor.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// How long a refused connection stays open, so that its client can read the refusal. Closing a socket that has unread
/// bytes resets the connection, and the client may lose the response.
constexpr auto kRefusalStays = 1s;
/// More refused connections than this do not stay open.
constexpr std::size_t kMostRefused = 16;
/// How long the acceptor waits for a descriptor before it tries again.
constexpr auto kShortage = 20ms;

std::string refusal() {
    constexpr std::string_view kText = "this server belongs to another user\n";
    return fmt::format("HTTP/1.1 403 Forbidden\r\nServer: {}/{}\r\nContent-Type: text/plain; charset=utf-8\r\n"
                       "Content-Length: {}\r\nConnection: close\r\n\r\n{}",
                       kMediaServerName, libraryVersion(), kText.size(), kText);
}

bool isShortage(int errorNumber) {
    return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOBUFS || errorNumber == ENOMEM;
}

/// A connection of another user that has been sent the refusal.
struct Refused {
    Descriptor socket;
    Clock::time_point closeAt;
};

}  // namespace

struct ConnectionAcceptor::Internals {
    Internals(ListeningSockets given, Handlers calls)
        : sockets(std::move(given))
        , handlers(std::move(calls))
        , stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (!stop) {
            throw std::system_error(errno, std::generic_category(), "eventfd");
        }
        thread = threadWithoutSignals("KRVAcceptor", [this] { run(); });
    }
    ~Internals() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto written = ::write(stop.get(), &one, sizeof one);
        thread.join();
    }
    Internals(const Internals&) = delete;
    Internals& operator=(const Internals&) = delete;

    void run() {
        for (;;) {
            std::vector<pollfd> waiting{{stop.get(), POLLIN, 0}};
            for (const Descriptor* const listener : {&sockets.ipv4, &sockets.ipv6}) {
                waiting.push_back({listener->get(), POLLIN, 0});  // poll ignores an empty descriptor
            }
            for (const Refused& each : refused) {
                waiting.push_back({each.socket.get(), POLLIN, 0});
            }
            if (::poll(waiting.data(), waiting.size(), timeout()) < 0 && errno != EINTR) {
                std::this_thread::sleep_for(kShortage);
            }
            if (waiting[0].revents != 0) {
                return;
            }
            closeRefused();
            for (const Descriptor* const listener : {&sockets.ipv4, &sockets.ipv6}) {
                if (*listener && !acceptFrom(listener->get()) && waitAfterShortage()) {
                    return;
                }
            }
        }
    }

    /// Returns the timeout for poll() in milliseconds; -1 for none.
    [[nodiscard]] int timeout() const {
        if (refused.empty()) {
            return -1;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(refused.front().closeAt - Clock::now());
        return static_cast<int>(std::max(left, 0ms).count());
    }

    /// Accepts all pending connections. Returns false if the process has no descriptor for the next one.
    bool acceptFrom(int listener) {
        for (;;) {
            Descriptor connection(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
            if (!connection) {
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                return !isShortage(errno);
            }
            if (users.isThisUser(connection.get())) {
                handlers.accepted(std::move(connection));
            } else {
                refuse(std::move(connection));
            }
        }
    }

    void refuse(Descriptor connection) {
        static const std::string kRefusal = refusal();
        // Fits into the empty send buffer of a new connection.
        [[maybe_unused]] const auto sent =
            ::send(connection.get(), kRefusal.data(), kRefusal.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::shutdown(connection.get(), SHUT_WR);
        if (refused.size() >= kMostRefused) {
            refused.pop_front();
        }
        refused.push_back({std::move(connection), Clock::now() + kRefusalStays});
    }

    /// Closes the refused connections whose clients have closed them or have had their time, and discards what the
    /// others have sent.
    void closeRefused() {
        const auto now = Clock::now();
        std::erase_if(refused, [now](const Refused& each) {
            std::array<char, 4096> discarded{};
            const ssize_t count = ::recv(each.socket.get(), discarded.data(), discarded.size(), MSG_DONTWAIT);
            return now >= each.closeAt || count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
        });
    }

    /// Returns whether the acceptor has been stopped.
    bool waitAfterShortage() {
        refused.clear();
        handlers.outOfDescriptors();
        pollfd stopped{stop.get(), POLLIN, 0};
        return ::poll(&stopped, 1, static_cast<int>(std::chrono::milliseconds(kShortage).count())) > 0;
    }

    const ListeningSockets sockets;
    const Handlers handlers;
    const Descriptor stop;
    ClientUserCheck users;
    /// Oldest first.
    std::deque<Refused> refused;
    std::thread thread;
};

ConnectionAcceptor::ConnectionAcceptor(ListeningSockets sockets, Handlers handlers)
    : internals_(std::make_unique<Internals>(std::move(sockets), std::move(handlers))) {}

ConnectionAcceptor::~ConnectionAcceptor() = default;

}  // namespace krv::server
