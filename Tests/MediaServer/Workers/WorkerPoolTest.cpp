// The pool with real workers.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <thread>

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TemporaryFolder.h"
#include <MediaServer/Workers/WorkerPool.h>

namespace krv::server {
namespace {

using namespace std::chrono_literals;

std::string nameOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(in, name);
    return name;
}

/// Returns the child processes with this name.
std::vector<pid_t> children(const std::string& name = "KRVMediaWorker") {
    std::vector<pid_t> pids;
    DIR* const tasks = ::opendir("/proc/self/task");
    while (const dirent* const entry = ::readdir(tasks)) {
        std::ifstream in("/proc/self/task/" + std::string(entry->d_name) + "/children");
        for (pid_t pid = 0; in >> pid;) {
            if (nameOf(pid) == name) {
                pids.push_back(pid);
            }
        }
    }
    ::closedir(tasks);
    return pids;
}

constexpr const char* kTemplate = "KRVTemplate";

/// For operations that are not cancelled.
const Cancellation never;

/// Waits until a child has exited and leaves it to be reaped.
void waitForExit(pid_t pid) {
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}

std::string statusLine(pid_t pid, const std::string& key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(key)) {
            return line;
        }
    }
    return {};
}

void waitForReady(const WorkerPool& pool, std::size_t count) {
    while (pool.ready() != count) {
        std::this_thread::yield();
    }
}

TEST(Pool, StartsIdleWorkersInAdvance) {
    WorkerPool pool(KRV_WORKER, 2);
    waitForReady(pool, 2);
    EXPECT_EQ(children().size(), 2U);
}

TEST(Pool, ReplacesAWorkerThatIsTaken) {
    WorkerPool pool(KRV_WORKER, 1);
    std::string failure;
    const auto first = pool.take(never, failure);
    ASSERT_NE(first, nullptr) << failure;
    waitForReady(pool, 1);
    EXPECT_TRUE(first->isAlive());
    EXPECT_EQ(children().size(), 2U);
}

TEST(Pool, ForksItsWorkersFromOneTemplate) {
    WorkerPool pool(KRV_WORKER, 2);
    waitForReady(pool, 2);
    EXPECT_EQ(children(kTemplate).size(), 1U);
    std::string failure;
    const auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    waitForReady(pool, 2);
    EXPECT_EQ(children(kTemplate).size(), 1U);
}

TEST(Pool, StartsAnotherTemplateWhenItsOwnHasDied) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const pid_t first = children(kTemplate).at(0);
    ::kill(first, SIGKILL);
    waitForExit(first);
    std::vector<std::unique_ptr<Worker>> taken;
    for (int i = 0; i < 3; ++i) {
        std::string failure;
        taken.push_back(pool.take(never, failure));
        ASSERT_NE(taken.back(), nullptr) << failure;
        EXPECT_TRUE(taken.back()->isAlive());
    }
    ASSERT_EQ(children(kTemplate).size(), 1U);
    EXPECT_NE(children(kTemplate).at(0), first);
}

TEST(Pool, ReplacesATemplateThatHasStopped) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    const auto before = pool.take(never, failure);
    ASSERT_NE(before, nullptr) << failure;
    const pid_t first = children(kTemplate).at(0);
    ::kill(first, SIGSTOP);
    const auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    EXPECT_TRUE(before->isAlive());
    EXPECT_TRUE(worker->isAlive());
    EXPECT_NE(::kill(first, 0), 0);
}

TEST(Pool, ReapsAWorkerThatIsReleased) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    const pid_t pid = children().at(0);
    ::kill(pid, SIGKILL);  // which closes its files
    pool.release(std::move(worker));
    while (::kill(pid, 0) == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(errno, ESRCH);
}

TEST(Pool, WaitingForAWorkerEndsWithACancellation) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    const auto before = pool.take(never, failure);
    const pid_t stopped = children(kTemplate).at(0);
    ::kill(stopped, SIGSTOP);
    Cancellation cancellation;
    auto waiting = std::async(std::launch::async, [&] {
        std::string reason;
        return pool.take(cancellation, reason) ? "" : reason;
    });
    cancellation.request();
    EXPECT_EQ(waiting.get(), "the operation was cancelled");
    // It has not been waited for.
    EXPECT_EQ(children(kTemplate), std::vector<pid_t>{stopped});
}

TEST(Pool, CanBeDestroyedWhileItsTemplateDoesNotRespond) {
    pid_t stopped = 0;
    std::unique_ptr<Worker> before;
    {
        WorkerPool pool(KRV_WORKER, 1);
        waitForReady(pool, 1);
        stopped = children(kTemplate).at(0);
        ::kill(stopped, SIGSTOP);
        std::string failure;
        before = pool.take(never, failure);
    }
    EXPECT_NE(::kill(stopped, 0), 0);
    before.reset();
    EXPECT_TRUE(children().empty());
}

/// Returns whether a process has children.
bool hasChildren(pid_t pid) {
    std::ifstream in(fmt::format("/proc/{0}/task/{0}/children", pid));
    pid_t child = 0;
    return static_cast<bool>(in >> child);
}

TEST(Pool, ATemplateThatDiesWhileItForksLeavesNothingBehind) {
    WorkerPool pool(KRV_WORKER, 0);
    for (int i = 0; i < 5; ++i) {
        std::string failure;
        ASSERT_NE(pool.take(never, failure), nullptr) << failure;
        const pid_t forker = children(kTemplate).at(0);
        auto worker = std::async(std::launch::async, [&] {
            std::string reason;
            return pool.take(never, reason);
        });
        while (!hasChildren(forker) && worker.wait_for(0s) != std::future_status::ready) {
        }
        ::kill(forker, SIGKILL);
        ASSERT_NE(worker.get(), nullptr);
        EXPECT_EQ(children(), std::vector<pid_t>());
    }
}

TEST(Pool, OutlivesItsProgram) {
    const test::TemporaryFolder folder;
    const auto program = folder.path() / "KRVMediaWorker";
    for (const bool replaced : {false, true}) {
        std::filesystem::copy_file(KRV_WORKER, program, std::filesystem::copy_options::overwrite_existing);
        WorkerPool pool(program.string(), 1);
        std::filesystem::remove(program);
        if (replaced) {
            folder.write("KRVMediaWorker", "not a program");
        }
        waitForReady(pool, 1);
        const pid_t first = children(kTemplate).at(0);
        ::kill(first, SIGKILL);
        waitForExit(first);
        for (int i = 0; i < 2; ++i) {
            std::string failure;
            EXPECT_NE(pool.take(never, failure), nullptr) << failure;
        }
    }
}

TEST(Pool, ItsTemplateIsConfined) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const pid_t pid = children(kTemplate).at(0);
    EXPECT_EQ(statusLine(pid, "NoNewPrivs:"), "NoNewPrivs:\t1");
    EXPECT_EQ(statusLine(pid, "Seccomp:"), "Seccomp:\t2");
    EXPECT_EQ(::getpgid(pid), pid);
    int adjustment = 0;
    std::ifstream("/proc/" + std::to_string(pid) + "/oom_score_adj") >> adjustment;
    EXPECT_EQ(adjustment, 500);
}

TEST(Pool, ItsWorkersAreChildrenOfThisProcess) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    EXPECT_EQ(statusLine(children().at(0), "PPid:"), "PPid:\t" + std::to_string(::getpid()));
}

TEST(Pool, NeverReturnsADeadWorker) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const auto spares = children();
    ASSERT_EQ(spares.size(), 1U);
    ::kill(spares[0], SIGKILL);
    waitForExit(spares[0]);
    std::string failure;
    const auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    EXPECT_TRUE(worker->isAlive());
}

TEST(Pool, StartsMoreWorkersOnDemand) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    std::vector<std::unique_ptr<Worker>> taken;
    for (int i = 0; i < 3; ++i) {
        taken.push_back(pool.take(never, failure));
        ASSERT_NE(taken.back(), nullptr) << failure;
    }
    EXPECT_EQ(children().size(), 3U);
}

TEST(Pool, ReportsWhyNoWorkerStartsAndTriesAgain) {
    WorkerPool pool("/nonexistent/worker", 1);
    for (int i = 0; i < 2; ++i) {
        std::string failure;
        EXPECT_EQ(pool.take(never, failure), nullptr);
        EXPECT_EQ(failure, "/nonexistent/worker: No such file or directory");
    }
}

TEST(Pool, KillsItsIdleWorkersWhenItIsDestroyed) {
    {
        WorkerPool pool(KRV_WORKER, 2);
        waitForReady(pool, 2);
    }
    EXPECT_TRUE(children().empty());
    EXPECT_TRUE(children(kTemplate).empty());
}

TEST(Pool, CanBeDestroyedBeforeAllWorkersHaveStarted) {
    for (int i = 0; i < 5; ++i) {
        const WorkerPool pool(KRV_WORKER, 2);
    }
    EXPECT_TRUE(children().empty());
    EXPECT_TRUE(children(kTemplate).empty());
}

TEST(Pool, ItsWorkersEnterTheSandbox) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    const auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    const auto all = children();
    ASSERT_EQ(all.size(), 1U);
    // One that it inherits from its template, and two of its own.
    while (statusLine(all[0], "Seccomp_filters:") != "Seccomp_filters:\t3") {
        std::this_thread::yield();
    }
    EXPECT_EQ(statusLine(all[0], "Seccomp:"), "Seccomp:\t2");
    EXPECT_EQ(statusLine(all[0], "NoNewPrivs:"), "NoNewPrivs:\t1");
}

TEST(Pool, AWorkerReturnsItsExitStatus) {
    WorkerPool pool(KRV_WORKER, 0);
    std::string failure;
    const auto worker = pool.take(never, failure);
    ASSERT_NE(worker, nullptr) << failure;
    ::kill(children().at(0), SIGSEGV);
    while (worker->isAlive()) {
        std::this_thread::yield();
    }
    const int status = worker->end();
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_EQ(worker->end(), 0);
}

TEST(Pool, ItsWorkersHaveAProcessGroupOfTheirOwnAndNoEnvironment) {
    ::setenv("KRV_SECRET", "secret", 1);
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const std::vector<pid_t> pids = children();
    ASSERT_EQ(pids.size(), 1U);
    EXPECT_EQ(::getpgid(pids[0]), pids[0]);
    std::ifstream in("/proc/" + std::to_string(pids[0]) + "/environ");
    if (in) {  // only root may read it once the worker is in its sandbox
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "");
    }
}

TEST(Pool, ItsWorkersAreKilledFirstWhenMemoryRunsOut) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const pid_t worker = children().at(0);
    while (statusLine(worker, "Seccomp:") != "Seccomp:\t2") {
        std::this_thread::yield();
    }
    int adjustment = 0;
    std::ifstream("/proc/" + std::to_string(worker) + "/oom_score_adj") >> adjustment;
    EXPECT_EQ(adjustment, 500);
}

TEST(Pool, ItsWorkersBlockTheSignalsThatEndASession) {
    WorkerPool pool(KRV_WORKER, 1);
    waitForReady(pool, 1);
    const std::string blocked = statusLine(children().at(0), "SigBlk:");
    const std::uint64_t mask = std::stoull(blocked.substr(blocked.find(':') + 1), nullptr, 16);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        EXPECT_NE(mask & (std::uint64_t{1} << (number - 1)), 0U) << number;
    }
}

}  // namespace
}  // namespace krv::server
