#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

/// The path of the program krv-fake-server. CMake's target KRVQTProcessClient::TestKit sets it.
#ifndef KRV_FAKE_SERVER_PROGRAM
#define KRV_FAKE_SERVER_PROGRAM "krv-fake-server"
#endif

/// For the tests of applications: a media server that is played from a script.
namespace krv::test_kit {

/// A media server that behaves as a script says, for as long as the object lives.
///
/// The first one of a process makes a temporary folder and lets the environment variables XDG_RUNTIME_DIR and
/// XDG_STATE_HOME of this process point to it, for the rest of the process. So this process and its children find the
/// fake server, and no other one is launched beside it. Create it before anything uses the client library, because
/// other threads may read the environment.
///
/// Only one exists at a time. The next one listens on the same port, so a client that knows the port finds it at once.
/// Thread-safe.
class FakeServer {
public:
    /// A request that has arrived.
    struct Request {
        /// As in scripts: "convert", "progress", ...
        std::string operation;
        /// Its number among the requests of that operation, from 1.
        std::size_t nth = 0;
        /// Paths; empty if the request has none.
        std::string source;
        std::string destination;
        /// The process that the request names as its sender.
        pid_t client = 0;
    };

    /// Starts the server and returns when it listens. script: the text of a script, which Documentation/test-kit.md
    /// describes. program: looked up in PATH if it has no slash. Throws std::invalid_argument for a script that cannot
    /// be played, with the line and the reason; std::logic_error if there is another FakeServer; and std::runtime_error
    /// if the program does not start.
    explicit FakeServer(std::string_view script, const std::string& program = KRV_FAKE_SERVER_PROGRAM);
    /// Ends the server and waits until it has exited.
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    [[nodiscard]] int port() const;
    /// Returns the process id of the server; 0 while there is none, because it has died.
    [[nodiscard]] pid_t pid() const;
    /// Returns how often the server has died.
    [[nodiscard]] std::size_t deaths() const;
    /// Returns all requests so far, in the order of their arrival. Every request that has had a response is among them.
    [[nodiscard]] std::vector<Request> requests() const;
    /// Returns how many of them are for that operation.
    [[nodiscard]] std::size_t requestCount(std::string_view operation) const;

    /// Blocks until so many requests for that operation have arrived. Throws std::runtime_error if the program ends.
    void waitForRequests(std::string_view operation, std::size_t count) const;
    /// Blocks until the server has died so often. Throws std::runtime_error if the program ends.
    void waitForDeaths(std::size_t count) const;
    /// Opens a gate of the script: the operations that wait at it go on, and later ones do not wait. Throws
    /// std::invalid_argument if the script has no such gate.
    void open(std::string_view gate);
    /// Kills the server as a crash would, and returns when it has died. The script says whether another one follows.
    void kill();

    /// Returns the folder to which the environment points.
    [[nodiscard]] static std::filesystem::path folder();

private:
    class Process;
    std::unique_ptr<Process> process_;
};

}  // namespace krv::test_kit
