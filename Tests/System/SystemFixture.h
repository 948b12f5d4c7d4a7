#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"
#include "WaitUntil.h"

namespace krv::test {

/// A running TestApplication and what it has printed.
class Application {
public:
    explicit Application(const std::string& executable, std::vector<std::string> arguments = {});

    void tell(const std::string& command) { process_.writeLine(command); }
    /// Reads until a line starts with the text and returns that line. Fails the test if the application exits first.
    std::string waitFor(const std::string& beginning);
    /// Sends a command and waits for a line that starts with the text.
    std::string ask(const std::string& command, const std::string& beginning);
    /// Reads until a conversion reports at least this progress, and returns it. Returns -1 if the conversion ends
    /// first.
    double waitForProgress(const std::string& id, double atLeast);
    /// Waits until a conversion ends. Returns how: "done", "error ...", "exception ...".
    std::string result(const std::string& id);
    /// Returns whether a line that starts with the text has been read so far.
    [[nodiscard]] bool hasSaid(const std::string& beginning) const;
    /// Returns the lines read so far that start with the text.
    [[nodiscard]] std::vector<std::string> linesOf(const std::string& beginning) const;

    [[nodiscard]] pid_t pid() const { return process_.pid(); }
    void kill();

private:
    ChildProcess process_;
    std::vector<std::string> lines_;
};

/// Tests of whole processes: applications with their own bundle, the real server, real time. Each test runs in its own
/// namespaces (see IsolatedMain.cpp), so no other server is running and no process outlives the test.
class SystemFixture : public testing::Test {
protected:
    SystemFixture();
    /// Kills the servers, which outlive the applications.
    ~SystemFixture() override;

    /// Installs an application, by default the TestApplication, and, beside it, the media server's bundle. Returns the
    /// application's path.
    std::string install(const std::string& name = "App", bool withServer = true,
                        const std::string& program = KRV_TEST_APPLICATION);
    /// Replaces the media server's program in the bundle by another one. An empty path leaves the bundle without a
    /// program.
    void replaceServer(const std::string& application, const std::string& program) const;
    static std::string bundleExecutable(const std::string& application);

    /// Returns the process ids of the running media servers.
    static std::vector<pid_t> servers();
    struct Serving {
        pid_t pid = 0;
        int port = 0;
    };
    /// Waits until a server responds at /status on a port of the range, and returns it. With a condition, waits for a
    /// server that meets it.
    static Serving waitForServer(const std::function<bool(const Serving&)>& suits = nullptr);
    /// Returns the page at /status, empty if nothing responds.
    static std::string status(int port);
    static void killServer(pid_t pid);

    std::string media(const char* name) const;
    std::string out(const std::string& name) const { return (outFolder() / name).string(); }
    std::filesystem::path outFolder() const { return folder.path() / "out"; }
    std::vector<std::string> filesInOut() const;
    /// Decodes a movie to its end and returns the seconds of video, -1 if it cannot be read.
    static double readableSeconds(const std::string& movie);

    TemporaryFolder folder;
};

}  // namespace krv::test
