#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace krv::test {

/// A ScriptedServer that runs beside the test, and the requests that it received. The destructor kills it. Its options
/// are described at the top of ScriptedServer.cpp.
class ScriptedServerProcess {
public:
    struct Request {
        /// The connection that it arrived on, counted from 1.
        int connection = 0;
        std::string method;
        std::string path;
        std::map<std::string, std::string> headers;
        std::string body;
    };
    using Options = std::vector<std::string>;

    /// Starts the server and returns when it listens. The options are "name", "value", "name", "value"...
    explicit ScriptedServerProcess(const Options& options = {});

    [[nodiscard]] int port() const { return port_; }
    /// Returns "http://localhost:PORT" followed by the path.
    [[nodiscard]] std::string url(const std::string& path = {}) const;
    [[nodiscard]] pid_t pid() const { return process_.pid(); }

    /// Sets an option and returns when the server has applied it.
    void tell(const std::string& option, const std::string& value);
    /// Waits for the next request and returns it.
    Request nextRequest();
    /// Waits until the peer has closed that connection.
    void waitForClose(int connection);
    /// Return the number of connections and requests so far, including those already returned.
    int connectionCount();
    int requestCount();

    /// Kills the server, in the middle of whatever it is doing.
    void kill();

private:
    /// Reads up to and including the line, and records the reports before it.
    void readUntil(const std::string& line);
    void readReport(const std::string& line);
    /// Reads the reports of everything that has happened so far.
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
