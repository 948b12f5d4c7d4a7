#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krv::server {

/// The largest record that is taken.
inline constexpr std::size_t kLargestRequest = std::size_t{16} << 20;

/// What a request's head says, before any of its body is read.
struct RequestHead {
    std::string_view method;
    /// As sent: a path, or a whole address.
    std::string_view target;
    /// "HTTP/1.1", for one.
    std::string_view version = "HTTP/1.1";
    /// Every Host header.
    std::vector<std::string_view> hosts;
    bool hasOrigin = false;
    std::optional<std::size_t> contentLength;
    /// How many Content-Length headers there are.
    unsigned contentLengths = 0;
    /// Every Transfer-Encoding header.
    std::vector<std::string_view> transferEncodings;
    /// Whether a header has a name that is none, or a value with control characters in it.
    bool crookedHeaders = false;
    /// Whether the socket's other end belongs to this user.
    bool peerIsUser = false;
};

struct Verdict {
    enum class Action { Status, Operation, Refuse };
    Action action;
    /// For Refuse.
    unsigned status = 0;
    std::string_view text = {};
};

/// Whether this is a header as the protocol knows it: a name of the characters that names have, a value without control
/// characters but the tabulator. Of a header that goes on in a second line the HTTP library glues that line to the
/// name, so a name that only begins like one that matters here is none either.
[[nodiscard]] bool isWellFormedHeader(std::string_view name, std::string_view value);

/// What becomes of a request. Nothing is served of which two readers could say different things where it ends, because
/// what one of them takes for its body another would carry out as the next request. Neither a web page (which sends an
/// Origin, or another Host after its name was bound to this machine) nor another user gets further than this.
[[nodiscard]] Verdict judge(const RequestHead& head);

}  // namespace krv::server
