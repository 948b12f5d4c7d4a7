#pragma once

#include <string>
#include <utility>
#include <vector>

namespace krv::server {

/// What is sent for a page.
struct Page {
    std::string body;
    /// The media type.
    std::string type = "application/json";
    /// Headers besides those of every response.
    std::vector<std::pair<std::string, std::string>> headers{};
};

}  // namespace krv::server
