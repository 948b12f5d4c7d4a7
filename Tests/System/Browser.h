#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv::test {

/// A Chromium without a window, which shows one page. It is controlled over its remote debugging pipe.
class Browser {
public:
    /// Starts it with a profile of its own. Throws std::runtime_error if it exits at once.
    Browser();

    /// Loads a page and waits until it is loaded.
    void open(const std::string& url);
    /// Runs a script in the page, outside its content security policy, and returns the value of the last expression.
    nlohmann::json evaluate(const std::string& expression);
    /// Waits until an expression in the page is true.
    void waitUntilTrue(const std::string& expression);
    /// "light" or "dark".
    void prefer(const std::string& colorScheme);
    void setWidth(int pixels);
    void disableScripts();
    /// Calls a method of the protocol and returns its result.
    nlohmann::json call(std::string_view method, const nlohmann::json& parameters = nlohmann::json::object());

    /// Returns the addresses of all requests that the page has made so far.
    [[nodiscard]] std::vector<std::string> requests();
    /// Returns the status of the response to the latest request for an address, 0 if there was none.
    [[nodiscard]] int statusOf(const std::string& url);
    /// Returns the violations, errors and exceptions that the browser has reported so far.
    [[nodiscard]] std::vector<std::string> complaints();

private:
    /// Reads until this condition holds for a message, and returns that message. Keeps the events that come before.
    template <typename Condition>
    nlohmann::json readUntil(const Condition& condition);

    TemporaryFolder profile_;
    ChildProcess process_;
    std::string session_;
    int lastCall_ = 0;
    std::vector<nlohmann::json> events_;
};

}  // namespace krv::test
