// The resources that the library uses in an application: threads, descriptors, children, processor time and memory.
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include "SystemFixture.h"

namespace krv::test {
namespace {

namespace fs = std::filesystem;

struct Usage {
    long threads = 0;
    long descriptors = 0;
    long children = 0;
    double seconds = 0;
    long kilobytes = 0;
};

class Footprint : public SystemFixture {
protected:
    static Usage usage(Application& application) {
        std::istringstream in(application.ask("use", "use "));
        std::string word;
        Usage usage;
        in >> word >> usage.threads >> usage.descriptors >> usage.children >> usage.seconds >> usage.kilobytes;
        return usage;
    }
    static std::vector<std::string> threadNames(pid_t pid) {
        std::vector<std::string> names;
        for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
            std::ifstream in(task.path() / "comm");
            std::getline(in, names.emplace_back());
        }
        return names;
    }
    static void createAndCleanUp(Application& application) {
        application.ask("bare", "bare");
        application.ask("wait-registered", "registered");
        application.ask("cleanup", "cleaned up");
    }
};

TEST_F(Footprint, ACleanedUpClientLeavesNoThreadDescriptorOrChild) {
    Application application(install(), {"--bare"});
    // The first client starts what the process shares and keeps: the search, the HTTP connections, the bus.
    createAndCleanUp(application);
    const Usage first = usage(application);
    EXPECT_EQ(first.children, 0);
    EXPECT_THAT(threadNames(application.pid()), testing::Not(testing::Contains("KRVServerRunner")));
    for (int i = 0; i < 3; ++i) {
        createAndCleanUp(application);
    }
    const Usage last = usage(application);
    EXPECT_EQ(last.threads, first.threads);
    EXPECT_EQ(last.descriptors, first.descriptors);
    EXPECT_EQ(last.children, 0);
    EXPECT_THAT(threadNames(application.pid()), testing::Not(testing::Contains("KRVServerRunner")));
    EXPECT_THAT(servers(), testing::SizeIs(1));
}

TEST_F(Footprint, ThereIsOneSharedClientUntilABareOneTakesItsPlace) {
    Application application(install());
    EXPECT_EQ(application.ask("same", "same"), "same yes");
    application.ask("bare", "bare");
    EXPECT_EQ(application.ask("same", "same"), "same yes");
    EXPECT_THAT(application.ask("wait-registered", "registered"), testing::StartsWith("registered after"));
}

TEST_F(Footprint, TheServerIsNotAChildOfTheApplicationThatLaunchedIt) {
    Application application(install());
    application.ask("wait-registered", "registered");
    EXPECT_EQ(usage(application).children, 0);
    EXPECT_THAT(threadNames(application.pid()), testing::Contains("KRVServerRunner"));
}

TEST_F(Footprint, TheSharedClientsRunnerContinuesAfterItIsDestroyed) {
    Application application(install());
    application.ask("wait-registered", "registered");
    application.ask("destroy", "destroyed");
    const Serving before = waitForServer();
    killServer(before.pid);
    waitForServer([&](const Serving& server) { return server.pid != before.pid; });
    EXPECT_THAT(threadNames(application.pid()), testing::Contains("KRVServerRunner"));
}

/// Runs for 10 s. KRV_IDLE_SECONDS=60 runs it for a minute.
TEST_F(Footprint, AnIdleClientDoesNotGrow) {
    const char* const wanted = std::getenv("KRV_IDLE_SECONDS");
    const int seconds = wanted ? std::atoi(wanted) : 10;
    Application application(install());
    application.ask("wait-registered", "registered");
    // After three requests to the server, an idle client has done every kind of its work once.
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const Usage before = usage(application);
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const Usage after = usage(application);
    std::cout << "[ measured ] " << 100 * (after.seconds - before.seconds) / seconds << " % of a core over " << seconds
              << " s idle, " << after.kilobytes << " kB resident\n";
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_LE(after.kilobytes, before.kilobytes + 256);
}

}  // namespace
}  // namespace krv::test
