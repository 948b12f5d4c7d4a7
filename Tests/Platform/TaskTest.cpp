// Launches real programs, which write what they observe to a file.
#include <algorithm>
#include <atomic>
#include <barrier>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Foundation/Exception.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/Task.h>

#include "TemporaryFolder.h"

namespace krv {
namespace {

namespace fs = std::filesystem;

std::string contents(const fs::path& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

class LaunchedTask : public testing::Test {
protected:
    /// Runs a shell command and waits until it has exited. Its first argument is the folder.
    void runShell(const std::string& line) {
        const auto task = Task::launch({.executable = "/bin/sh",
                                        .arguments = {"-c", line, "sh", folder.path().string()},
                                        .standardErrorFile = errors});
        waitForEnd(*task);
    }
    static void waitForEnd(const Task& task) {
        while (task.isRunning()) {
            std::this_thread::yield();
        }
    }
    std::string output(const char* file) const { return contents(folder.path() / file); }

    test::TemporaryFolder folder;
    std::string errors;
};

TEST_F(LaunchedTask, GetsItsArgumentsUnchanged) {
    const auto task = Task::launch(
        {.executable = "/bin/sh",
         .arguments = {"-c", "printf '%s|' \"$@\" > \"$0\"", folder.path() / "arguments", "-a b", "", "c'\"d"},
         .standardErrorFile = {}});
    waitForEnd(*task);
    EXPECT_EQ(output("arguments"), "-a b||c'\"d|");
}

TEST_F(LaunchedTask, HasItsOwnSessionAndTheRootDirectory) {
    runShell("{ ps -o sid= -p $$; pwd; } > \"$1/where\"; echo $$ > \"$1/pid\"");
    const std::string where = output("where");
    EXPECT_EQ(std::stol(where), std::stol(output("pid")));
    EXPECT_NE(std::stol(where), ::getsid(0));
    EXPECT_TRUE(where.ends_with("\n/\n")) << where;
}

TEST_F(LaunchedTask, InheritsNoDescriptorAndHasStandardStreamsOnNull) {
    const int open = ::open("/dev/zero", O_RDONLY);  // deliberately without O_CLOEXEC
    // A second shell lists the descriptors of the first one, which has no redirection.
    runShell("sh -c 'for d in /proc/$PPID/fd/*; do readlink $d >> \"$0\"; done' \"$1/open\"; true");
    ::close(open);
    EXPECT_EQ(output("open"), "/dev/null\n/dev/null\n/dev/null\n");
}

TEST_F(LaunchedTask, CanBeLaunchedByManyThreadsAtOnce) {
    constexpr int kThreads = 8;
    constexpr int kLaunchesEach = 20;
    std::barrier together(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int launch = 0; launch < kLaunchesEach; ++launch) {
                together.arrive_and_wait();
                waitForEnd(*Task::launch({.executable = "/bin/sh",
                                          .arguments = {"-c", "printf x >> \"$0\"", folder.path() / "ran"},
                                          .standardErrorFile = {}}));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(output("ran"), std::string(std::size_t{kThreads} * kLaunchesEach, 'x'));
}

TEST_F(LaunchedTask, IsNotDelayedByAnotherChildOfTheHost) {
    // Forks at any moment, even during a launch, and keeps all inherited descriptors open.
    std::atomic<bool> enough = false;
    std::vector<pid_t> children;
    std::thread host([&] {
        while (!enough && children.size() < 400) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::pause();
                ::_exit(0);
            }
            children.push_back(child);
        }
    });
    for (int launch = 0; launch < 20; ++launch) {
        waitForEnd(*Task::launch({.executable = "/bin/true", .arguments = {}, .standardErrorFile = {}}));
    }
    enough = true;
    host.join();
    for (const pid_t child : children) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    EXPECT_FALSE(children.empty());
}

std::atomic<int> childSignals = 0;

TEST_F(LaunchedTask, RaisesNoSignalInTheHostAndIsNoChildThatItsWaitFinds) {
    const auto before = std::signal(SIGCHLD, [](int) { ++childSignals; });
    // A child of the host's own keeps its wait() from returning at once.
    const pid_t own = ::fork();
    if (own == 0) {
        ::pause();
        ::_exit(0);
    }
    std::vector<pid_t> met;
    std::thread waiting([&] {
        for (pid_t child = 0; child != own;) {
            child = ::waitpid(-1, nullptr, 0);
            met.push_back(child);
        }
    });
    for (int launch = 0; launch < 20; ++launch) {
        waitForEnd(*Task::launch({.executable = "/bin/true", .arguments = {}, .standardErrorFile = {}}));
    }
    EXPECT_EQ(childSignals, 0);
    ::kill(own, SIGKILL);
    waiting.join();
    std::signal(SIGCHLD, before);
    EXPECT_THAT(met, testing::ElementsAre(own));
}

std::atomic<pid_t> hostOfHandlers = 0;
std::atomic<int> strayHandlers = 0;

/// Launches while signals arrive for the whole process group. Returns how many handlers ran outside the host.
int launchUnderSignalsToTheGroup() {
    ::setpgid(0, 0);
    hostOfHandlers = ::getpid();
    std::signal(SIGUSR1, [](int) { strayHandlers += ::getpid() == hostOfHandlers ? 0 : 1; });
    const pid_t sender = ::fork();
    if (sender == 0) {
        std::signal(SIGUSR1, SIG_IGN);
        for (;;) {
            ::kill(0, SIGUSR1);
        }
    }
    for (int launch = 0; launch < 200; ++launch) {
        (void)Task::launch({.executable = "/bin/true", .arguments = {}, .standardErrorFile = {}});
    }
    ::kill(sender, SIGKILL);
    ::waitpid(sender, nullptr, 0);
    return strayHandlers;
}

TEST_F(LaunchedTask, RunsNoHandlerOfTheHostInBetween) {
    const pid_t host = ::fork();
    if (host == 0) {
        ::_exit(launchUnderSignalsToTheGroup() == 0 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(host, &status, 0);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(LaunchedTask, LeavesTheHostItsDescriptors) {
    const auto open = [] {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    };
    const auto before = open();
    for (int launch = 0; launch < 3; ++launch) {
        (void)Task::launch({.executable = "/bin/true", .arguments = {}, .standardErrorFile = {}});
    }
    EXPECT_EQ(open(), before);
}

TEST_F(LaunchedTask, WithoutADescriptorToWatchItIsKnownByItsNumber) {
    const auto task = [] {
        // As many as are open: no further one, but the program may replace its own.
        const auto entries = fs::directory_iterator("/proc/self/fd");
        const auto highest = std::distance(begin(entries), fs::directory_iterator());
        rlimit before{};
        ::getrlimit(RLIMIT_NOFILE, &before);
        std::vector<int> filled;
        const rlimit limit{static_cast<rlim_t>(highest + 8), before.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &limit);
        for (int descriptor = ::dup(0); descriptor >= 0; descriptor = ::dup(0)) {
            filled.push_back(descriptor);
        }
        auto launched = Task::launch({.executable = "/bin/cat", .arguments = {"/dev/zero"}, .standardErrorFile = {}});
        for (const int descriptor : filled) {
            ::close(descriptor);
        }
        ::setrlimit(RLIMIT_NOFILE, &before);
        return launched;
    }();
    EXPECT_TRUE(task->isRunning());
    ::kill(task->processIdentifier(), SIGKILL);
    waitForEnd(*task);
}

TEST_F(LaunchedTask, HasNoSignalBlockedOrIgnored) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto previous = std::signal(SIGUSR1, SIG_IGN);
    runShell("exec grep -E 'SigBlk|SigIgn' /proc/self/status > \"$1/signals\"");
    std::signal(SIGUSR1, previous);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    // The C library reserves two signals, 32 and 33, and spawns with these ignored.
    EXPECT_THAT(output("signals"), testing::AnyOf("SigBlk:\t0000000000000000\nSigIgn:\t0000000180000000\n",
                                                  "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"));
}

TEST_F(LaunchedTask, WritesItsStandardErrorToTheNamedFile) {
    errors = folder.path() / "errors";
    runShell("echo first >&2");
    runShell("echo second >&2");
    EXPECT_EQ(output("errors"), "first\nsecond\n");
}

TEST_F(LaunchedTask, RunsEvenIfTheErrorFileCannotBeCreated) {
    errors = folder.path() / "missing" / "errors";
    runShell("echo done > \"$1/done\"");
    EXPECT_EQ(output("done"), "done\n");
}

TEST_F(LaunchedTask, IsNotAChildOfOurs) {
    const auto task = Task::launch({.executable = "/bin/sleep", .arguments = {"1000"}, .standardErrorFile = {}});
    EXPECT_TRUE(task->isRunning());
    EXPECT_GT(task->processIdentifier(), 0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    const auto info = ProcessTable::system().process(task->processIdentifier());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->name, fs::canonical("/bin/sleep").filename());
    ::kill(task->processIdentifier(), SIGKILL);
    waitForEnd(*task);
    EXPECT_FALSE(task->isRunning());
}

TEST_F(LaunchedTask, OutlivesItsTaskObject) {
    auto task = Task::launch({.executable = "/bin/sleep", .arguments = {"1000"}, .standardErrorFile = {}});
    const pid_t pid = task->processIdentifier();
    task.reset();
    EXPECT_TRUE(ProcessTable::system().process(pid));
    ::kill(pid, SIGKILL);
}

TEST_F(LaunchedTask, LeaksNoDescriptor) {
    const auto count = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    const auto before = count();
    runShell("true");
    EXPECT_THROW((void)Task::launch({"/nonexistent", {}, {}}), Exception);
    EXPECT_EQ(count(), before);
}

class RefusedTask : public LaunchedTask {
protected:
    std::string reasonFor(const std::string& executable) const {
        try {
            (void)Task::launch({executable, {}, {}});
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), "NSInvalidArgumentException");
            return exception.reason();
        }
        return "it was launched";
    }
};

TEST_F(RefusedTask, ReportsThatTheProgramIsMissing) {
    EXPECT_EQ(reasonFor("/nonexistent/program"), "/nonexistent/program cannot be launched: No such file or directory");
}

TEST_F(RefusedTask, ReportsThatTheProgramIsNotExecutable) {
    const std::string program = folder.write("program", "#!/bin/sh\n");
    EXPECT_EQ(reasonFor(program), program + " cannot be launched: Permission denied");
}

TEST_F(RefusedTask, ReportsThatTheProgramHasTheWrongFormat) {
    const std::string program = folder.write("program", "MZ this is no program of this system");
    fs::permissions(program, fs::perms::owner_all);
    EXPECT_EQ(reasonFor(program), program + " cannot be launched: Exec format error");
}

TEST_F(RefusedTask, ReportsThatAFolderIsNotAProgram) {
    EXPECT_EQ(reasonFor(folder.path().string()), folder.path().string() + " cannot be launched: Permission denied");
}

}  // namespace
}  // namespace krv
