#include <algorithm>
#include <array>
#include <optional>

#include <MediaServer/Front/RequestPolicy.h>

namespace krv::server {
namespace {

bool isDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Returns whether the host is localhost, 127.0.0.1 or [::1], with or without a port.
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

/// Returns whether a request was typed by a person or comes from a page of this server itself.
bool isOwnSite(std::string_view fetchSite) {
    return fetchSite == "none" || fetchSite == "same-origin";
}

bool areSameLetter(char a, char b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(a) == lower(b);
}

bool isChunked(std::string_view encoding) {
    constexpr std::string_view kChunked = "chunked";
    return std::equal(encoding.begin(), encoding.end(), kChunked.begin(), kChunked.end(), areSameLetter);
}

bool merelyBeginsLikeOneThatMatters(std::string_view name) {
    constexpr std::array<std::string_view, 4> kNames{"Host", "Origin", "Content-Length", "Transfer-Encoding"};
    return std::any_of(kNames.begin(), kNames.end(), [name](std::string_view each) {
        return name.size() > each.size() && std::equal(each.begin(), each.end(), name.begin(), areSameLetter);
    });
}

/// Returns whether the headers give the length of the body in exactly one way, or there is no body.
bool hasUnambiguousLength(const RequestHead& head) {
    if (head.transferEncodings.empty()) {
        return head.contentLengths <= 1;
    }
    return head.contentLengths == 0 && head.version == "HTTP/1.1" && head.transferEncodings.size() == 1 &&
           isChunked(head.transferEncodings.front());
}

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isControlCharacter(char c) {
    return (c >= 0 && c < ' ' && c != '\t') || c == '\x7F';
}

Verdict refusal(unsigned status, std::string_view text) {
    return {.action = Verdict::Action::Refuse, .status = status, .text = text};
}

/// Returns the page at this path.
std::optional<PageName> pageAt(std::string_view path) {
    if (path == "/status") {
        return PageName::Status;
    }
    if (path == "/activity") {
        return PageName::Activity;
    }
    return path == "/activity.json" ? std::optional(PageName::ActivityData) : std::nullopt;
}

}  // namespace

bool isWellFormedHeader(std::string_view name, std::string_view value) {
    return !name.empty() && std::all_of(name.begin(), name.end(), isNameCharacter) &&
           !merelyBeginsLikeOneThatMatters(name) && std::none_of(value.begin(), value.end(), isControlCharacter);
}

Verdict judge(const RequestHead& head) {
    using Action = Verdict::Action;
    const bool fromWebPage = head.hasOrigin || !std::all_of(head.fetchSites.begin(), head.fetchSites.end(), isOwnSite);
    if (fromWebPage || head.hosts.size() != 1 || !isThisMachine(head.hosts.front())) {
        return refusal(403, "only programs on this machine are served\n");
    }
    if (head.malformedHeaders || !hasUnambiguousLength(head)) {
        return refusal(400, "ambiguous request framing\n");
    }
    if (const auto page = pageAt(head.target)) {
        return head.method == "GET" ? Verdict{.action = Action::Page, .page = *page}
                                    : refusal(405, "pages only support GET\n");
    }
    if (head.target != "/") {
        return refusal(404, "not found\n");
    }
    if (head.method != "POST") {
        return refusal(405, "operations only support POST\n");
    }
    if (head.contentLength && *head.contentLength > kLargestRequest) {
        return refusal(413, "the record exceeds 16 MiB\n");
    }
    return {.action = Action::Operation};
}

}  // namespace krv::server
