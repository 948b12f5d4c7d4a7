// The machine around the applications: other responders, no multicast, ports used by other programs, sleep, clock
// jumps.
#include <chrono>
#include <fstream>
#include <iostream>
#include <thread>

#include "PrivateBus.h"
#include "ScriptedServerProcess.h"
#include "Shell.h"
#include "SystemFixture.h"

namespace krv::test {
namespace {

using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

class Surroundings : public SystemFixture {
protected:
    void start(std::vector<std::string> arguments = {}) {
        application = std::make_unique<Application>(install(), std::move(arguments));
    }
    void expectConversion(const std::string& id) {
        application->tell("convert " + id + ' ' + media("plain.mov") + ' ' + out(id + ".mp4"));
        EXPECT_EQ(application->result(id), "done");
    }
    /// Kills the running server and waits until another one serves.
    void replaceTheServer() {
        const Serving before = waitForServer();
        killServer(before.pid);
        waitForServer([&](const Serving& server) { return server.pid != before.pid; });
    }

    std::unique_ptr<Application> application;
};

class AvahiDaemon {
public:
    explicit AvahiDaemon(const TemporaryFolder& folder)
        : process_({"unshare", "--mount", "sh", "-c",
                    "mkdir -p /run/avahi-daemon && mount -t tmpfs none /run/avahi-daemon && exec avahi-daemon "
                    "--no-drop-root --no-chroot --no-rlimits -f " +
                        folder.write("avahi.conf", "[server]\nenable-dbus=no\nallow-interfaces=lo\n") + " 2>&1"}) {
        for (;;) {
            const auto line = process_.readLine();
            if (!line) {
                throw std::runtime_error("avahi-daemon did not start");
            }
            if (line->find("Server startup complete") != std::string::npos) {
                return;
            }
        }
    }

private:
    ChildProcess process_;
};

TEST_F(Surroundings, AnAvahiDaemonMayStartAndExit) {
    start();
    expectConversion("before");
    {
        const AvahiDaemon daemon(folder);
        expectConversion("beside");
        replaceTheServer();
        expectConversion("restarted");
        Application another(install("Another"));
        EXPECT_THAT(another.ask("wait-registered", "registered"), StartsWith("registered after"));
    }
    expectConversion("after");
    replaceTheServer();
    expectConversion("again");
    EXPECT_THAT(servers(), SizeIs(1));
}

TEST_F(Surroundings, WithoutMulticastTheServerIsFoundByItsPort) {
    ASSERT_EQ(runShell("ip route add prohibit 224.0.0.0/4"), 0);
    start();
    std::cout << "[ measured ] without multicast, " << application->ask("wait-registered", "registered") << " s\n";
    expectConversion("one");
    replaceTheServer();
    expectConversion("two");
    ASSERT_EQ(runShell("ip route del prohibit 224.0.0.0/4"), 0);
    expectConversion("three");
    EXPECT_THAT(servers(), SizeIs(1));
}

TEST_F(Surroundings, AForeignServerOnTheFirstPortIsNotMistakenForOurs) {
    const ScriptedServerProcess foreign({"port", "8000", "body", "{\"status\": \"everything is fine\"}"});
    start();
    expectConversion("one");
    const Serving server = waitForServer();
    EXPECT_GT(server.port, 8000);
    EXPECT_THAT(application->ask("wait-registered", "registered"), StartsWith("registered after"));
}

TEST_F(Surroundings, SleepAndWakeStopAndStartTheWatch) {
    PrivateBus bus;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    MockLogind logind(bus);
    start();
    application->ask("log", "logging");
    application->ask("wait-registered", "registered");
    const Serving before = waitForServer();
    logind.prepareForSleep(true);
    application->waitFor("log Nap time. Turning off monitoring");
    // No runner watches now, so a killed server is not replaced within seconds.
    killServer(before.pid);
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_THAT(servers(), SizeIs(0));
    logind.prepareForSleep(false);
    application->waitFor("log Wakey wakey... begin monitoring again");
    application->waitFor("log Registration complete. Good to go.");
    expectConversion("one");
    // The runner now watches on the main run loop.
    replaceTheServer();
    application->waitFor("log Registration complete. Good to go.");
}

TEST_F(Surroundings, AConversionSurvivesSleepAndWake) {
    PrivateBus bus;
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    MockLogind logind(bus);
    start();
    application->ask("log", "logging");
    application->tell("convert one " + media("long.mov") + ' ' + out("one.mp4"));
    application->waitForProgress("one", 0.01);
    logind.prepareForSleep(true);
    logind.prepareForSleep(false);
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_TRUE(application->hasSaid("log Wakey wakey"));
    EXPECT_NEAR(readableSeconds(out("one.mp4")), 30.0, 0.5);
}

TEST_F(Surroundings, AJumpOfTheWallClockIsNotAStall) {
    ::setenv("LD_PRELOAD", KRV_WALL_CLOCK_SHIFT, 1);
    start();
    ::unsetenv("LD_PRELOAD");
    application->ask("wait-registered", "registered");
    const Serving server = waitForServer();
    application->tell("convert one " + media("long.mov") + ' ' + out("one.mp4"));
    application->waitForProgress("one", 0.01);
    EXPECT_EQ(application->ask("jump 86400", "jumped"), "jumped 86400");
    application->waitForProgress("one", 0.02);
    EXPECT_EQ(application->ask("jump -172800", "jumped"), "jumped -172800");
    EXPECT_EQ(application->result("one"), "done");
    EXPECT_EQ(application->ask("registered", "registered"), "registered yes");
    EXPECT_THAT(servers(), ElementsAre(server.pid));
}

}  // namespace
}  // namespace krv::test
