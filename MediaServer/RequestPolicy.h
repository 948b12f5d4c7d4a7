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
    /// Every Host header.
    std::vector<std::string_view> hosts;
    bool hasOrigin = false;
    std::optional<std::size_t> contentLength;
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

/// What becomes of a request. Neither a web page (which sends an Origin, or another Host after its name was bound to
/// this machine) nor another user gets further than this.
[[nodiscard]] Verdict judge(const RequestHead& head);

}  // namespace krv::server
