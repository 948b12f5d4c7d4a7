// The sandbox from inside, by a program that tries to leave it.
#include <csignal>
#include <cstdint>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"
#include <MediaServer/Worker/Sandbox.h>

namespace krv::server {
namespace {

using testing::EndsWith;

/// The parameter: which layers the probe enters.
class Sandbox : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (!missingForSandbox(sandboxSupport()).empty()) {
            GTEST_SKIP() << missingForSandbox(sandboxSupport()).front();
        }
    }

    test::TemporaryFolder folder_;
    const std::string file_ = folder_.write("secret", "secret");
};

TEST_P(Sandbox, DeniesEverythingThatAWorkerDoesNotNeed) {
    ::chmod(file_.c_str(), 0640);
    struct stat before {};
    ASSERT_EQ(::stat(file_.c_str(), &before), 0);
    test::ChildProcess bystander({"sleep", "1000"});
    test::ChildProcess probe({KRV_SANDBOX_PROBE, file_, std::to_string(bystander.pid()), GetParam()});
    const auto readPart = [&probe](const std::string& outcome) {
        int attempts = 0;
        for (auto line = probe.readLine(); line && *line != "---"; line = probe.readLine()) {
            EXPECT_THAT(*line, EndsWith(": " + outcome));
            ++attempts;
        }
        return attempts;
    };
    EXPECT_EQ(readPart("done"), 14);
    EXPECT_EQ(readPart("refused"), 93);
    EXPECT_EQ(probe.wait(), -SIGABRT);

    EXPECT_EQ(::kill(bystander.pid(), 0), 0);
    EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(bystander.pid())), ::getpriority(PRIO_PROCESS, 0));
    struct stat after {};
    ASSERT_EQ(::stat(file_.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(after.st_size, before.st_size);
    EXPECT_EQ(after.st_nlink, 1U);
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
    EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
}

INSTANTIATE_TEST_SUITE_P(Layers, Sandbox, testing::Values("both", "seccomp"),
                         [](const auto& test) { return std::string(test.param); });

TEST(WorkerLimits, DivideTheMachinesMemory) {
    constexpr std::uint64_t kGibibyte = 1ULL << 30;
    EXPECT_EQ(WorkerLimits::memoryOfEach(5, 24 * kGibibyte), 24 * kGibibyte / 5);
    EXPECT_EQ(WorkerLimits::memoryOfEach(11, 32 * kGibibyte), 32 * kGibibyte / 11);
    EXPECT_EQ(WorkerLimits::memoryOfEach(5, 256 * kGibibyte), 8 * kGibibyte);
    EXPECT_EQ(WorkerLimits::memoryOfEach(11, 4 * kGibibyte), kGibibyte);
    EXPECT_EQ(WorkerLimits::memoryOfEach(0, 4 * kGibibyte), 4 * kGibibyte);
    EXPECT_GE(WorkerLimits{}.memory, kGibibyte);
    EXPECT_LE(WorkerLimits{}.memory, 8 * kGibibyte);
}

}  // namespace
}  // namespace krv::server
