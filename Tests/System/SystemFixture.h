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

/// A running TestApplication and what it has said.
class Application {
public:
    explicit Application(const std::string& executable, std::vector<std::string> arguments = {});

    void tell(const std::string& command) { process_.writeLine(command); }
    /// Reads until a line begins so, and returns it; fails the test when the application ends before.
    std::string waitFor(const std::string& beginning);
    /// Tells and waits.
    std::string ask(const std::string& command, const std::string& beginning);
    /// The progress that a conversion has reported; reads until it is at least that, or the conversion has ended.
    double waitForProgress(const std::string& id, double atLeast);
    /// How a conversion ended: "done", "error ...", "exception ...".
    std::string result(const std::string& id);
    /// Whether a line that begins so has been read up to now.
    [[nodiscard]] bool hasSaid(const std::string& beginning) const;

    [[nodiscard]] pid_t pid() const { return process_.pid(); }
    void kill();

private:
    ChildProcess process_;
    std::vector<std::string> lines_;
};

/// Whole processes: applications with a bundle of their own, the real server, real time. In a world of their own (see
/// IsolatedMain.cpp): no other server runs, and what a test leaves behind ends with it.
class SystemFixture : public testing::Test {
protected:
    SystemFixture();
    /// Ends the servers, which outlive everybody else.
    ~SystemFixture() override;

    /// Places an application and, beside it, the media server's bundle; returns the application's path.
    std::string install(const std::string& name = "App", bool withServer = true);
    /// Puts a program of the test's own in the place of the media server's. An empty one leaves the bundle without it.
    void replaceServer(const std::string& application, const std::string& program) const;
    static std::string bundleExecutable(const std::string& application);

    /// Process ids of the running media servers.
    static std::vector<pid_t> servers();
    /// The one that serves: waits until /status on some port of the range answers with it.
    struct Serving {
        pid_t pid = 0;
        int port = 0;
    };
    static Serving waitForServer(const std::function<bool(const Serving&)>& suits = nullptr);
    /// What /status tells; empty when nothing answers.
    static std::string status(int port);
    static void killServer(pid_t pid);

    std::string media(const char* name) const;
    std::string out(const std::string& name) const { return (outFolder() / name).string(); }
    std::filesystem::path outFolder() const { return folder.path() / "out"; }
    std::vector<std::string> filesInOut() const;
    /// Seconds of video that can be read from a movie to its end; -1 when it cannot be read.
    static double readableSeconds(const std::string& movie);

    TemporaryFolder folder;
};

}  // namespace krv::test
