#include "RequestPolicy.h"

#include <algorithm>
#include <array>

namespace krv::server {
namespace {

bool isDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// localhost, 127.0.0.1 or [::1], with or without a port.
bool isThisMachine(std::string_view host) {
    constexpr std::array<std::string_view, 3> kNames{"localhost", "127.0.0.1", "[::1]"};
    return std::any_of(kNames.begin(), kNames.end(), [host](std::string_view name) {
        if (host.substr(0, name.size()) != name) {
            return false;
        }
        const std::string_view rest = host.substr(name.size());
        return rest.empty() || (rest.size() > 1 && rest.front() == ':' && isDigits(rest.substr(1)));
    });
}

}  // namespace

Verdict judge(const RequestHead& head) {
    using Action = Verdict::Action;
    if (!head.peerIsUser) {
        return {Action::Refuse, 403, "this server belongs to another user\n"};
    }
    if (head.hasOrigin || head.hosts.size() != 1 || !isThisMachine(head.hosts.front())) {
        return {Action::Refuse, 403, "only programs on this machine are served\n"};
    }
    if (head.target == "/status") {
        return head.method == "GET" ? Verdict{Action::Status}
                                    : Verdict{Action::Refuse, 405, "the status is there to be read\n"};
    }
    if (head.target != "/") {
        return {Action::Refuse, 404, "there is nothing here\n"};
    }
    if (head.method != "POST") {
        return {Action::Refuse, 405, "operations are posted\n"};
    }
    if (head.contentLength && *head.contentLength > kLargestRequest) {
        return {Action::Refuse, 413, "a record has at most 16 MiB\n"};
    }
    return {Action::Operation};
}

}  // namespace krv::server
