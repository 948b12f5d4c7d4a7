#pragma once

#include <string>
#include <variant>

namespace krv {

/// A URL of this machine's own servers, taken apart as far as a request needs it.
struct LoopbackURL {
    /// "localhost", "127.0.0.1" or "[::1]".
    std::string host;
    /// 1 to 65535.
    long port = 0;
};

/// Reads a URL, or says in a sentence for people why nothing may be sent there: it is none, not of http, not to a
/// loopback address, or without a port from 1 to 65535.
[[nodiscard]] std::variant<LoopbackURL, std::string> readLoopbackURL(const std::string& url);

}  // namespace krv
