#include <algorithm>
#include <csignal>
#include <filesystem>

#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <KRVQTProcessClient/Platform/Linux/ProcessFiles.h>
#include <KRVQTProcessClient/Platform/ProcessTable.h>

#include "ChildProcess.h"

namespace krv {
namespace {

constexpr const char* kTail =
    " 1 4242 4242 0 -1 4194304 100 0 0 0 1 2 0 0 20 0 1 0 987654 1000 10 18446744073709551615";

TEST(ProcessFiles, ReadsNameStateAndStartTime) {
    const auto stat = parseProcessStat(std::string("4242 (server) S") + kTail);
    ASSERT_TRUE(stat);
    EXPECT_EQ(stat->name, "server");
    EXPECT_EQ(stat->state, 'S');
    EXPECT_EQ(stat->startTime, 987654U);
}

TEST(ProcessFiles, ANameMayContainParenthesesSpacesAndNewlines) {
    for (const char* name : {"a) R 1 (b", ")", "(", ") Z 0", "a\nb", "", " ", "((("}) {
        const auto stat = parseProcessStat("4242 (" + std::string(name) + ") R" + kTail);
        ASSERT_TRUE(stat) << name;
        EXPECT_EQ(stat->name, name);
        EXPECT_EQ(stat->state, 'R');
        EXPECT_EQ(stat->startTime, 987654U);
    }
}

TEST(ProcessFiles, RefusesMalformedLines) {
    for (const char* text : {"", "4242", "4242 (x)", "4242 (x) ", "4242 (x) S", "4242 (x) S 1 2 3", "(x) S", ") S ("}) {
        EXPECT_FALSE(parseProcessStat(text)) << text;
    }
    EXPECT_FALSE(parseProcessStat("1 (x) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 notanumber"));
}

TEST(ProcessFiles, AnExecutablesNameIsItsFileName) {
    EXPECT_EQ(executableName("/opt/x/KRVQuicktimeProcess"), "KRVQuicktimeProcess");
    EXPECT_EQ(executableName("/opt/x/KRVQuicktimeProcess (deleted)"), "KRVQuicktimeProcess");
    EXPECT_EQ(executableName("/a (deleted)/b"), "b");
    EXPECT_EQ(executableName("plain"), "plain");
    EXPECT_EQ(executableName(""), "");
}

TEST(ProcessTable, FindsThisProcess) {
    const auto info = ProcessTable::system().process(::getpid());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->pid, ::getpid());
    EXPECT_EQ(info->name, "PlatformTests");
    EXPECT_EQ(info->user, ::getuid());
    EXPECT_GT(info->startTime, 0U);
}

TEST(ProcessTable, ReturnsFullNames) {
    const auto link =
        std::filesystem::temp_directory_path() / ("a-name-of-more-than-fifteen-bytes-" + std::to_string(::getpid()));
    std::filesystem::copy_file("/bin/sleep", link);
    {
        const test::ChildProcess child({link.string(), "1000"});
        // The name changes when the child executes the program.
        std::optional<ProcessInfo> info;
        do {
            info = ProcessTable::system().process(child.pid());
            ASSERT_TRUE(info);
        } while (info->name != link.filename().string());
        EXPECT_EQ(info->name, link.filename().string());
        std::filesystem::remove(link);
        EXPECT_EQ(ProcessTable::system().process(child.pid())->name, link.filename().string());
    }
}

TEST(ProcessTable, AZombieIsNotAProcess) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    EXPECT_FALSE(ProcessTable::system().process(child));
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(ProcessTable::system().process(child));
}

TEST(ProcessTable, RefusesInvalidIds) {
    EXPECT_FALSE(ProcessTable::system().process(0));
    EXPECT_FALSE(ProcessTable::system().process(-1));
}

TEST(ProcessTable, ListsProcessesInAscendingOrder) {
    const auto all = ProcessTable::system().processes();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; }));
    EXPECT_TRUE(std::any_of(all.begin(), all.end(), [](const auto& p) { return p.pid == ::getpid(); }));
}

TEST(PidNamespace, IsTheNumberThatTheKernelShows) {
    EXPECT_EQ(fmt::format("pid:[{}]", pidNamespace()), std::filesystem::read_symlink("/proc/self/ns/pid").string());
}

TEST(PidNamespace, IsAnotherOneInAContainer) {
    test::ChildProcess sibling({KRV_PLATFORM_PROBE, "pidNamespace", ""});
    test::ChildProcess container({"unshare", "-rpf", "--mount-proc", KRV_PLATFORM_PROBE, "pidNamespace", ""});
    EXPECT_EQ(sibling.readAll(), fmt::format("{}\n", pidNamespace()));
    const std::string inside = container.readAll();
    ASSERT_EQ(container.wait(), 0) << "user namespaces are needed";
    EXPECT_NE(inside, fmt::format("{}\n", pidNamespace()));
    EXPECT_NE(inside, fmt::format("{}\n", kFirstPidNamespace));
    EXPECT_NE(inside, "0\n");
}

}  // namespace
}  // namespace krv
