#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace krv::test {

/// A ScriptedServer running beside the test, and what it has been sent. It ends with the object. See the head of
/// ScriptedServer.cpp for its options.
class ScriptedServerProcess {
public:
    struct Request {
        /// Which connection it came on, counted from 1.
        int connection = 0;
        std::string method;
        std::string path;
        std::map<std::string, std::string> headers;
        std::string body;
    };
    using Options = std::vector<std::string>;

    /// Returns when the server listens. The options are "name", "value", "name", "value"...
    explicit ScriptedServerProcess(const Options& options = {});

    [[nodiscard]] int port() const { return port_; }
    /// "http://localhost:PORT" with the path behind it.
    [[nodiscard]] std::string url(const std::string& path = {}) const;
    [[nodiscard]] pid_t pid() const { return process_.pid(); }

    /// Changes how it behaves from now on; returns when that is in force.
    void tell(const std::string& option, const std::string& value);
    /// Waits for the next request and takes it.
    Request nextRequest();
    /// Waits until the other side has closed that connection.
    void waitForClose(int connection);
    /// How many connections and requests it has reported up to now, those that were taken included.
    int connectionCount();
    int requestCount();

    /// Ends it at once, in the middle of whatever it does.
    void kill();

private:
    /// Reads up to and including the line, keeping what is reported on the way.
    void readUntil(const std::string& line);
    void readReport(const std::string& line);
    /// Everything that has happened before now is known after this.
    void catchUp();

    ChildProcess process_;
    int port_ = 0;
    int connections_ = 0;
    int requests_ = 0;
    std::deque<Request> pending_;
    std::vector<int> closed_;
    Request current_;
};

}  // namespace krv::test
