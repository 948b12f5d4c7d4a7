#pragma once

#include <string>
#include <variant>

namespace krv {

/// The parts of a loopback URL that a request needs.
struct LoopbackURL {
    /// "localhost", "127.0.0.1" or "[::1]".
    std::string host;
    /// 1 to 65535.
    long port = 0;
};

/// Parses a URL. Returns a sentence for people if it is not a URL, not http, not a loopback address, or has no port
/// from 1 to 65535.
[[nodiscard]] std::variant<LoopbackURL, std::string> readLoopbackURL(const std::string& url);

}  // namespace krv
