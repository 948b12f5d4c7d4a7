// Servers that cannot be started: how an application's call ends, what its log says, and what krvqt prints.
#include <fstream>
#include <iterator>

#include "SystemFixture.h"

namespace krv::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr const char* kGivenUp =
    "exception OperationFailed: Call to "
    "convertMovie:writeToFile:type:flattenOnly:progress:error: failed. The server couldn't "
    "be contacted";

class BadBundle : public SystemFixture {
protected:
    BadBundle() {
        tool = folder.path() / "krvqt-place" / "krvqt";
        fs::create_directories(fs::path(tool).parent_path());
        fs::copy_file(KRV_KRVQT, tool);
    }
    /// Installs a program in place of the server, in a bundle beside krvqt and in one beside an application.
    void bundle(const std::string& program) {
        replaceServer(tool, program);
        application = install("App", false);
        replaceServer(application, program);
    }
    std::string program(const std::string& contents, fs::perms permissions = fs::perms::owner_all) const {
        const std::string path = folder.write("program", contents);
        fs::permissions(path, permissions);
        return path;
    }
    /// Runs a conversion with krvqt and returns what it prints on standard error, and its exit status.
    std::pair<std::string, int> krvqt() const {
        ChildProcess process({"sh", "-c", "exec \"$0\" convert \"$1\" \"$2\" --wait 6 --quiet 2>&1", tool,
                              media("plain.mov"), out("out.mp4")});
        std::string text = process.readAll();
        const int status = process.wait();
        return {text, status};
    }
    /// Expects krvqt to fail with this cause, and to say nothing else.
    void expectKrvqtToFail(
        const testing::Matcher<std::string>& cause,
        const std::string& message = "The media server could not be started.",
        const std::string& suggestion = "Reinstall the application, which contains the media server.") const {
        const auto [text, status] = krvqt();
        EXPECT_EQ(status, 3);
        const std::string before = "krvqt: " + message + "\n  cause: ";
        const std::string after = "\n  try:   " + suggestion + '\n';
        ASSERT_THAT(text, AllOf(StartsWith(before), EndsWith(after)));
        EXPECT_THAT(text.substr(before.size(), text.size() - before.size() - after.size()), cause);
        EXPECT_THAT(filesInOut(), testing::IsEmpty());
    }
    /// Expects the application's log to have a line with this beginning that contains the rest.
    void expectLog(const std::string& beginning, const std::string& rest = {}) const {
        Application app(application);
        app.ask("log", "logging");
        EXPECT_THAT(app.waitFor("log " + beginning), HasSubstr(rest));
    }

    std::string tool;
    std::string application;
};

TEST_F(BadBundle, MissingIsLoggedAndTheCallThrows) {
    application = install("App", false);
    Application app(application);
    app.ask("log", "logging");
    app.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    EXPECT_THAT(app.waitFor("log There is no KRVQuicktimeProcess.app in "),
                HasSubstr(fs::path(application).parent_path().string()));
    app.waitFor("log Error during ServerRunner thread loop: Cannot find the executable (null). Can't start server");
    EXPECT_EQ(app.result("one"), kGivenUp);
}

TEST_F(BadBundle, MissingIsReportedByKrvqt) {
    expectKrvqtToFail("there is no KRVQuicktimeProcess.app beside the application or its library to start it from");
}

TEST_F(BadBundle, WithoutAnExecutableIsReported) {
    bundle("");
    expectKrvqtToFail(bundleExecutable(tool) + " cannot be launched: No such file or directory");
    expectLog("Error during ServerRunner thread loop: ", "cannot be launched: No such file or directory");
}

TEST_F(BadBundle, NotExecutableIsReported) {
    bundle(program("#!/bin/sh\n", fs::perms::owner_read));
    expectKrvqtToFail(bundleExecutable(tool) + " cannot be launched: Permission denied");
    expectLog("Error during ServerRunner thread loop: ", "cannot be launched: Permission denied");
}

TEST_F(BadBundle, ForAnotherArchitectureIsReported) {
    // The header of a program for another processor, without any contents.
    std::string elf("\x7f"
                    "ELF\x02\x01\x01",
                    7);
    elf.resize(16);
    elf += std::string("\x02\x00\xf3\x00\x01\x00\x00\x00", 8);
    elf.resize(64);
    bundle(program(elf));
    expectKrvqtToFail(bundleExecutable(tool) + " cannot be launched: Exec format error");
    expectLog("Error during ServerRunner thread loop: ", "cannot be launched: Exec format error");
}

TEST_F(BadBundle, CrashingAtOnceIsReportedWithItsOutputFile) {
    bundle(program("#!/bin/sh\necho \"a library is missing\" >&2\nexit 127\n"));
    const std::string file = (folder.path() / "state/KRVQuicktimeProcess/standard-error.log").string();
    expectKrvqtToFail(bundleExecutable(tool) + " was launched and exited at once; its output is in " + file);
    std::ifstream in(file);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "a library is missing\n");
    expectLog("The server that was launched, process ", " has ended");
}

TEST_F(BadBundle, ThatNeverPublishesIsReported) {
    bundle(KRV_SILENT_SERVER);
    expectKrvqtToFail(MatchesRegex("launched as process [0-9]+, but it does not respond yet"),
                      "The media server could not be reached within 6 s.", "Try again.");
}

TEST_F(BadBundle, ThatNeverPublishesIsWaitedForAndNotLaunchedTwice) {
    bundle(KRV_SILENT_SERVER);
    Application app(application);
    app.ask("log", "logging");
    app.tell("convert one " + media("plain.mov") + ' ' + out("one.mp4"));
    app.waitFor("log Waited long enough (10s) for server to appear as alive. Giving up, starting again");
    app.waitFor("log Looks like a server is already running.");
    EXPECT_EQ(app.result("one"), kGivenUp);
    EXPECT_THAT(servers(), testing::SizeIs(1));
}

}  // namespace
}  // namespace krv::test
