#include "Browser.h"

#include <stdexcept>

#include <fmt/format.h>

#include "WaitUntil.h"

namespace krv::test {
namespace {

using Json = nlohmann::json;

// The browser reads messages from descriptor 3 and writes them to 4, each with a zero byte behind it. It has no sandbox
// of its own, because the tests run as root in their namespaces, which isolate it.
constexpr const char* kScript = R"(
stdbuf -o0 tr '\n' '\0' | chromium --headless=new --no-sandbox --disable-gpu --disable-dev-shm-usage --no-first-run \
    --disable-background-networking --disable-component-update --user-data-dir="$1" --remote-debugging-pipe \
    about:blank 3<&0 4>&1 >/dev/null 2>&1 | stdbuf -o0 tr '\0' '\n'
)";

}  // namespace

Browser::Browser()
    : process_({"sh", "-c", kScript, "sh", profile_.path()}) {
    const auto target = call("Target.createTarget", {{"url", "about:blank"}})["targetId"];
    session_ = call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}})["sessionId"];
    for (const char* domain : {"Network", "Page", "Log", "Runtime", "Audits"}) {
        call(fmt::format("{}.enable", domain));
    }
}

template <typename Condition>
Json Browser::readUntil(const Condition& condition) {
    while (const auto line = process_.readLine()) {
        Json message = Json::parse(*line);
        if (condition(message)) {
            return message;
        }
        events_.push_back(std::move(message));
    }
    throw std::runtime_error("chromium has exited, or is not installed");
}

Json Browser::call(std::string_view method, const Json& parameters) {
    const int id = ++lastCall_;
    Json message{{"id", id}, {"method", method}, {"params", parameters}};
    if (!session_.empty()) {
        message["sessionId"] = session_;
    }
    process_.writeLine(message.dump());
    const Json reply = readUntil([id](const Json& each) { return each.value("id", 0) == id; });
    if (reply.contains("error")) {
        throw std::runtime_error(fmt::format("{}: {}", method, reply["error"].dump()));
    }
    return reply["result"];
}

void Browser::open(const std::string& url) {
    call("Page.navigate", {{"url", url}});
    events_.push_back(readUntil([](const Json& each) { return each.value("method", "") == "Page.loadEventFired"; }));
}

Json Browser::evaluate(const std::string& expression) {
    const Json reply =
        call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    if (reply.contains("exceptionDetails")) {
        throw std::runtime_error(reply["exceptionDetails"].dump());
    }
    return reply["result"].value("value", Json());
}

void Browser::waitUntilTrue(const std::string& expression) {
    waitUntil([&] { return evaluate("!!(" + expression + ")") == true; });
}

void Browser::prefer(const std::string& colorScheme) {
    call("Emulation.setEmulatedMedia", {{"features", {{{"name", "prefers-color-scheme"}, {"value", colorScheme}}}}});
}

void Browser::setWidth(int pixels) {
    constexpr int kHeight = 800;
    call("Emulation.setDeviceMetricsOverride",
         {{"width", pixels}, {"height", kHeight}, {"deviceScaleFactor", 1}, {"mobile", false}});
}

void Browser::disableScripts() {
    call("Emulation.setScriptExecutionDisabled", {{"value", true}});
}

std::vector<std::string> Browser::requests() {
    std::vector<std::string> urls;
    for (const Json& event : events_) {
        if (event.value("method", "") == "Network.requestWillBeSent") {
            urls.push_back(event["params"]["request"]["url"]);
        }
    }
    return urls;
}

int Browser::statusOf(const std::string& url) {
    int status = 0;
    for (const Json& event : events_) {
        if (event.value("method", "") == "Network.responseReceived" && event["params"]["response"]["url"] == url) {
            status = event["params"]["response"]["status"];
        }
    }
    return status;
}

std::vector<std::string> Browser::complaints() {
    std::vector<std::string> all;
    for (const Json& event : events_) {
        const std::string method = event.value("method", "");
        if (method == "Log.entryAdded" || method == "Audits.issueAdded" || method == "Runtime.exceptionThrown" ||
            method == "Runtime.consoleAPICalled" || method == "Page.javascriptDialogOpening") {
            all.push_back(event.dump());
        }
    }
    return all;
}

}  // namespace krv::test
