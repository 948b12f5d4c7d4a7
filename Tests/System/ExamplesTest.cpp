// Each example launches a server if none is running, converts a movie and exits by itself.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>

#include "PrivateBus.h"
#include "SystemFixture.h"
#ifdef KRV_HAS_X11
#include "ApplicationWindow.h"
#endif

namespace krv::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using testing::UnorderedElementsAre;

struct Example {
    const char* name;
    const char* program;
    /// The display that it needs.
    enum Display { None, OwnXServer, Offscreen, OffscreenWithoutGLib } display;

    friend void PrintTo(const Example& example, std::ostream* out) { *out << example.name; }
};

class Examples : public SystemFixture, public testing::WithParamInterface<Example> {
protected:
    Examples() {
        ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        switch (GetParam().display) {
        case Example::None:
            break;
        case Example::OwnXServer:
            startXServer();
            break;
        case Example::OffscreenWithoutGLib:
            ::setenv("QT_NO_GLIB", "1", 1);
            [[fallthrough]];
        case Example::Offscreen:
            ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
            break;
        }
    }
    ~Examples() override {
        for (const char* name : {"DISPLAY", "GDK_BACKEND", "GSK_RENDERER", "GTK_A11Y", "GSETTINGS_BACKEND",
                                 "QT_QPA_PLATFORM", "QT_NO_GLIB", "DBUS_SESSION_BUS_ADDRESS"}) {
            ::unsetenv(name);
        }
    }

    /// Starts an X server on the test's own loopback interface, so that it leaves no socket in /tmp. The X servers of one
    /// machine share a file that is named after the display, so each test needs a display of its own. A reset, when the
    /// last window is closed, would write that file again, and leave it if the server is killed then.
    void startXServer() {
        std::random_device random;
        const int number = std::uniform_int_distribution(10'000, 20'000)(random);
        xServer = std::make_unique<ChildProcess>(
            std::vector<std::string>{"Xvfb", ":" + std::to_string(number), "-displayfd", "1", "-noreset", "-nolisten",
                                     "unix", "-nolisten", "local", "-listen", "tcp", "-screen", "0", "1024x768x24"});
        const auto display = xServer->readLine();
        ASSERT_TRUE(display) << "Xvfb did not start";
        ::setenv("DISPLAY", ("127.0.0.1:" + *display).c_str(), 1);
        ::setenv("GDK_BACKEND", "x11", 1);
        ::setenv("QT_QPA_PLATFORM", "xcb", 1);
        ::setenv("GSK_RENDERER", "cairo", 1);
        ::setenv("GTK_A11Y", "none", 1);
        ::setenv("GSETTINGS_BACKEND", "memory", 1);
    }

    std::unique_ptr<ChildProcess> xServer;
};

TEST_P(Examples, ConvertsAMovieWithNoServerRunningBefore) {
    ASSERT_THAT(servers(), IsEmpty());
    ChildProcess example({GetParam().program, media("plain.mov"), out("plain.mp4")});
    EXPECT_EQ(example.wait(), 0);
    EXPECT_NEAR(readableSeconds(out("plain.mp4")), 2.0, 0.1);
    EXPECT_THAT(filesInOut(), ElementsAre("plain.mp4"));
    EXPECT_THAT(servers(), SizeIs(1));
}

TEST_P(Examples, ExitsWithAFailureIfTheSourceIsNotAMovie) {
    ChildProcess example({GetParam().program, media("text.mp4"), out("text.mp4")});
    EXPECT_EQ(example.wait(), 1);
    EXPECT_THAT(filesInOut(), IsEmpty());
}

/// A machine that sleeps and wakes until it rests, on a system bus of the test's own.
class RestlessMachine {
public:
    RestlessMachine() {
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_.address().c_str(), 1);
        thread_ = std::thread([this] {
            MockLogind logind(bus_);
            while (!rests_) {
                logind.prepareForSleep(true);
                logind.prepareForSleep(false);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
        });
    }
    ~RestlessMachine() {
        rest();
        ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    RestlessMachine(const RestlessMachine&) = delete;
    RestlessMachine& operator=(const RestlessMachine&) = delete;

    /// Lets the machine be awake from now on.
    void rest() {
        rests_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    PrivateBus bus_;
    std::atomic<bool> rests_{false};
    std::thread thread_;
};

/// Examples on a machine that sleeps and wakes. After a wake the steps of the server runner run on the example's own main
/// loop.
class WakingExamples : public Examples {
protected:
    /// Returns the command line of an example whose output has the lines of the library's log too.
    static std::vector<std::string> logged(const std::vector<std::string>& command) {
        std::vector<std::string> all{"sh", "-c", "exec env LD_PRELOAD=\"$0\" \"$@\" 2>&1", KRV_LOGGED_LIBRARY};
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }
    /// Returns the next line of the output that contains the text.
    static std::string lineWith(ChildProcess& example, const std::string& text) {
        while (const auto line = example.readLine()) {
            if (line->find(text) != std::string::npos) {
                return *line;
            }
        }
        ADD_FAILURE() << "the example has exited before it wrote: " << text;
        return {};
    }
    /// Waits until the example has noticed a sleep and a wake.
    static void waitForWake(ChildProcess& example) { lineWith(example, "Wakey wakey"); }
    /// Waits until a worker converts the movie, and stops that worker, so the conversion does not end. Skips one that
    /// was killed.
    pid_t stopWorker(pid_t otherThan = 0) const {
        pid_t found = 0;
        waitUntil([&] { return (found = converter()) != 0 && found != otherThan; });
        EXPECT_EQ(::kill(found, SIGSTOP), 0);
        return found;
    }

    RestlessMachine machine;

private:
    /// Returns the process id of the worker that has the unnamed file of the output open, 0 if there is none.
    pid_t converter() const {
        std::error_code failure;
        for (const auto& process : std::filesystem::directory_iterator("/proc")) {
            std::string name;
            if (!(std::ifstream(process.path() / "comm") >> name) || name != "KRVMediaWorker") {
                continue;
            }
            for (const auto& file : std::filesystem::directory_iterator(process.path() / "fd", failure)) {
                if (std::filesystem::read_symlink(file.path(), failure).string().starts_with(outFolder().string())) {
                    return std::stoi(process.path().filename());
                }
            }
        }
        return 0;
    }
};

/// A machine that never stays awake for a second leaves the runner no step. So it is a later one that registers.
TEST_P(WakingExamples, RegisterWithAnotherServerAfterAWakeAndConvert) {
    ChildProcess example(logged({GetParam().program, media("long.mov"), out("long.mp4")}));
    const pid_t killed = stopWorker();
    waitForWake(example);
    killServer(waitForServer().pid);
    const pid_t worker = stopWorker(killed);
    machine.rest();
    lineWith(example, "Registration complete");
    EXPECT_EQ(::kill(worker, SIGCONT), 0);
    EXPECT_EQ(example.wait(), 0);
    EXPECT_NEAR(readableSeconds(out("long.mp4")), 30.0, 0.5);
    EXPECT_THAT(filesInOut(), ElementsAre("long.mp4"));
}

TEST_P(Examples, ExitsWithAFailureIfTheServerCannotBeLaunched) {
    const std::string alone = (folder.path() / "Example").string();
    std::filesystem::copy_file(GetParam().program, alone);
    ChildProcess example({alone, media("plain.mov"), out("plain.mp4")});
    EXPECT_EQ(example.wait(), 1);
    EXPECT_THAT(filesInOut(), IsEmpty());
}

/// The examples with a window. They treat the movies after "--report" as if a person had dropped them, and print what the
/// row of each shows in the end.
class WindowExamples : public Examples {
protected:
    /// Copies a movie into the folder of outputs, where nothing else keeps it from being converted beside itself.
    [[nodiscard]] std::string dropped(const char* name, const std::string& as) const {
        std::filesystem::copy_file(media(name), out(as));
        return out(as);
    }
    /// Returns what the next rows show.
    static std::vector<std::string> rows(ChildProcess& example, std::size_t count) {
        std::vector<std::string> lines;
        while (lines.size() < count) {
            const auto line = example.readLine();
            if (!line) {
                ADD_FAILURE() << "the window was closed";
                break;
            }
            lines.push_back(*line);
        }
        return lines;
    }
    static bool isRunning(const ChildProcess& example) {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(example.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == 0;
    }
};

TEST_P(WindowExamples, ShowsWhatBecameOfEachMovieAndStaysOpen) {
    ChildProcess example(
        {GetParam().program, "--report", dropped("plain.mov", "good.mov"), dropped("text.mp4", "bad.mov")});
    EXPECT_THAT(
        rows(example, 2),
        UnorderedElementsAre(AllOf(StartsWith("good.mov | H.264, AAC · 0:02 · "),
                                   HasSubstr(" | Saved as " + out("good.mp4")), EndsWith(" | Show in Files")),
                             AllOf(StartsWith("bad.mov | Cannot convert bad.mov: "), Not(HasSubstr("Show in Files")))));
    EXPECT_TRUE(isRunning(example));
    EXPECT_NEAR(readableSeconds(out("good.mp4")), 2.0, 0.1);
    EXPECT_THAT(filesInOut(), ElementsAre("bad.mov", "good.mov", "good.mp4"));
}

TEST_P(WindowExamples, ReplacesNoFile) {
    std::ofstream(out("holiday.mp4")) << "precious";
    ChildProcess example(
        {GetParam().program, "--report", dropped("plain.mov", "holiday.mov"), dropped("plain.mov", "holiday.m4v")});
    EXPECT_THAT(rows(example, 2), UnorderedElementsAre(HasSubstr("Saved as " + out("holiday 2.mp4")),
                                                       HasSubstr("Saved as " + out("holiday 3.mp4"))));
    EXPECT_EQ(std::filesystem::file_size(out("holiday.mp4")), std::string("precious").size());
    EXPECT_NEAR(readableSeconds(out("holiday 2.mp4")), 2.0, 0.1);
    EXPECT_NEAR(readableSeconds(out("holiday 3.mp4")), 2.0, 0.1);
}

TEST_P(WindowExamples, ShowsWhyAndWhatToDoIfTheServerCannotBeLaunched) {
    const std::string alone = (folder.path() / "Example").string();
    std::filesystem::copy_file(GetParam().program, alone);
    ChildProcess example({alone, "--report", dropped("plain.mov", "good.mov")});
    EXPECT_THAT(rows(example, 1),
                ElementsAre(AllOf(StartsWith("good.mov | The media server could not be started. | "),
                                  EndsWith(" Reinstall the application, which contains the media server."))));
    EXPECT_TRUE(isRunning(example));
}

/// Windows that stay open on a machine that sleeps and wakes.
class WakingWindowExamples : public WakingExamples {};

TEST_P(WakingWindowExamples, StayOpenWhileTheServerCannotBeLaunched) {
    const std::string alone = (folder.path() / "Example").string();
    std::filesystem::copy_file(GetParam().program, alone);
    ChildProcess example(logged({alone, "--report", media("plain.mov")}));
    waitForWake(example);
    machine.rest();
    // The first may still come from the runner's own thread. Each of the others is that of a step on the main loop.
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_THAT(lineWith(example, "Cannot find the executable"),
                    HasSubstr("Error during ServerRunner thread loop"));
    }
}

#ifdef KRV_HAS_X11
/// Windows that are closed while a movie is converted.
class ClosedExamples : public WindowExamples {
protected:
    /// Waits until the server works, and closes the window.
    static void closeWhileConverting() {
        const int port = waitForServer().port;
        waitUntil([port] { return status(port).find("\"running\":1") != std::string::npos; });
        ApplicationWindow(::getenv("DISPLAY")).close();
    }
    static void expectNoWork() {
        waitUntil([] { return status(waitForServer().port).find("\"running\":0") != std::string::npos; });
    }
};

TEST_P(ClosedExamples, ExitWithAFailureAndLeaveNoFile) {
    ChildProcess example({GetParam().program, media("longer.mov"), out("longer.mp4")});
    closeWhileConverting();
    EXPECT_EQ(example.wait(), 1);
    EXPECT_THAT(filesInOut(), IsEmpty());
    expectNoWork();
}

TEST_P(ClosedExamples, CancelAMovieByTheButtonOfItsRow) {
    ChildProcess example({GetParam().program, "--report", dropped("longer.mov", "a.mov")});
    const int port = waitForServer().port;
    waitUntil([port] { return status(port).find("\"running\":1") != std::string::npos; });
    ApplicationWindow window(::getenv("DISPLAY"));
    window.clickAlongTheRightEdge([port] { return status(port).find("\"running\":0") != std::string::npos; });
    EXPECT_THAT(rows(example, 1), ElementsAre(HasSubstr(" | Converting a.mov was cancelled.")));
    EXPECT_TRUE(isRunning(example));
    EXPECT_THAT(filesInOut(), ElementsAre("a.mov"));
}

TEST_P(ClosedExamples, CancelTheMoviesOfTheirRows) {
    ChildProcess example({GetParam().program, "--report", dropped("longer.mov", "a.mov")});
    closeWhileConverting();
    EXPECT_THAT(rows(example, 1), ElementsAre(HasSubstr(" | Converting a.mov was cancelled.")));
    EXPECT_EQ(example.wait(), 0);
    EXPECT_THAT(filesInOut(), ElementsAre("a.mov"));
    expectNoWork();
}
#endif

#ifdef KRV_HAS_X11
/// Movies that are dragged into a window.
using DroppedInExamples = WindowExamples;

TEST_P(DroppedInExamples, AreConvertedAndShown) {
    ChildProcess example({GetParam().program, "--report"});
    ApplicationWindow window(::getenv("DISPLAY"));
    const std::size_t plain = window.vividPixels();
    window.drop({dropped("plain.mov", "my holiday.mov"), dropped("text.mp4", "bad.mov")});
    EXPECT_THAT(rows(example, 2), UnorderedElementsAre(HasSubstr(" | Saved as " + out("my holiday.mp4")),
                                                       StartsWith("bad.mov | Cannot convert bad.mov: ")));
    EXPECT_NEAR(readableSeconds(out("my holiday.mp4")), 2.0, 0.1);
    // The picture of the movie is in its row.
    constexpr std::size_t kPicture = 500;
    waitUntil([&] { return window.vividPixels() > plain + kPicture; });
    window.close();
    EXPECT_EQ(example.wait(), 0);
}
#endif

/// Returns the examples whose toolkit was present at build time.
std::vector<Example> builtExamples() {
    return {
        {"Plain", KRV_PLAIN_EXAMPLE, Example::None},
#ifdef KRV_GTK4_EXAMPLE
        {"Gtk4", KRV_GTK4_EXAMPLE, Example::OwnXServer},
#endif
#ifdef KRV_QT6_EXAMPLE
        {"Qt6", KRV_QT6_EXAMPLE, Example::Offscreen},
        {"Qt6WithoutGLib", KRV_QT6_EXAMPLE, Example::OffscreenWithoutGLib},
#endif
    };
}

/// Returns those of them that have a window.
std::vector<Example> builtWindowExamples() {
    std::vector<Example> examples = builtExamples();
    std::erase_if(examples, [](const Example& example) { return example.display == Example::None; });
    return examples;
}

#ifdef KRV_HAS_X11
/// Returns the same on an X server.
std::vector<Example> examplesOnX() {
    std::vector<Example> examples = builtWindowExamples();
    std::erase_if(examples, [](const Example& example) { return example.display == Example::OffscreenWithoutGLib; });
    for (Example& example : examples) {
        example.display = Example::OwnXServer;
    }
    return examples;
}

INSTANTIATE_TEST_SUITE_P(Example, DroppedInExamples, testing::ValuesIn(examplesOnX()),
                         [](const auto& example) { return example.param.name; });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(DroppedInExamples);
INSTANTIATE_TEST_SUITE_P(Example, ClosedExamples, testing::ValuesIn(examplesOnX()),
                         [](const auto& example) { return example.param.name; });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ClosedExamples);
#endif

INSTANTIATE_TEST_SUITE_P(Example, Examples, testing::ValuesIn(builtExamples()),
                         [](const auto& example) { return example.param.name; });
INSTANTIATE_TEST_SUITE_P(Example, WakingExamples, testing::ValuesIn(builtExamples()),
                         [](const auto& example) { return example.param.name; });
INSTANTIATE_TEST_SUITE_P(Example, WindowExamples, testing::ValuesIn(builtWindowExamples()),
                         [](const auto& example) { return example.param.name; });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(WindowExamples);
INSTANTIATE_TEST_SUITE_P(Example, WakingWindowExamples, testing::ValuesIn(builtWindowExamples()),
                         [](const auto& example) { return example.param.name; });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(WakingWindowExamples);

}  // namespace
}  // namespace krv::test
