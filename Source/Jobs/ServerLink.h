#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <KRVQTProcessClient/Jobs/Failure.h>
#include <KRVQTProcessClient/Platform/Clock.h>

namespace krv {

/// Knows the server that all jobs use. All members are for the thread of the HTTP loop.
class ServerLink {
public:
    virtual ~ServerLink();

    using Token = std::uint64_t;
    struct Waiter {
        /// How long to wait for a server to respond.
        Clock::Duration patience{};
        /// Called once, never within whenReady(): with nothing when a server responds, whose port is port() then, else
        /// with the reason why none can be expected.
        std::function<void(std::optional<Failure>)> answer{};
        /// Called with the reason why none responds yet, whenever it changes.
        std::function<void(const std::string&)> waiting{};
    };
    virtual Token whenReady(Waiter waiter) = 0;
    /// Drops a waiter. Does nothing if it has been answered.
    virtual void drop(Token token) = 0;

    /// Returns the port of the server, 0 if none is known to respond.
    [[nodiscard]] virtual long port() const = 0;
    /// Notes that the server on that port does not respond any more.
    virtual void lost(long port) = 0;
};

}  // namespace krv
