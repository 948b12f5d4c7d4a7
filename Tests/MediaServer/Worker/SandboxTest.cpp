// The sandbox from inside, by a program that tries to leave it.
#include <csignal>
#include <fstream>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"
#include <MediaServer/Worker/Sandbox.h>

namespace krv::server {
namespace {

using testing::ElementsAre;

TEST(Sandbox, DeniesEverythingThatAWorkerDoesNotNeed) {
    if (!missingForSandbox().empty()) {
        GTEST_SKIP() << missingForSandbox().front();
    }
    const test::TemporaryFolder folder;
    const std::string file = folder.write("secret", "secret");
    test::ChildProcess bystander({"sleep", "1000"});
    test::ChildProcess probe({KRV_SANDBOX_PROBE, file, std::to_string(bystander.pid())});
    std::vector<std::string> lines;
    while (auto line = probe.readLine()) {
        lines.push_back(*line);
    }
    EXPECT_THAT(lines,
                ElementsAre("read what is open: done", "start a thread: done", "use memory: done",
                            "open for reading: refused", "open a folder: refused", "make a file: refused",
                            "make a nameless file: refused", "delete: refused", "rename: refused", "link: refused",
                            "make a folder: refused", "open through /proc: refused", "make a TCP socket: refused",
                            "make a UDP socket: refused", "make a local socket: refused",
                            "make a netlink socket: refused", "connect a socket it holds: refused", "execute: refused",
                            "execute from memory: refused", "fork: refused", "trace another process: refused",
                            "read another process's memory: refused", "signal another process: refused",
                            "signal its group: refused", "raise a signal for itself: done",
                            "take more memory than it may: refused", "open more descriptors than it may: refused"));
    EXPECT_EQ(probe.wait(), -SIGABRT);
    EXPECT_EQ(::kill(bystander.pid(), 0), 0);
    EXPECT_TRUE(std::ifstream(file).is_open());
}

TEST(Sandbox, GivesAWorkerBetweenOneAndEightGibibytes) {
    const WorkerLimits limits;
    EXPECT_GE(limits.memory, 1ULL << 30);
    EXPECT_LE(limits.memory, 8ULL << 30);
}

}  // namespace
}  // namespace krv::server
