#include <csignal>
#include <fstream>
#include <string>

#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/ProcessTable.h>
#include <KRVQTProcessClient/Platform/ServerIdentity.h>
#include <KRVQTProcessClient/Platform/ServerLock.h>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace krv {
namespace {

class ServerLock : public testing::Test {
protected:
    void write(const std::string& text) const {
        std::ofstream(folder.path() / serverFileName(".lock"), std::ios::trunc) << text;
    }
    static std::string lineOf(pid_t pid) {
        const auto process = ProcessTable::ofThisUser().process(pid);
        return process ? fmt::format("{} {}\n", process->pid, process->startTime) : "";
    }
    [[nodiscard]] bool isHeld() const { return isServerLockHeld(folder.path()); }

    const test::TemporaryFolder folder;
};

TEST_F(ServerLock, IsHeldWhileTheProcessInItLives) {
    test::ChildProcess holder({"cat"});
    const std::string line = lineOf(holder.pid());
    ASSERT_NE(line, "");
    write(line);
    EXPECT_TRUE(isHeld());
    ::kill(holder.pid(), SIGKILL);
    (void)holder.wait();
    EXPECT_FALSE(isHeld());
}

TEST_F(ServerLock, IsNotHeldByAProcessThatGotTheSameNumberLater) {
    const auto self = ProcessTable::ofThisUser().process(::getpid());
    ASSERT_TRUE(self);
    write(fmt::format("{} {}\n", self->pid, self->startTime - 1));
    EXPECT_FALSE(isHeld());
}

TEST_F(ServerLock, IsNotHeldWithoutANameInIt) {
    EXPECT_FALSE(isHeld());
    for (const char* text : {"", "x", "12", "-1 5", "99999999999999999999 1"}) {
        write(text);
        EXPECT_FALSE(isHeld()) << text;
    }
    EXPECT_FALSE(isServerLockHeld(""));
}

}  // namespace
}  // namespace krv
