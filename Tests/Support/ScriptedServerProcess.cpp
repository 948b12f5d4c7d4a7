#include "ScriptedServerProcess.h"

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

namespace krv::test {
namespace {

std::vector<std::string> commandLine(const ScriptedServerProcess::Options& options) {
    std::vector<std::string> arguments{KRV_SCRIPTED_SERVER, "report", "yes"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return arguments;
}

/// Splits at the first occurrence of the separator.
std::pair<std::string, std::string> halves(const std::string& text, std::string_view separator) {
    const std::size_t at = std::min(text.find(separator), text.size());
    return {text.substr(0, at), text.substr(std::min(at + separator.size(), text.size()))};
}

std::string bytes(const std::string& hex) {
    std::string result;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        result += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return result;
}

}  // namespace

ScriptedServerProcess::ScriptedServerProcess(const Options& options)
    : process_(commandLine(options)) {
    const auto [word, port] = halves(process_.readLine().value_or(""), " ");
    if (word != "port") {
        throw std::runtime_error("the scripted server did not start");
    }
    port_ = std::stoi(port);
}

std::string ScriptedServerProcess::url(const std::string& path) const {
    return "http://localhost:" + std::to_string(port_) + path;
}

void ScriptedServerProcess::tell(const std::string& option, const std::string& value) {
    process_.writeLine(option + ' ' + value);
    readUntil("ok");
}

ScriptedServerProcess::Request ScriptedServerProcess::nextRequest() {
    while (pending_.empty()) {
        const auto line = process_.readLine();
        if (!line) {
            throw std::runtime_error("the scripted server has exited");
        }
        readReport(*line);
    }
    Request request = std::move(pending_.front());
    pending_.pop_front();
    return request;
}

void ScriptedServerProcess::waitForClose(int connection) {
    if (std::find(closed_.begin(), closed_.end(), connection) == closed_.end()) {
        readUntil("closed " + std::to_string(connection));
    }
}

int ScriptedServerProcess::connectionCount() {
    catchUp();
    return connections_;
}

int ScriptedServerProcess::requestCount() {
    catchUp();
    return requests_;
}

void ScriptedServerProcess::kill() {
    process_.signal(SIGKILL);
    process_.wait();
}

void ScriptedServerProcess::catchUp() {
    tell("report", "yes");
}

void ScriptedServerProcess::readUntil(const std::string& line) {
    for (auto read = process_.readLine(); read; read = process_.readLine()) {
        readReport(*read);
        if (*read == line) {
            return;
        }
    }
    throw std::runtime_error("the scripted server exited before it printed " + line);
}

void ScriptedServerProcess::readReport(const std::string& line) {
    const auto [word, rest] = halves(line, " ");
    if (word == "connection") {
        ++connections_;
    } else if (word == "closed") {
        closed_.push_back(std::stoi(rest));
    } else if (word == "request") {
        const auto [connection, methodAndPath] = halves(rest, " ");
        current_ = {};
        current_.connection = std::stoi(connection);
        std::tie(current_.method, current_.path) = halves(methodAndPath, " ");
    } else if (word == "header") {
        current_.headers.insert(halves(rest, ": "));
    } else if (word == "body") {
        current_.body = bytes(rest);
        pending_.push_back(std::move(current_));
        ++requests_;
    }
}

}  // namespace krv::test
