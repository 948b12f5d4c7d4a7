#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace krv::server {

/// The largest record that is accepted, in bytes.
inline constexpr std::size_t kLargestRequest = std::size_t{16} << 20;

/// Request line and headers of a request, before its body is read.
struct RequestHead {
    std::string_view method;
    /// As sent: a path or an absolute URI.
    std::string_view target;
    /// Such as "HTTP/1.1".
    std::string_view version = "HTTP/1.1";
    /// Every Host header.
    std::vector<std::string_view> hosts;
    bool hasOrigin = false;
    /// Every Sec-Fetch-Site header. Browsers send one with each request.
    std::vector<std::string_view> fetchSites;
    std::optional<std::size_t> contentLength;
    /// How many Content-Length headers there are.
    unsigned contentLengths = 0;
    /// Every Transfer-Encoding header.
    std::vector<std::string_view> transferEncodings;
    /// From the header kPidNamespaceHeader.
    std::optional<std::uint64_t> pidNamespace;
    /// Whether a header has an invalid name, or a value with control characters.
    bool malformedHeaders = false;
};

/// The pages that the server shows.
enum class PageName { Status, Activity, ActivityData };

struct Verdict {
    enum class Action { Page, Operation, Refuse };
    Action action;
    /// For Page.
    PageName page = PageName::Status;
    /// For Refuse.
    unsigned status = 0;
    std::string_view text = {};
};

/// Returns whether a header is valid: its name has only the characters of a token, and its value no control characters
/// except tabs. The HTTP library appends the second line of a folded header to its name. So a name that merely begins
/// like one that matters here is invalid, too.
[[nodiscard]] bool isWellFormedHeader(std::string_view name, std::string_view value);

/// Decides whether to serve a request. Pure.
///
/// Requests whose end two parsers could see in different places are refused: what one takes for the body, the other
/// would carry out as the next request. So are requests of web pages. A page's request has an Origin, or a
/// Sec-Fetch-Site that names another site, or after DNS rebinding another Host.
[[nodiscard]] Verdict judge(const RequestHead& head);

}  // namespace krv::server
